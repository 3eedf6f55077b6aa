// The order in which a squeeze, a truncation and a clear change files and flush them: what a crash
// of the whole system may take back must not be needed by what it leaves.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <algorithm>
#include <array>
#include <map>

#include "model/storage_client.h"
#include "reliability/memory_disk.h"
#include "reliability/oracle.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

using test::SystemCall;
using Texts = std::vector<std::string>;

constexpr u32 kTruncate = 0xFFFFFFFF;  // in place of a clear's mode
constexpr i64 kFirstKept = 11;         // in the middle of a transaction
constexpr i64 kEverything = 31;

struct Removal {
    u32 mode = K9EREPL_CLEAR_SQUEEZE;
    i64 rev = kFirstKept;
    bool cleared = false;      // a logical clear comes first, which the removal makes physical
    bool olderBackup = false;  // the files of an earlier squeeze are there
    bool hardLinks = true;
};
constexpr Removal kSqueeze;
constexpr Removal kSqueezeOfCleared = {.cleared = true};
constexpr Removal kBackup = {.mode = K9EREPL_CLEAR_SQUEEZE_BACKUP};
constexpr Removal kBackupOverOlder = {.mode = K9EREPL_CLEAR_SQUEEZE_BACKUP, .olderBackup = true};
constexpr Removal kMovedBackup = {.mode = K9EREPL_CLEAR_SQUEEZE_BACKUP, .hardLinks = false};
constexpr Removal kMovedBackupOverOlder = {
    .mode = K9EREPL_CLEAR_SQUEEZE_BACKUP, .olderBackup = true, .hardLinks = false};
constexpr Removal kTruncation = {.mode = kTruncate};
constexpr Removal kClearAll = {.mode = K9EREPL_CLEAR_LOGICAL, .rev = kEverything};
constexpr Removal kClearLogically = {.mode = K9EREPL_CLEAR_LOGICAL};

// Writes down the calls that change files, the refused ones, too.
class Recorder {
  public:
    Recorder(MemoryDisk& disk, const Removal& removal)
        : m_backup(removal.olderBackup), m_links(removal.hardLinks) {
        disk.SetGate([this](const Attempt& attempt) { return OnAttempt(attempt); });
    }
    Texts m_calls;

  private:
    Permit OnAttempt(const Attempt& attempt) {
        static const std::map<SystemCall, const char*> kVerbs = {
            {SystemCall::kWrite, "Write "},   {SystemCall::kSetEnd, "SetEnd "},
            {SystemCall::kFlush, "Flush "},   {SystemCall::kTakeOwnerAndMode, "TakeOwner "},
            {SystemCall::kRename, "Rename "}, {SystemCall::kFlushDirectory, "Flush "},
            {SystemCall::kLink, "Link "},     {SystemCall::kRemove, "Remove "}};
        static const std::map<std::string, const char*> kRoles = {
            {StoragePath(), "storage"},
            {StoragePath() + "-idx", "index"},
            {StoragePath() + ".temporary", "temporary"},
            {StoragePath() + ".backup", "backup"},
            {StoragePath() + ".backup-idx", "backup-index"},
            {kFolder, "directory"}};
        const std::string role = kRoles.at(attempt.name);
        if (const auto verb = kVerbs.find(attempt.call); verb != kVerbs.end()) {
            m_calls.push_back(verb->second + role);
        } else if (attempt.call == SystemCall::kOpen && role == "temporary") {
            m_calls.emplace_back("Create temporary");
        }
        m_backup = m_backup && (attempt.call != SystemCall::kRemove || role != "backup");
        // A disk without links still says first that the name is taken.
        return attempt.call == SystemCall::kLink && !m_links && !m_backup
                   ? Permit{.error = platform::SystemErrorKind::kNotSupported}
                   : Permit{};
    }

    bool m_backup;
    const bool m_links;
};

void Append(model::StorageClient& client, u32 transactions) {
    i64 rev = 0;
    for (; transactions > 0; --transactions) {
        EXPECT_EQ(K9eReplStorageBeginTransaction(client.Handle()), RC_OK);
        for (u32 i = 0; i < 3; ++i) {
            const auto record = model::MakeRecord({model::SizeClass::kBytes, 33}, 400, i);
            EXPECT_EQ(client.Insert(record, nullptr, &rev), RC_OK);
        }
        EXPECT_EQ(K9eReplStorageCommit(client.Handle()), RC_OK);
    }
}

u32 Remove(void* handle, const Removal& removal) {
    return removal.mode == kTruncate ? K9eReplStorageTruncate(handle)
                                     : K9eReplStorageClearOldRev(handle, removal.rev, removal.mode);
}

struct Sizes {
    const char* settings;
};
constexpr Sizes kExact = {""};
constexpr Sizes kAhead = {"file_initial_size=1;file_size_delta=1;"};

// The calls of a removal and the closing behind it, in a storage of 30 records.
Texts CallsOf(const Removal& removal, const Sizes& sizes = kExact, bool forceFlush = true,
              bool async = false) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const auto connString = [&](const std::string& path) {
        return "file=" + path + ";block_size=400;flush_trans_num=1;index_hint=1;cache_type=Last2;" +
               sizes.settings + "force_flush=" + (forceFlush ? "yes" : "no") +
               ";async_mode=" + (async ? "yes" : "no");
    };
    model::StorageClient client;
    const auto open = [&](const std::string& path) {
        EXPECT_EQ(client.Open(connString(path)), RC_OK);
        EXPECT_EQ(K9eReplStorageLoad(client.Handle()), RC_OK);
    };
    for (const std::string& path : {StoragePath() + ".backup", StoragePath()}) {
        if (path == StoragePath() || removal.olderBackup) {
            EXPECT_EQ(K9eReplStorageCreate(connString(path).c_str(), 0), RC_OK);
            open(path);
            Append(client, 10);
        }
    }
    if (removal.cleared) {
        EXPECT_EQ(Remove(client.Handle(), {.mode = K9EREPL_CLEAR_LOGICAL, .rev = 8}), RC_OK);
    }
    client.Close();
    open(StoragePath());
    SteadyCalls::Settle();
    Recorder recorder(disk, removal);
    EXPECT_EQ(Remove(client.Handle(), removal), RC_OK);
    client.Close();
    disk.SetGate(nullptr);
    return recorder.m_calls;
}

// The parts of a squeeze.
const Texts kRaiseClearRev = {"Write storage", "Flush storage"};
const Texts kMakeTemporary = {"Flush storage",        // the clear revision, force_flush or not
                              "Create temporary",     // only where none stands
                              "TakeOwner temporary",  //
                              "Write temporary",      // header and first commit block
                              "Flush temporary",      //
                              "Write temporary",      // what is kept
                              "Flush temporary"};     //
const Texts kEmptyIndex = {"SetEnd index", "Write index", "Flush index"};
const Texts kCutOldFile = {"SetEnd storage", "Flush storage", "Remove backup-index"};
const Texts kReplace = {"Rename temporary", "Flush directory"};
const Texts kSaveIndex = {"SetEnd index", "Write index"};

Texts Joined(std::initializer_list<Texts> parts) {
    Texts all;
    for (const Texts& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Texts SqueezeWith(const Texts& backup) {
    return Joined({kRaiseClearRev, kMakeTemporary, kEmptyIndex, backup, kReplace, kSaveIndex});
}

TEST(RemovalOrder, OfASqueezeFlushesTheCopyAndTheEmptyIndexBeforeItsRename) {
    EXPECT_EQ(CallsOf(kSqueeze), SqueezeWith({}));
    EXPECT_EQ(CallsOf(kSqueezeOfCleared), SqueezeWith({}));
}

TEST(RemovalOrder, OfABackupFlushesTheCutFileBeforeItsLinkAndTheLinkBeforeTheRename) {
    const Texts link = {"Link storage", "Flush directory"};
    EXPECT_EQ(CallsOf(kBackup), SqueezeWith(Joined({kCutOldFile, link})));
    // An older one is removed only when everything else is ready.
    const Texts replace = {"Link storage", "Remove backup"};
    EXPECT_EQ(CallsOf(kBackupOverOlder), SqueezeWith(Joined({kCutOldFile, replace, link})));
}

TEST(RemovalOrder, OfABackupWithoutLinksMovesTheOldFileRightBeforeTheRename) {
    const Texts move = {"Link storage", "Rename storage"};
    EXPECT_EQ(CallsOf(kMovedBackup), SqueezeWith(Joined({kCutOldFile, move})));
    const Texts replace = {"Link storage", "Remove backup"};
    EXPECT_EQ(CallsOf(kMovedBackupOverOlder), SqueezeWith(Joined({kCutOldFile, replace, move})));
}

TEST(RemovalOrder, OfATruncationEmptiesTheIndexOnTheDiskFirst) {
    const Texts startOver = Joined({kEmptyIndex, {"Write storage", "Flush storage"}});
    EXPECT_EQ(CallsOf(kTruncation), startOver);
    EXPECT_EQ(CallsOf(kClearAll), Joined({startOver, kSaveIndex}));
}

TEST(RemovalOrder, OfALogicalClearFlushesTheClearRevisionBeforeTheIndexSaysIt) {
    EXPECT_EQ(CallsOf(kClearLogically), Joined({kRaiseClearRev, kSaveIndex}));
}

TEST(RemovalOrder, SetsTheSizeOfANewBeginningBeforeItIsFlushed) {
    const Texts begun = {"Write storage", "SetEnd storage", "Flush storage"};
    EXPECT_EQ(CallsOf(kTruncation, kAhead), Joined({kEmptyIndex, begun}));
    Texts squeeze = SqueezeWith({});
    squeeze.insert(std::find(squeeze.begin(), squeeze.end(), "Flush temporary"),
                   "SetEnd temporary");
    EXPECT_EQ(CallsOf(kSqueeze, kAhead), squeeze);
}

TEST(RemovalOrder, WithoutForceFlushLeavesOutOnlyTheFlushBehindTheClearRevision) {
    for (const Removal& removal : {kSqueeze, kBackup, kMovedBackup, kClearLogically}) {
        Texts calls = CallsOf(removal);
        ASSERT_EQ(calls.at(1), "Flush storage");
        calls.erase(calls.begin() + 1);
        EXPECT_EQ(CallsOf(removal, kExact, false), calls);
    }
    for (const Removal& removal : {kTruncation, kClearAll}) {
        EXPECT_EQ(CallsOf(removal, kExact, false), CallsOf(removal));
    }
}

TEST(RemovalOrder, IsTheSameWithTheAsynchronousWriter) {
    for (const Removal& removal : {kSqueeze, kSqueezeOfCleared, kBackup, kBackupOverOlder,
                                   kMovedBackup, kMovedBackupOverOlder, kTruncation}) {
        const Texts expected = CallsOf(removal, kAhead, false);
        Texts calls = CallsOf(removal, kAhead, false, true);
        if (calls.size() > expected.size()) {
            EXPECT_EQ(calls.back(), "Flush storage");  // as the writing thread does when it ends
            calls.pop_back();
        }
        EXPECT_EQ(calls, expected);
    }
}

}  // namespace

}  // namespace k9erepl::reliability
