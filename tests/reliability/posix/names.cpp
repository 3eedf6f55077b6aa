// The family of names: the index file, the backup, the temporary file and the backup's index of a
// storage have names that lead to the storage itself, to another storage, or to one another, by
// every kind of link and path. No storage is emptied, overwritten or deleted that way.
#include <k9erepl/storage.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <map>
#include <vector>

#include "model/choices.h"
#include "model/numbers.h"
#include "model/storage_client.h"
#include "reliability/oracle.h"
#include "reliability/posix/kinds.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

namespace {

namespace fs = std::filesystem;
using Files = std::map<std::string, std::vector<u8>>;

// How a path leads to the file "target" of the folder.
enum class Way : u8 {
    kPlain,
    kDot,            // ./target
    kThroughFolder,  // folder/../target
    kRelative,       // from the current folder
    kHardLink,
    kSymbolicLink,
    kChain,         // a symbolic link to a symbolic link
    kLinkedFolder,  // a symbolic link to the folder, and the name in it
    kHardInFolder,  // a hard link in another folder
};
constexpr u32 kWays = 9;

bool NeedsTarget(Way way) {
    return way == Way::kHardLink || way == Way::kHardInFolder;
}

class Place {
  public:
    explicit Place(u64 seed) : m_random(seed) {
        fs::create_directory(File("sub"));
        m_settings = std::string(";block_size=") + m_random.OneOf<const char*>({"400", "3000"}) +
                     ";cache_type=Last1;flush_mode=PerTrans;flush_trans_num=1;" +
                     "flush_timeout=1000000;async_mode=" + (m_random.OneIn(2) ? "yes" : "no");
    }

    std::string File(const std::string& name) const { return m_folder.File(name); }
    model::Random& Dice() { return m_random; }

    std::string Conn(const std::string& storage, const std::string& index = "") const {
        return "file=" + storage + m_settings + (index.empty() ? "" : ";index_file=" + index);
    }

    // A closed storage of some records; what it holds is in *seen.
    Problem Make(const std::string& name, Seen* seen) {
        const std::string conn = Conn(File(name));
        const u32 rc = K9eReplStorageCreate(conn.c_str(), 0);
        if (rc != RC_OK) {
            return "Create answers " + std::to_string(rc);
        }
        Seen before;
        return Visit(
            conn, {2 + m_random.Below(20), m_random.Below(60), static_cast<u32>(m_random.Next())},
            &before, seen);
    }
    // Two of them, "a.edb" and "b.edb".
    Problem MakeBoth(Seen* first, Seen* second) {
        Problem problem = Make("a.edb", first);
        problem += Make("b.edb", second);
        return problem;
    }
    // The storage holds this, whatever index file there is.
    Problem Holds(const std::string& name, const Seen& expected) const {
        Seen seen;
        Problem problem =
            Visit("cache_type=AllInMem;flush_mode=NoFlush;file=" + File(name), {}, &seen);
        return !problem.empty() || seen.records == expected.records
                   ? problem
                   : name + " holds " + Describe(seen) + ", not " + Describe(expected);
    }

    // Gives "a.edb" or "b.edb" the name `link`, too, by a link of either kind. Returns which.
    std::string LinkToOne(const std::string& link) {
        const std::string target = m_random.OneIn(2) ? "a.edb" : "b.edb";
        if (m_random.OneIn(2)) {
            fs::create_symlink(target, File(link));
        } else {
            fs::create_hard_link(File(target), File(link));
        }
        return target;
    }

    // A path that leads to `target`, a name in the folder. Makes the links that it needs.
    std::string PathBy(Way way, const std::string& target) {
        const std::string link = "link" + std::to_string(++m_links);
        switch (way) {
            case Way::kPlain:
                return File(target);
            case Way::kDot:
                return File("./" + target);
            case Way::kThroughFolder:
                return File("sub/../" + target);
            case Way::kRelative:
                return fs::relative(m_folder.Path()).string() + "/" + target;
            case Way::kHardLink:
                fs::create_hard_link(File(target), File(link));
                return File(link);
            case Way::kSymbolicLink:
                fs::create_symlink(target, File(link));
                return File(link);
            case Way::kChain:
                fs::create_symlink(target, File(link));
                fs::create_symlink(File(link), File("sub/" + link));
                return File("sub/" + link);
            case Way::kLinkedFolder:
                fs::create_directory_symlink("..", File("sub/" + link));
                return File("sub/" + link + "/" + target);
            case Way::kHardInFolder:
                fs::create_hard_link(File(target), File("sub/" + link));
                break;
        }
        return File("sub/" + link);
    }
    Way AnyWay() { return static_cast<Way>(m_random.Below(kWays)); }
    Way AnyWayTo(const std::string& target) {
        Way way = AnyWay();
        while (NeedsTarget(way) && !fs::exists(File(target))) {
            way = AnyWay();
        }
        return way;
    }

    // Everything in the folder: names, what links say, and bytes.
    Files Everything() const {
        Files files;
        for (const auto& entry : fs::recursive_directory_iterator(m_folder.Path())) {
            if (entry.is_symlink()) {
                const std::string target = fs::read_symlink(entry.path());
                files[entry.path()].assign(target.begin(), target.end());
            } else if (entry.is_regular_file()) {
                files[entry.path()] = test::ReadBytes(entry.path());
            }
        }
        return files;
    }

  private:
    const test::TempFolder m_folder;
    model::Random m_random;
    std::string m_settings;
    u32 m_links = 0;
};

Problem Expect(const char* what, u32 got, u32 expected) {
    return got == expected ? ""
                           : std::string(what) + " answers " + std::to_string(got) + ", not " +
                                 std::to_string(expected) + "; ";
}

u32 OpenOnly(const std::string& conn) {
    model::StorageClient client;
    return client.Open(conn);
}

// Every call that changes something answers 2, each with one error that names both paths, and
// nothing changes.
Problem ExpectRefused(const Place& place, const std::string& storage, const std::string& index) {
    const test::LogCapture log;
    const std::string conn = place.Conn(storage, index);
    const Files before = place.Everything();
    Problem problem = Expect("Open", OpenOnly(conn), RC_INVALID_ARG);
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
    Problem problem = place.Make("a.edb", &first);
    problem += place.Make("b.edb", &second);
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

constexpr std::array<Kind<Place>, 6> kKinds{
    {{"index is the storage", &IndexIsTheStorage},
     {"index is another storage", &IndexIsAnotherStorage},
     {"index has a squeeze's name", &IndexHasANameOfASqueeze},
     {"index becomes a storage", &IndexBecomesAStorage},
     {"squeeze beside links", &SqueezeBesideLinks},
     {"names that differ", &NamesThatDiffer}}};

void RunGroup(GroupRun& run) {
    RunKinds(run, kKinds, [&run](const auto& kind, u64 number) {
        Place place(Mix(run.Seed(), number));
        run.Count(kind.name);
        return kind.run(place);
    });
}

const RegisteredFamily kFamily({.name = "names",
                                .title = "names that lead to one file, by every kind of link",
                                .cases = 1200,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
