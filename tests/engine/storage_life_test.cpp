// The life of a storage: opening it, its references, closing it with a last flush.
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

TEST(StorageLife, ServesWhatWasInsertedBeforeItWasClosed) {
    TestStorage storage;
    storage.InsertCommitted({"one", "two"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}, {2, 0, "two"}}));
    EXPECT_EQ(storage.NextRev(), 3);
}

// --- Opening -----------------------------------------------------------------------------------

TEST(Opening, LeavesTheStorageClosedUntilItIsLoaded) {
    TestStorage storage("", Start::kCreated);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    EXPECT_EQ(log.Texts().back(), "e-repl storage was opened;conn-str " + storage.ConnStr());
    EXPECT_EQ(storage.State(), StorageState::kClosed);
    EXPECT_EQ(storage.TryLoad(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
}

TEST(Opening, WithoutAFileIsRefused) {
    TestStorage storage("file=;cache_type=Last5", Start::kNothing);
    EXPECT_EQ(ErrorsOfOpening(storage, RC_INVALID_ARG),
              Strings({"Failed to get file parameter value;conn-str file=;cache_type=Last5",
                       "Failed to init storage;conn-str file=;cache_type=Last5"}));
}

TEST(Opening, FileInMemoryInPerTransModeIsRefused) {
    TestStorage storage("file=:memory:", Start::kNothing);
    EXPECT_EQ(ErrorsOfOpening(storage, RC_INVALID_ARG),
              Strings({"Cannot flush to file :memory:;conn-str file=:memory:",
                       "Failed to init storage;conn-str file=:memory:"}));
}

TEST(Opening, FileInMemoryIsRefusedInAnyCaseOfLetters) {
    TestStorage storage("file=:Memory:", Start::kNothing);
    EXPECT_EQ(ErrorsOfOpening(storage, RC_INVALID_ARG),
              Strings({"Cannot flush to file :Memory:;conn-str file=:Memory:",
                       "Failed to init storage;conn-str file=:Memory:"}));
}

TEST(Opening, ARefusedSettingEndsItAtOnce) {
    TestStorage storage("file=x;block_size=1;flush_timeout=0", Start::kNothing);
    EXPECT_EQ(ErrorsOfOpening(storage, RC_INVALID_ARG),
              Strings({"Wrong block_size value 1, minimum block_size value is 138",
                       "Failed to init storage;conn-str file=x;block_size=1;flush_timeout=0"}));
}

TEST(Opening, TheHighestLimitsReserveNothing) {
    TestStorage storage("cache_type=Last4294967295;memory_reserve=2147483647;block_size=138");
    storage.InsertMany(3);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(3));
}

TEST(Opening, AMissingFileReturnsItsCode) {
    TestStorage storage("", Start::kNothing);
    const Strings errors = ErrorsOfOpening(storage, RC_SYSTEM_ERROR);
    PositionOf(errors, "Failed to init solid storage;conn-str " + storage.ConnStr());
    EXPECT_EQ(errors.back(), "Failed to init storage;conn-str " + storage.ConnStr());
}

TEST(Opening, AnUnreadableLifeNumberReturnsItsCode) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage("", Start::kCreated);
    FailTell(1);
    const Strings errors = ErrorsOfOpening(storage, RC_SYSTEM_ERROR);
    PositionOf(errors, "Failed to get lifenum from solid storage;conn-str " + storage.ConnStr());
}

TEST(Opening, AnUnreadableRevisionMarkReturnsItsCode) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage("", Start::kCreated);
    FailTell(2);
    const Strings errors = ErrorsOfOpening(storage, RC_SYSTEM_ERROR);
    PositionOf(errors,
               "Failed to get revision mark from solid storage;conn-str " + storage.ConnStr());
}

TEST(Opening, ReadsLifeNumberAndRevisionMarkOfTheFile) {
    TestStorage storage("", Start::kOpened);
    ASSERT_EQ(storage.Object().SolidStorage().SetLifenum(7), RC_OK);
    ASSERT_EQ(storage.Object().SolidStorage().SetClearOldRev(8), RC_OK);
    storage.Close();
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    u32 lifenum = 0;
    i64 mark = 0;
    EXPECT_EQ(K9eReplStorageGetLifenum(storage.Handle(), &lifenum), RC_OK);
    EXPECT_EQ(K9eReplStorageGetClearOldRev(storage.Handle(), &mark), RC_OK);
    EXPECT_EQ(lifenum, 7U);
    EXPECT_EQ(mark, 8);
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

// --- Without a file ----------------------------------------------------------------------------

TEST(OpeningInMemory, NeedsNoFileAndStaysClosed) {
    TestStorage storage("cache_type=AllInMem;flush_mode=NoFlush;file=", Start::kNothing);
    EXPECT_EQ(storage.TryOpen(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kClosed);
    EXPECT_EQ(storage.Insert("x"), RC_WRONG_STATE);
}

TEST(OpeningInMemory, DoesNotReadTheFile) {
    TestStorage storage("cache_type=AllInMem;flush_mode=NoFlush;", Start::kNothing);
    EXPECT_EQ(storage.TryOpen(), RC_OK) << "although there is no file";
    EXPECT_FALSE(Exists(storage.Path()));
}

TEST(OpeningInMemory, ReadsNoIndexHint) {
    const LogCapture log;
    TestStorage storage(With(kInMemory, "index_hint=0;"), Start::kNothing);
    EXPECT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(log.CountContaining("index_hint"), 1U) << "in the connection string: " << log;
    EXPECT_EQ(StorageAccess::Index(storage.Object()), nullptr);
}

// --- References --------------------------------------------------------------------------------

TEST(References, TheLastOneDestroysTheStorage) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    void* duplicate = nullptr;
    ASSERT_EQ(K9eReplStorageDuplicateHandle(storage.Handle(), &duplicate), RC_OK);
    EXPECT_EQ(duplicate, storage.Handle());
    ASSERT_EQ(K9eReplStorageClose(duplicate), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    storage.Close();
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST(References, AreCounted) {
    TestStorage storage;
    IK9eReplDS& source = storage.DataSource();
    EXPECT_EQ(source.AddRef(), 2U);
    EXPECT_EQ(source.AddRef(), 3U);
    EXPECT_EQ(source.Release(), 2U);
    EXPECT_EQ(source.Release(), 1U);
    EXPECT_EQ(storage.Insert("usable"), RC_OK);
}

// --- Closing -----------------------------------------------------------------------------------

TEST(Closing, FlushesWhatWasCommitted) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    storage.InsertCommitted({"two"});
    storage.Close();
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2"}));
}

TEST(Closing, LosesAnOpenTransaction) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("open"), RC_OK);
    storage.Close();
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
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
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushAlways);
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

TEST(Closing, AStorageThatWasNeverLoadedIsFine) {
    TestStorage storage("", Start::kOpened);
    storage.Close();
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
}

}  // namespace k9erepl::test
