// The families of what a storage meets around itself. Names: the index file, the backup, the
// temporary file and the backup's index of a storage have names that lead to the storage itself, to
// another storage, or to one another, by every kind of link and path; no storage is emptied,
// overwritten or deleted that way. Surroundings: permissions, links, what is no file, and a process
// that writes while another one reads.
#include <k9erepl/storage.h>

#include <array>

#include "reliability/posix/place.h"
#include "support/log_capture.h"
#include "support/posix/forked.h"

namespace k9erepl::reliability {

namespace {

// --- Names

// Every call that changes something answers 2, each with one error that names both paths, and
// nothing changes.
Problem ExpectRefused(const Place& place, const std::string& storage, const std::string& index) {
    const test::LogCapture log;
    const std::string conn = place.Conn(storage, index);
    const Files before = place.Everything();
    model::StorageClient client;
    Problem problem = Expect("Open", client.Open(conn), RC_INVALID_ARG);
    for (const u32 flags : {0U, 1U, 2U, 3U}) {
        problem += Expect("Create", K9eReplStorageCreate(conn.c_str(), flags), RC_INVALID_ARG);
    }
    problem += Expect("Delete", K9eReplStorageDelete(conn.c_str()), RC_INVALID_ARG);
    u32 told = 0;
    for (const std::string& text : log.Texts(K9SYS_LOG_ERROR)) {
        told += text.starts_with("Index file is a") && text.find(index) != text.npos ? 1 : 0;
    }
    problem += told == 6 ? "" : std::to_string(told) + " refusals are told; ";
    problem += place.Everything() == before ? "" : "files changed; ";
    return problem.empty() ? "" : problem + conn;
}

Problem IndexIsTheStorage(Place& place) {
    Seen seen;
    const bool exists = !place.Dice().OneIn(4);
    Problem problem = exists ? place.Make("a.edb", &seen) : "";
    if (!problem.empty()) {
        return problem;
    }
    const std::string storage = place.PathBy(place.AnyWayTo("a.edb"), "a.edb");
    const std::string index = place.PathBy(place.AnyWayTo("a.edb"), "a.edb");
    problem = ExpectRefused(place, storage, index);
    return problem.empty() && exists ? place.Holds("a.edb", seen) : problem;
}

Problem IndexIsAnotherStorage(Place& place) {
    Seen first;
    Seen second;
    Problem problem = place.MakeBoth(&first, &second);
    if (problem.empty()) {
        problem = ExpectRefused(place, place.PathBy(place.AnyWay(), "a.edb"),
                                place.PathBy(place.AnyWay(), "b.edb"));
    }
    return problem.empty() ? place.Holds("a.edb", first) + place.Holds("b.edb", second) : problem;
}

// The storage is named by a path that a squeeze follows to "a.edb".
Problem IndexHasANameOfASqueeze(Place& place) {
    Seen seen;
    if (Problem problem = place.Make("a.edb", &seen); !problem.empty()) {
        return problem;
    }
    const auto* const suffix =
        place.Dice().OneOf<const char*>({".temporary", ".backup", ".backup-idx"});
    const std::string name = std::string("a.edb") + suffix;
    if (place.Dice().OneIn(2)) {
        test::WriteText(place.File(name), "left by somebody");
    }
    Way toStorage = place.AnyWay();
    while (NeedsTarget(toStorage)) {
        toStorage = place.AnyWay();
    }
    const Problem problem = ExpectRefused(place, place.PathBy(toStorage, "a.edb"),
                                          place.PathBy(place.AnyWayTo(name), name));
    return problem.empty() ? place.Holds("a.edb", seen) : problem;
}

// The index file's path comes to lead to a storage while the storage object is open.
Problem IndexBecomesAStorage(Place& place) {
    Seen first;
    Seen second;
    Problem problem = place.MakeBoth(&first, &second);
    if (!problem.empty()) {
        return problem;
    }
    const std::string index = place.File("later");
    model::StorageClient client;
    problem = Expect("Open", client.Open(place.Conn(place.File("a.edb"), index)), RC_OK);
    place.LinkToOne("later");
    const Files before = place.Everything();
    problem += Expect("Load", K9eReplStorageLoad(client.Handle()), RC_INVALID_ARG);
    problem += Expect("Load", K9eReplStorageLoad(client.Handle()), RC_INVALID_ARG);
    client.Close();
    problem += place.Everything() == before ? "" : "files changed; ";
    return problem.empty() ? place.Holds("a.edb", first) + place.Holds("b.edb", second) : problem;
}

// A squeeze whose other names lead to the storage itself or to another one.
Problem SqueezeBesideLinks(Place& place) {
    Seen first;
    Seen second;
    Problem problem = place.MakeBoth(&first, &second);
    if (!problem.empty()) {
        return problem;
    }
    const std::string suffix =
        place.Dice().OneOf<const char*>({".temporary", ".backup", ".backup-idx"});
    const std::string target = place.LinkToOne("a.edb" + suffix);
    const bool backup = place.Dice().OneIn(2);
    const i64 rev = 2 + static_cast<i64>(place.Dice().Below(static_cast<u32>(first.nextRev - 2)));
    const u32 mode = backup ? K9EREPL_CLEAR_SQUEEZE_BACKUP : K9EREPL_CLEAR_SQUEEZE;
    model::StorageClient client;
    problem = Expect("Open", client.Open(place.Conn(place.File("a.edb"))), RC_OK);
    problem += Expect("Load", K9eReplStorageLoad(client.Handle()), RC_OK);
    const bool fails = suffix == ".temporary";
    problem += Expect("Clear", K9eReplStorageClearOldRev(client.Handle(), rev, mode),
                      fails ? RC_SYSTEM_ERROR : RC_OK);
    client.Close();
    Seen cleared = first;
    cleared.records.erase(cleared.records.begin(), cleared.records.lower_bound(rev));
    problem += place.Holds("a.edb", cleared) + place.Holds("b.edb", second);
    if (backup && !fails) {
        problem += place.Holds("a.edb.backup", first);
        problem += fs::is_symlink(place.File("a.edb.backup")) ? "the backup is a link; " : "";
    }
    if (suffix == ".backup-idx" && target == "b.edb") {
        problem += place.Holds("a.edb.backup-idx", second);
    }
    return problem.empty() ? "" : suffix + " leads to " + target + ": " + problem;
}

// Names that are as near as can be to the forbidden ones, and work.
Problem NamesThatDiffer(Place& place) {
    const std::string storage = place.File("a.edb");
    const auto* const name = place.Dice().OneOf<const char*>(
        {"a.edb2", "sub/a.edb", "a", "a.edb-idx", "new/folder/a.edb", "a.edb.backup2", "sub/link"});
    if (std::string(name) == "sub/link") {
        fs::create_symlink("../index", place.File(name));
    }
    const std::string conn = place.Conn(storage, place.File(name));
    Problem problem =
        Expect("Create", K9eReplStorageCreate(conn.c_str(), K9EREPL_CREATE_REPLACE), RC_OK);
    Seen before;
    Seen seen;
    problem += Visit(conn, {1 + place.Dice().Below(30), 50, 7}, &before, &seen);
    problem += Visit(conn, {}, &before);
    problem += before == seen ? "" : "holds " + Describe(before) + ", not " + Describe(seen);
    problem += fs::exists(place.File(name)) ? "" : "no index file; ";
    problem +=
        Expect("Create", K9eReplStorageCreate(conn.c_str(), K9EREPL_CREATE_KEEP_EXISTING), RC_OK);
    problem += Expect("Delete", K9eReplStorageDelete(conn.c_str()), RC_OK);
    problem += fs::exists(storage) ? "the storage is there; " : "";
    return problem.empty() ? "" : std::string(name) + ": " + problem;
}

constexpr std::array<Kind<Place>, 6> kNames{
    {{"index is the storage", &IndexIsTheStorage},
     {"index is another storage", &IndexIsAnotherStorage},
     {"index has a squeeze's name", &IndexHasANameOfASqueeze},
     {"index becomes a storage", &IndexBecomesAStorage},
     {"squeeze beside links", &SqueezeBesideLinks},
     {"names that differ", &NamesThatDiffer}}};

const RegisteredFamily kNamesFamily({.name = "names",
                                     .title = "names that lead to one file, by every kind of link",
                                     .cases = 1200,
                                     .runGroup = &RunKinds<kNames>});

// --- Surroundings

// In a process that permissions bind. Its answer is a code of one byte.
template <typename Work>
u32 AsNobody(Work work) {
    return static_cast<u32>(test::AnswerOf(test::StartForked([&]() -> u32 {
        const bool bound = getuid() != 0 || (setgid(kNobody) == 0 && setuid(kNobody) == 0);
        return bound ? work() : 255;
    })));
}

Problem FileWithoutPermission(Place& place, mode_t mode) {
    Seen seen;
    if (Problem problem = place.Make("a.edb", &seen, kRecords); !problem.empty()) {
        return problem;
    }
    const auto before = test::ReadBytes(place.File("a.edb"));
    place.LetIn("a.edb", 0755, mode);
    const u32 rc = AsNobody([&] { return place.TryOpen("a.edb"); });
    return before == test::ReadBytes(place.File("a.edb")) ? Expect("Open", rc, RC_SYSTEM_ERROR)
                                                          : "the file changed";
}

Problem ReadOnlyFile(Place& place) {
    return FileWithoutPermission(place, 0444);
}
Problem ClosedFile(Place& place) {
    return FileWithoutPermission(place, 0);
}

// Without a place for a copy: appending works, a squeeze is refused and loses nothing.
Problem ReadOnlyFolder(Place& place) {
    Seen seen;
    if (Problem problem = place.Make("a.edb", &seen, kRecords); !problem.empty()) {
        return problem;
    }
    (void)chown(place.File("a.edb-idx").c_str(), kNobody, kNobody);
    place.LetIn("a.edb", 0555, 0644);
    const u32 appended =
        AsNobody([&] { return place.Append("a.edb", 2, nullptr).empty() ? 0U : 1U; });
    const u32 squeezed = AsNobody([&] { return place.Squeeze("a.edb", K9EREPL_CLEAR_SQUEEZE); });
    (void)chmod(place.Folder().c_str(), 0755);
    Problem problem = Expect("appending", appended, RC_OK);
    problem += Expect("Clear", squeezed, RC_SYSTEM_ERROR);
    return problem.empty() ? place.Holds("a.edb", kRecords / 2, kRecords + 2) : problem;
}

Problem Link(Place& place) {
    Seen seen;
    if (Problem problem = place.Make("a.edb", &seen, kRecords); !problem.empty()) {
        return problem;
    }
    fs::create_symlink("a.edb", place.File("link"));
    Problem problem = Expect("Clear", place.Squeeze("link", K9EREPL_CLEAR_SQUEEZE_BACKUP), RC_OK);
    problem += fs::is_symlink(place.File("link")) ? "" : "the link is replaced";
    problem += fs::exists(place.File("a.edb.backup")) ? "" : "no backup";
    return problem.empty() ? place.Holds("a.edb", kRecords / 2, kRecords) : problem;
}

Problem DanglingLink(Place& place) {
    fs::create_symlink("none.edb", place.File("link"));
    const Problem problem = Expect("Open", place.TryOpen("link"), RC_SYSTEM_ERROR);
    return fs::exists(place.File("none.edb")) ? "a file was made" : problem;
}

Problem NoFile(Place& place, const std::string& name) {
    return Expect("Open", place.TryOpen(name), RC_SYSTEM_ERROR) +
           Expect(
               "Create",
               K9eReplStorageCreate(place.Conn(place.File(name)).c_str(), K9EREPL_CREATE_REPLACE),
               RC_SYSTEM_ERROR);
}

Problem Fifo(Place& place) {
    return mkfifo(place.File("fifo").c_str(), 0600) == 0 ? NoFile(place, "fifo") : "no fifo";
}
Problem Device(Place& place) {
    fs::create_symlink("/dev/null", place.File("null"));
    return NoFile(place, "null");
}
Problem Directory(Place& place) {
    return NoFile(place, "sub");
}

// A reader that leaves the file alone sees whole transactions, no fewer than when it began to read.
Problem ReadBesideAWriter(Place& place) {
    Seen seen;
    if (Problem problem = place.Make("a.edb", &seen, kRecords); !problem.empty()) {
        return problem;
    }
    const pid_t writer = test::StartForked([&] {
        const bool appends =
            place.Append("a.edb", 3, nullptr).empty() && place.Append("a.edb", 3, nullptr).empty();
        return appends ? 0 : 1;
    });
    int status = -1;
    bool ended = false;
    Problem problem;
    for (i64 least = kRecords; !ended && problem.empty();) {
        ended = waitpid(writer, &status, WNOHANG) == writer;
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

constexpr std::array<Kind<Place>, 9> kSurroundings{
    {{"read-only file", &ReadOnlyFile},
     {"file without permissions", &ClosedFile},
     {"read-only folder", &ReadOnlyFolder},
     {"link", &Link},
     {"dangling link", &DanglingLink},
     {"FIFO", &Fifo},
     {"device", &Device},
     {"directory", &Directory},
     {"reader beside a writer", &ReadBesideAWriter}}};

const RegisteredFamily kSurroundingsFamily(
    {.name = "surroundings",
     .title = "permissions, links, what is no file, two processes",
     .cases = 108,
     .runGroup = &RunKinds<kSurroundings>});

}  // namespace

}  // namespace k9erepl::reliability
