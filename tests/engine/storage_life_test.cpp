// The life of a storage: opening it, its references, closing it with a last flush, and the source
// of data that it is for other components meanwhile.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// The errors of an opening that must fail, with codes that must all be `rc`.
Strings ErrorsOfOpening(TestStorage& storage, u32 rc) {
    const LogCapture log({"k9eRepl-storage"});
    EXPECT_EQ(storage.TryOpen(), rc);
    EXPECT_FALSE(storage.IsOpen()) << "the handle is left as it was";
    Strings errors;
    for (const LoggedMessage& message : log.Messages()) {
        if (message.level == K9SYS_LOG_ERROR) {
            errors.push_back(message.text);
            EXPECT_EQ(message.code, rc) << message;
        }
    }
    return errors;
}

std::size_t PositionOf(const Strings& texts, const std::string& begin) {
    const auto it = std::find_if(texts.begin(), texts.end(),
                                 [&](const std::string& text) { return text.starts_with(begin); });
    EXPECT_NE(it, texts.end()) << begin;
    return static_cast<std::size_t>(it - texts.begin());
}

}  // namespace

// --- Opening -----------------------------------------------------------------------------------

TEST(Opening, LeavesTheStorageClosedUntilItIsLoaded) {
    TestStorage storage("", Start::kCreated);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    EXPECT_EQ(log.Texts().back(), "e-repl storage was opened;conn-str " + storage.ConnStr());
    EXPECT_EQ(storage.State(), StorageState::kClosed);
    EXPECT_EQ(storage.TryLoad(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    storage.InsertCommitted({"one", "two"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}, {2, 0, "two"}}));
    EXPECT_EQ(storage.NextRev(), 3);
}

TEST(Opening, WithSettingsThatNoStorageCanHaveIsRefusedAtOnce) {
    const std::pair<std::string, std::string> refused[] = {
        {"file=;cache_type=Last5",
         "Failed to get file parameter value;conn-str file=;cache_type=Last5"},
        {"file=:memory:", "Cannot flush to file :memory:;conn-str file=:memory:"},
        {"file=:Memory:", "Cannot flush to file :Memory:;conn-str file=:Memory:"},
        {"file=x;block_size=1;flush_timeout=0",
         "Wrong block_size value 1, minimum block_size value is 138"}};
    for (const auto& [settings, text] : refused) {
        TestStorage storage(settings, Start::kNothing);
        EXPECT_EQ(ErrorsOfOpening(storage, RC_INVALID_ARG),
                  Strings({text, "Failed to init storage;conn-str " + settings}));
    }
}

TEST(Opening, TheHighestLimitsReserveNothing) {
    TestStorage storage("cache_type=Last4294967295;memory_reserve=2147483647;block_size=138");
    storage.InsertMany(3);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(3));
}

TEST(Opening, OfAFileThatCannotBeReadReturnsItsCode) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage("", Start::kNothing);
    const Strings errors = ErrorsOfOpening(storage, RC_SYSTEM_ERROR);
    PositionOf(errors, "Failed to init solid storage;conn-str " + storage.ConnStr());
    EXPECT_EQ(errors.back(), "Failed to init storage;conn-str " + storage.ConnStr());
    ASSERT_EQ(storage.TryCreate(), RC_OK);
    FailTell(1);
    PositionOf(ErrorsOfOpening(storage, RC_SYSTEM_ERROR),
               "Failed to get lifenum from solid storage;conn-str " + storage.ConnStr());
    FailTell(2);
    PositionOf(ErrorsOfOpening(storage, RC_SYSTEM_ERROR),
               "Failed to get revision mark from solid storage;conn-str " + storage.ConnStr());
}

TEST(Opening, ReadsLifeNumberAndRevisionMarkOfTheFile) {
    TestStorage storage("", Start::kOpened);
    ASSERT_EQ(storage.Object().SolidStorage().SetLifenum(7), RC_OK);
    ASSERT_EQ(storage.Object().SolidStorage().SetClearOldRev(8), RC_OK);
    storage.Close();
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    EXPECT_EQ(storage.Lifenum(), 7U);
    EXPECT_EQ(storage.RevisionMark(), 8);
}

TEST(Opening, ABrokenObjectIsRefusedWithoutAMessage) {
    TestStorage folder("", Start::kCreated);
    auto* storage = new CK9eReplStorage;
    EXPECT_EQ(storage->Open("block_size=1"), RC_INVALID_ARG);
    EXPECT_EQ(StorageAccess::State(*storage), StorageState::kBroken);
    {
        const LogCapture log;
        EXPECT_EQ(storage->Open(folder.ConnStr().c_str()), RC_WRONG_STATE);
        EXPECT_TRUE(log.Messages().empty()) << log;
    }
    EXPECT_EQ(storage->Release(), 0U);
}

TEST(OpeningInMemory, NeedsNoFileAndReadsNoIndexHint) {
    for (const std::string file : {"file=", ""}) {  // none, one that is not there
        TestStorage storage("cache_type=AllInMem;flush_mode=NoFlush;" + file, Start::kNothing);
        EXPECT_EQ(storage.TryOpen(), RC_OK);
        EXPECT_EQ(storage.State(), StorageState::kClosed);
        EXPECT_EQ(storage.Insert("x"), RC_WRONG_STATE);
        EXPECT_FALSE(Exists(storage.Path()));
    }
    const LogCapture log;
    TestStorage storage(With(kInMemory, "index_hint=0;"), Start::kNothing);
    EXPECT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(log.CountContaining("index_hint"), 1U) << "in the connection string: " << log;
    EXPECT_EQ(StorageAccess::Index(storage.Object()), nullptr);
}

TEST(References, TheLastOneDestroysTheStorage) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    void* duplicate = nullptr;
    ASSERT_EQ(K9eReplStorageDuplicateHandle(storage.Handle(), &duplicate), RC_OK);
    EXPECT_EQ(duplicate, storage.Handle());
    ASSERT_EQ(K9eReplStorageClose(duplicate), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    EXPECT_EQ(storage.DataSource().AddRef(), 2U);
    EXPECT_EQ(storage.DataSource().AddRef(), 3U);
    EXPECT_EQ(storage.DataSource().Release(), 2U);
    EXPECT_EQ(storage.DataSource().Release(), 1U);
    storage.Close();
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST(Closing, FlushesWhatWasCommittedAndLosesAnOpenTransaction) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    storage.InsertCommitted({"two"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("open"), RC_OK);
    storage.Close();
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2"}));
}

TEST(Closing, IgnoresTheResultOfTheLastFlush) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    FailWrite(1, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
    storage.Close();
    StopFailing(SystemCall::kWrite);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
}

TEST(Closing, FlushesNothingWhenTheStorageIsNotOpen) {
    TestStorage storage("", Start::kOpened);
    storage.Close();
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    storage.Reopen(kFlushAlways);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    FailWrite(1);
    ASSERT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    storage.Close();
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
}

TEST(Closing, TearsDownInOrder) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    const std::string deinit = "Deinit e-repl storage;conn-str " + storage.ConnStr();
    const LogCapture log;
    storage.Close();
    const Strings texts = log.Texts();
    EXPECT_LT(PositionOf(texts, "Flushed block"), PositionOf(texts, deinit));
    EXPECT_LT(PositionOf(texts, deinit), PositionOf(texts, "Thread closed"));
    EXPECT_LT(PositionOf(texts, "Thread closed"), PositionOf(texts, "Flush: "));
}

// --- The source of data ------------------------------------------------------------------------

TEST(DataSource, LiesOnePointerBehindTheHandleAndIsHandedOutWithoutAReference) {
    TestStorage storage;
    IK9eReplDS* source = nullptr;
    IK9eReplStorage& object = storage.Object();
    ASSERT_EQ(object.GetDS(&source), RC_OK);
    EXPECT_EQ(source, &storage.DataSource());
    EXPECT_EQ(source->AddRef(), 2U);
    EXPECT_EQ(source->Release(), 1U);
    EXPECT_EQ(object.GetDS(nullptr), RC_INVALID_ARG);
    EXPECT_TRUE(source->IsSame(source));
    EXPECT_FALSE(source->IsSame(storage.Handle()));
    EXPECT_FALSE(source->IsSame(nullptr));
    EXPECT_EQ(reinterpret_cast<const u8*>(source) - static_cast<const u8*>(storage.Handle()),
              static_cast<std::ptrdiff_t>(sizeof(void*)));
}

TEST(DataSource, EnumFromDeliversToTheEndAndPassesTheCallbacksResultOn) {
    TestStorage storage;
    storage.InsertCommitted({"one", "two", "three"});
    SeenRecords seen;
    EXPECT_EQ(storage.DataSource().EnumFrom(1, 2, 3, 2, 4, &CollectRecord, &seen), RC_OK);
    EXPECT_EQ(seen, SeenRecords({{2, 0, "two"}, {3, 0, "three"}}));
    const auto stop = [](const K9eReplRec*, void*) -> std::uint32_t { return 99; };
    EXPECT_EQ(storage.DataSource().EnumFrom(0, 0, 0, 1, 0, stop, nullptr), 99U);
}

TEST(DataSource, FirstAndLastRevisionFollowTheContentOfAnOpenStorage) {
    TestStorage storage("", Start::kOpened);
    IK9eReplDS& source = storage.DataSource();
    i64 rev = 55;
    EXPECT_EQ(source.GetFirstRev(0, &rev), 0x8034U);
    EXPECT_EQ(source.GetLastRev(0, &rev), 0x8034U);
    EXPECT_EQ(rev, 55);
    ASSERT_EQ(storage.TryLoad(), RC_OK);
    EXPECT_EQ(storage.FirstRev(), 1);
    ASSERT_EQ(storage.InsertP(7, "seven"), RC_OK);
    EXPECT_EQ(storage.FirstRev(), 7);
    EXPECT_EQ(source.GetLastRev(0, &rev), RC_OK);
    EXPECT_EQ(rev, 8) << "the next one to be assigned";
    StorageAccess::SetState(storage.Object(), StorageState::kBroken);
    EXPECT_EQ(source.GetFirstRev(0, &rev), 0x8034U);
}

TEST(DataSource, RefusesNullPointersAndDoesNothingElse) {
    TestStorage storage;
    IK9eReplDS& source = storage.DataSource();
    EXPECT_EQ(source.GetFirstRev(0, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(source.GetLastRev(0, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(source.GetClearRev(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(source.GetFlag(0, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(source.Reserved3(1), RC_OK);
    EXPECT_EQ(source.Reserved4(1), RC_OK);
    EXPECT_EQ(source.Reserved5(1), RC_NOT_SUPPORTED);
    EXPECT_EQ(source.Reserved12(1, 2), RC_NOT_SUPPORTED);
    EXPECT_EQ(source.Reserved13(1, 2, 3), RC_NOT_SUPPORTED);
    u8 flag = 9;
    EXPECT_EQ(source.GetFlag(1, &flag), RC_OK);
    EXPECT_EQ(flag, 0);
}

}  // namespace k9erepl::test
