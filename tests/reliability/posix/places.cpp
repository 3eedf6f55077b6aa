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
void ExpectRefused(const Place& place, const std::string& storage, const std::string& index) {
    const test::LogCapture log;
    const std::string conn = place.Conn(storage, index);
    const Files before = place.Everything();
    ExpectCode("Open", model::StorageClient().Open(conn), RC_INVALID_ARG);
    for (const u32 flags : {0U, 1U, 2U, 3U}) {
        ExpectCode("Create", K9eReplStorageCreate(conn.c_str(), flags), RC_INVALID_ARG);
    }
    ExpectCode("Delete", K9eReplStorageDelete(conn.c_str()), RC_INVALID_ARG);
    u32 told = 0;
    for (const std::string& text : log.Texts(K9SYS_LOG_ERROR)) {
        told += text.starts_with("Index file is a") && text.find(index) != text.npos ? 1 : 0;
    }
    Require(told == 6, std::to_string(told) + " refusals are told; " + conn);
    Require(place.Everything() == before, "files changed; " + conn);
}

void IndexIsTheStorage(Place& place) {
    if (!place.Dice().OneIn(4)) {
        place.Make("a.edb");
    }
    const std::string storage = place.PathBy(place.AnyWayTo("a.edb"), "a.edb");
    ExpectRefused(place, storage, place.PathBy(place.AnyWayTo("a.edb"), "a.edb"));
    place.HoldsAll();
}

void IndexIsAnotherStorage(Place& place) {
    place.MakeBoth();
    const std::string storage = place.PathBy(place.AnyWay(), "a.edb");
    ExpectRefused(place, storage, place.PathBy(place.AnyWay(), "b.edb"));
    place.HoldsAll();
}

// The storage is named by a path that a squeeze follows to "a.edb".
void IndexHasANameOfASqueeze(Place& place) {
    place.Make("a.edb");
    const std::string name = "a.edb" + place.AnySuffix();
    if (place.Dice().OneIn(2)) {
        test::WriteText(place.File(name), "left by somebody");
    }
    Way toStorage = place.AnyWay();
    while (NeedsTarget(toStorage)) {
        toStorage = place.AnyWay();
    }
    const std::string storage = place.PathBy(toStorage, "a.edb");
    ExpectRefused(place, storage, place.PathBy(place.AnyWayTo(name), name));
    place.HoldsAll();
}

// The index file's path comes to lead to a storage while the storage object is open.
void IndexBecomesAStorage(Place& place) {
    place.MakeBoth();
    model::StorageClient client;
    ExpectCode("Open", client.Open(place.Conn(place.File("a.edb"), place.File("later"))), RC_OK);
    place.LinkToOne("later");
    const Files before = place.Everything();
    for (u32 turn = 0; turn < 2; ++turn) {
        ExpectCode("Load", K9eReplStorageLoad(client.Handle()), RC_INVALID_ARG);
    }
    client.Close();
    Require(place.Everything() == before, "files changed");
    place.HoldsAll();
}

// A squeeze whose other names lead to the storage itself or to another one.
void SqueezeBesideLinks(Place& place) {
    const Seen first = place.MakeBoth();
    const std::string suffix = place.AnySuffix();
    const std::string target = place.LinkToOne("a.edb" + suffix);
    const bool backup = place.Dice().OneIn(2);
    const i64 rev = 2 + place.Dice().Below(static_cast<u32>(first.nextRev - 2));
    const bool fails = suffix == ".temporary";
    ExpectCode(
        "Clear",
        place.Clear("a.edb", rev, backup ? K9EREPL_CLEAR_SQUEEZE_BACKUP : K9EREPL_CLEAR_SQUEEZE),
        fails ? RC_SYSTEM_ERROR : RC_OK);
    place.HoldsAll();
    if (backup && !fails) {
        place.Holds("a.edb.backup", first.records);
        Require(!fs::is_symlink(place.File("a.edb.backup")), "the backup is a link");
    }
    if (suffix == ".backup-idx" && target == "b.edb") {
        place.Holds("a.edb.backup-idx", place.RecordsOf("b.edb"));
    }
}

// Names that are as near as can be to the forbidden ones, and work.
void NamesThatDiffer(Place& place) {
    const std::string name = place.Dice().OneOf<const char*>(
        {"a.edb2", "sub/a.edb", "a", "a.edb-idx", "new/folder/a.edb", "a.edb.backup2", "sub/link"});
    if (name == "sub/link") {
        fs::create_symlink("../index", place.File(name));
    }
    const std::string conn = place.Conn(place.File("a.edb"), place.File(name));
    const auto create = [&](u32 flags) {
        ExpectCode("Create", K9eReplStorageCreate(conn.c_str(), flags), RC_OK);
    };
    create(K9EREPL_CREATE_REPLACE);
    Seen before;
    Seen seen;
    Problem problem = Visit(conn, {1 + place.Dice().Below(30), 50, 7}, &before, &seen);
    problem += Visit(conn, {}, &before);
    Require(problem.empty(), problem);
    Require(before == seen, "holds " + Describe(before) + ", not " + Describe(seen));
    Require(fs::exists(place.File(name)), "no index file");
    create(K9EREPL_CREATE_KEEP_EXISTING);
    ExpectCode("Delete", K9eReplStorageDelete(conn.c_str()), RC_OK);
    Require(!fs::exists(place.File("a.edb")), "the storage is there");
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

void FileWithoutPermission(Place& place, mode_t mode) {
    place.Make("a.edb", kRecords);
    const auto before = test::ReadBytes(place.File("a.edb"));
    place.LetIn("a.edb", 0755, mode);
    ExpectCode("Open", AsNobody([&] { return place.TryOpen("a.edb"); }), RC_SYSTEM_ERROR);
    Require(before == test::ReadBytes(place.File("a.edb")), "the file changed");
}
void ReadOnlyFile(Place& place) {
    FileWithoutPermission(place, 0444);
}
void ClosedFile(Place& place) {
    FileWithoutPermission(place, 0);
}

// Without a place for a copy: appending works, a squeeze is refused and loses nothing.
void ReadOnlyFolder(Place& place) {
    place.Make("a.edb", kRecords);
    (void)chown(place.File("a.edb-idx").c_str(), kNobody, kNobody);
    place.LetIn("a.edb", 0555, 0644);
    const u32 appended = AsNobody([&] { return place.Append("a.edb", 2).empty() ? 0U : 1U; });
    const u32 squeezed =
        AsNobody([&] { return place.Clear("a.edb", kRecords / 2, K9EREPL_CLEAR_SQUEEZE); });
    (void)chmod(place.Folder().c_str(), 0755);
    ExpectCode("appending", appended, RC_OK);
    ExpectCode("Clear", squeezed, RC_SYSTEM_ERROR);
    place.HoldsRange("a.edb", kRecords / 2, kRecords + 2);
}

void Link(Place& place) {
    place.Make("a.edb", kRecords);
    fs::create_symlink("a.edb", place.File("link"));
    ExpectCode("Clear", place.Clear("link", kRecords / 2, K9EREPL_CLEAR_SQUEEZE_BACKUP), RC_OK);
    Require(fs::is_symlink(place.File("link")), "the link is replaced");
    Require(fs::exists(place.File("a.edb.backup")), "no backup");
    place.HoldsRange("a.edb", kRecords / 2, kRecords);
}

void DanglingLink(Place& place) {
    fs::create_symlink("none.edb", place.File("link"));
    ExpectCode("Open", place.TryOpen("link"), RC_SYSTEM_ERROR);
    Require(!fs::exists(place.File("none.edb")), "a file was made");
}

void NoFile(Place& place, const std::string& name) {
    const std::string conn = place.Conn(place.File(name));
    ExpectCode("Open", place.TryOpen(name), RC_SYSTEM_ERROR);
    ExpectCode("Create", K9eReplStorageCreate(conn.c_str(), K9EREPL_CREATE_REPLACE),
               RC_SYSTEM_ERROR);
}
void Fifo(Place& place) {
    Require(mkfifo(place.File("fifo").c_str(), 0600) == 0, "no fifo");
    NoFile(place, "fifo");
}
void Device(Place& place) {
    fs::create_symlink("/dev/null", place.File("null"));
    NoFile(place, "null");
}
void Directory(Place& place) {
    NoFile(place, "sub");
}

// A reader that leaves the file alone sees whole transactions, no fewer than when it began to read.
void ReadBesideAWriter(Place& place) {
    place.Make("a.edb", kRecords);
    const pid_t writer = test::StartForked([&] {
        return place.Append("a.edb", 3).empty() && place.Append("a.edb", 3).empty() ? 0 : 1;
    });
    int status = -1;
    bool ended = false;
    Problem problem;
    for (i64 least = kRecords; !ended && problem.empty();) {
        ended = waitpid(writer, &status, WNOHANG) == writer;
        Seen seen;
        problem = Visit(place.ReadingConn("a.edb"), {}, &seen);
        const i64 last = seen.nextRev - 1;
        if (problem.empty() && (last < least || (last - kRecords) % 3 != 0 ||
                                seen.records.size() != static_cast<std::size_t>(last))) {
            problem = "a reader sees " + Describe(seen);
        }
        least = last;
    }
    status = ended ? status : test::AnswerOf(writer);
    Require(problem.empty(), problem);
    Require(status == 0, "the writer failed");
    place.HoldsRange("a.edb", 1, kRecords + 6);
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
