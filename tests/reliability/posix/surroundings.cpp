// The family of what a storage meets around itself: permissions, links, what is no file, and a
// process that writes while another one reads.
#include <fcntl.h>
#include <k9erepl/storage.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "model/storage_client.h"
#include "reliability/oracle.h"
#include "reliability/posix/kinds.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

namespace {

constexpr uid_t kNobody = 65534;
constexpr u32 kRecords = 30;

class Place {
  public:
    explicit Place(bool async) : m_async(async) {}

    std::string File(const std::string& name) const { return m_folder.File(name); }
    std::string ConnString(const std::string& name) const {
        return "file=" + File(name) + ";block_size=400;cache_type=Last1;flush_mode=PerTrans;" +
               "flush_trans_num=1;flush_timeout=1000000;async_mode=" + (m_async ? "yes" : "no");
    }
    // A storage of kRecords records.
    Problem Make(const std::string& name) const {
        const u32 rc = K9eReplStorageCreate(ConnString(name).c_str(), 0);
        return rc == RC_OK ? Append(name, kRecords) : "Create answers " + std::to_string(rc);
    }
    Problem Append(const std::string& name, u32 records) const {
        Seen seen;
        return Visit(ConnString(name), {records, 40, 1}, &seen);
    }
    Problem Holds(const std::string& name, i64 first, i64 last) const {
        Seen seen;
        Problem problem = Visit(ConnString(name), {}, &seen);
        const bool holds = !seen.records.empty() && seen.records.begin()->first == first &&
                           seen.records.rbegin()->first == last;
        return !problem.empty() || holds ? problem : "holds " + Describe(seen);
    }
    u32 TryOpen(const std::string& name) const {
        model::StorageClient client;
        return client.Open(ConnString(name));
    }
    u32 Squeeze(const std::string& name, u32 mode) const {
        model::StorageClient client;
        u32 rc = client.Open(ConnString(name));
        rc = rc == RC_OK ? K9eReplStorageLoad(client.Handle()) : rc;
        return rc == RC_OK ? K9eReplStorageClearOldRev(client.Handle(), kRecords / 2, mode) : rc;
    }
    void LetIn(const std::string& name, mode_t ofFolder, mode_t ofFile) const {
        (void)chown(m_folder.Path().c_str(), kNobody, kNobody);
        (void)chown(File(name).c_str(), kNobody, kNobody);
        (void)chmod(File(name).c_str(), ofFile);
        (void)chmod(m_folder.Path().c_str(), ofFolder);
    }
    const std::string& Folder() const { return m_folder.Path(); }

  private:
    const bool m_async;
    const test::TempFolder m_folder;
};

Problem Expect(const char* what, u32 got, u32 expected) {
    return got == expected ? "" : std::string(what) + " answers " + std::to_string(got);
}

// In a process that permissions bind. Its answer is a code of one byte.
template <typename Work>
u32 AsNobody(Work work) {
    const pid_t process = fork();
    if (process == 0) {
        if (getuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
            _exit(255);
        }
        _exit(static_cast<int>(work()));
    }
    int status = 0;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? static_cast<u32>(WEXITSTATUS(status)) : 254;
}

Problem FileWithoutPermission(const Place& place, mode_t mode) {
    if (Problem problem = place.Make("a.edb"); !problem.empty()) {
        return problem;
    }
    const auto before = test::ReadBytes(place.File("a.edb"));
    place.LetIn("a.edb", 0755, mode);
    const u32 rc = AsNobody([&] { return place.TryOpen("a.edb"); });
    return before == test::ReadBytes(place.File("a.edb")) ? Expect("Open", rc, RC_SYSTEM_ERROR)
                                                          : "the file changed";
}

Problem ReadOnlyFile(const Place& place) {
    return FileWithoutPermission(place, 0444);
}
Problem ClosedFile(const Place& place) {
    return FileWithoutPermission(place, 0);
}

// Without a place for a copy: appending works, a squeeze is refused and loses nothing.
Problem ReadOnlyFolder(const Place& place) {
    if (Problem problem = place.Make("a.edb"); !problem.empty()) {
        return problem;
    }
    (void)chown(place.File("a.edb-idx").c_str(), kNobody, kNobody);
    place.LetIn("a.edb", 0555, 0644);
    const u32 appended = AsNobody([&] { return place.Append("a.edb", 2).empty() ? 0U : 1U; });
    const u32 squeezed = AsNobody([&] { return place.Squeeze("a.edb", K9EREPL_CLEAR_SQUEEZE); });
    (void)chmod(place.Folder().c_str(), 0755);
    Problem problem = Expect("appending", appended, RC_OK);
    problem += Expect("Clear", squeezed, RC_SYSTEM_ERROR);
    return problem.empty() ? place.Holds("a.edb", kRecords / 2, kRecords + 2) : problem;
}

Problem Link(const Place& place) {
    if (Problem problem = place.Make("a.edb"); !problem.empty()) {
        return problem;
    }
    if (symlink("a.edb", place.File("link").c_str()) != 0) {
        return "no link";
    }
    Problem problem = Expect("Clear", place.Squeeze("link", K9EREPL_CLEAR_SQUEEZE_BACKUP), RC_OK);
    struct stat info = {};
    lstat(place.File("link").c_str(), &info);
    problem += S_ISLNK(info.st_mode) ? "" : "the link is replaced";
    problem += access(place.File("a.edb.backup").c_str(), F_OK) == 0 ? "" : "no backup";
    return problem.empty() ? place.Holds("a.edb", kRecords / 2, kRecords) : problem;
}

Problem DanglingLink(const Place& place) {
    if (symlink("none.edb", place.File("link").c_str()) != 0) {
        return "no link";
    }
    const Problem problem = Expect("Open", place.TryOpen("link"), RC_SYSTEM_ERROR);
    return access(place.File("none.edb").c_str(), F_OK) == 0 ? "a file was made" : problem;
}

Problem NoFile(const Place& place, const std::string& name) {
    return Expect("Open", place.TryOpen(name), RC_SYSTEM_ERROR) +
           Expect("Create",
                  K9eReplStorageCreate(place.ConnString(name).c_str(), K9EREPL_CREATE_REPLACE),
                  RC_SYSTEM_ERROR);
}

Problem Fifo(const Place& place) {
    return mkfifo(place.File("fifo").c_str(), 0600) == 0 ? NoFile(place, "fifo") : "no fifo";
}
Problem Device(const Place& place) {
    return symlink("/dev/null", place.File("null").c_str()) == 0 ? NoFile(place, "null")
                                                                 : "no link";
}
Problem Directory(const Place& place) {
    return mkdir(place.File("folder").c_str(), 0700) == 0 ? NoFile(place, "folder") : "no folder";
}

// A reader that leaves the file alone sees whole transactions, no fewer than when it began to read.
Problem ReadBesideAWriter(const Place& place) {
    if (Problem problem = place.Make("a.edb"); !problem.empty()) {
        return problem;
    }
    const pid_t writer = fork();
    if (writer == 0) {
        _exit(place.Append("a.edb", 3).empty() && place.Append("a.edb", 3).empty() ? 0 : 1);
    }
    int status = -1;
    bool ended = false;
    Problem problem;
    for (i64 least = kRecords; !ended && problem.empty();) {
        ended = waitpid(writer, &status, WNOHANG) == writer;
        Seen seen;
        problem =
            Visit("cache_type=AllInMem;flush_mode=NoFlush;file=" + place.File("a.edb"), {}, &seen);
        const i64 last = seen.nextRev - 1;
        if (problem.empty() && (last < least || (last - kRecords) % 3 != 0 ||
                                seen.records.size() != static_cast<std::size_t>(last))) {
            problem = "a reader sees " + Describe(seen);
        }
        least = last;
    }
    if (!ended) {
        waitpid(writer, &status, 0);
    }
    problem += status == 0 ? "" : "the writer failed";
    return problem.empty() ? place.Holds("a.edb", 1, kRecords + 6) : problem;
}

constexpr std::array<Kind<const Place>, 9> kKinds{{{"read-only file", &ReadOnlyFile},
                                                   {"file without permissions", &ClosedFile},
                                                   {"read-only folder", &ReadOnlyFolder},
                                                   {"link", &Link},
                                                   {"dangling link", &DanglingLink},
                                                   {"FIFO", &Fifo},
                                                   {"device", &Device},
                                                   {"directory", &Directory},
                                                   {"reader beside a writer", &ReadBesideAWriter}}};

void RunGroup(GroupRun& run) {
    RunKinds(run, kKinds, [&run](const auto& kind, u64 /*number*/) {
        return kind.run(Place(run.Number() % 2 == 1));
    });
}

const RegisteredFamily kFamily({.name = "surroundings",
                                .title = "permissions, links, what is no file, two processes",
                                .cases = 108,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
