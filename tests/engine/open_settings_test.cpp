// The storage object's settings: values, limits, and every message at its level.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/open_settings.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

LoggedMessage Info(const std::string& text) {
    return {K9SYS_LOG_INFO, "k9eRepl-storage", text, 0};
}
LoggedMessage Warning(const std::string& text) {
    return {K9SYS_LOG_WARNING, "k9eRepl-storage", text, 0};
}
LoggedMessage Refusal(const std::string& text) {
    return {K9SYS_LOG_ERROR, "k9eRepl-storage", text, RC_INVALID_ARG};
}

using Messages = std::vector<LoggedMessage>;

// Reads the settings of a connection string and keeps what was answered and logged.
struct Reading {
    explicit Reading(const std::string& connStr) {
        LogCapture log;
        rc = settings.ReadMain(connStr.c_str());
        if (rc == RC_OK) {
            settings.ReadMemoryReserve(connStr.c_str());
            settings.ReadIndexHint(connStr.c_str());
        }
        messages = log.Messages();
    }
    bool Logged(const LoggedMessage& message) const {
        return std::find(messages.begin(), messages.end(), message) != messages.end();
    }

    OpenSettings settings;
    u32 rc = RC_OK;
    Messages messages;
};

const Messages kDefaults{
    Warning("Use default cache_type Last100"),
    Warning("Use default block_size 1048672"),
    Warning("Use default flush_mode PerTrans with flush_trans_num 10"),
    Warning("Use default flush_timeout 1000"),
    Info("Use default setting memory_reserve 100"),
    Info("Use default index_hint 50"),
};

}  // namespace

TEST(OpenSettings, LogsEachDefaultInTheOrderOfReading) {
    const Reading reading("file=x");
    EXPECT_EQ(reading.rc, RC_OK);
    EXPECT_EQ(reading.messages, kDefaults);
}

TEST(OpenSettings, HasTheDocumentedDefaults) {
    const OpenSettings settings = Reading("file=x").settings;
    EXPECT_EQ(settings.cacheType, CacheType::kLastN);
    EXPECT_EQ(settings.cacheBlocks, 100U);
    EXPECT_EQ(settings.blockSize, 1048672U);
    EXPECT_EQ(settings.flushMode, FlushMode::kPerTrans);
    EXPECT_EQ(settings.flushTransNum, 10);
    EXPECT_EQ(settings.flushDataSize, 4096);
    EXPECT_EQ(settings.flushTimeout, 1000U);
    EXPECT_EQ(settings.memoryReserve, 100U);
    EXPECT_EQ(settings.indexHint, 50U);
}

TEST(OpenSettings, TakesAnEmptyValueForAnAbsentOne) {
    const Reading reading(
        "cache_type=;block_size=;flush_mode=;flush_timeout=;memory_reserve=;index_hint=");
    EXPECT_EQ(reading.messages, kDefaults);
}

TEST(OpenSettings, LogsEachGivenValueAsInformation) {
    const Reading reading(
        "cache_type=Last7;block_size=4096;flush_mode=PerTrans;flush_trans_num=3;flush_timeout=250;"
        "memory_reserve=9;index_hint=4");
    EXPECT_EQ(reading.messages, Messages({
                                    Info("Use cache_type Last7"),
                                    Info("Use block_size 4096"),
                                    Info("Use flush_mode PerTrans"),
                                    Info("Use setting flush_trans_num 3"),
                                    Info("Use flush_timeout 250"),
                                    Info("Use setting memory_reserve 9"),
                                    Info("Use index_hint 4"),
                                }));
}

TEST(OpenSettings, KeepsEachGivenValue) {
    const OpenSettings settings =
        Reading(
            "cache_type=Last7;block_size=4096;flush_mode=PerTrans;flush_trans_num=3;"
            "flush_timeout=250;memory_reserve=9;index_hint=4")
            .settings;
    EXPECT_EQ(settings.cacheBlocks, 7U);
    EXPECT_EQ(settings.blockSize, 4096U);
    EXPECT_EQ(settings.flushTransNum, 3);
    EXPECT_EQ(settings.flushTimeout, 250U);
    EXPECT_EQ(settings.memoryReserve, 9U);
    EXPECT_EQ(settings.indexHint, 4U);
}

// --- cache_type --------------------------------------------------------------------------------

TEST(CacheTypeSetting, Last0IsRefused) {
    const Reading reading("cache_type=Last0");
    EXPECT_EQ(reading.rc, RC_INVALID_ARG);
    EXPECT_EQ(reading.messages, Messages({Refusal("Wrong block num to store in cache 0 (must be "
                                                  "more than zero)")}));
}

TEST(CacheTypeSetting, LastWithoutANumberIsRefused) {
    EXPECT_EQ(Reading("cache_type=Last").rc, RC_INVALID_ARG);
}

TEST(CacheTypeSetting, LastWithATextThatIsNoNumberIsRefused) {
    EXPECT_EQ(Reading("cache_type=Lastly").rc, RC_INVALID_ARG);
}

TEST(CacheTypeSetting, LastWithANegativeNumberIsRefused) {
    EXPECT_EQ(Reading("cache_type=Last-3").rc, RC_INVALID_ARG);
}

TEST(CacheTypeSetting, Last5xMeansFiveBlocks) {
    const Reading reading("cache_type=Last5x");
    EXPECT_EQ(reading.rc, RC_OK);
    EXPECT_EQ(reading.settings.cacheType, CacheType::kLastN);
    EXPECT_EQ(reading.settings.cacheBlocks, 5U);
    EXPECT_EQ(reading.messages.front(), Info("Use cache_type Last5"));
}

TEST(CacheTypeSetting, AnOverflowingNumberTakesTheLargestOne) {
    EXPECT_EQ(Reading("cache_type=Last99999999999;memory_reserve=1").settings.cacheBlocks,
              4294967295U);
}

TEST(CacheTypeSetting, AllInMemKeepsEverything) {
    const Reading reading("cache_type=AllInMem");
    EXPECT_EQ(reading.settings.cacheType, CacheType::kAllInMem);
    EXPECT_EQ(reading.settings.cacheBlocks, 0U);
    EXPECT_FALSE(reading.settings.MayEvict());
    EXPECT_EQ(reading.messages.front(), Info("Use cache_type AllInMem"));
}

TEST(CacheTypeSetting, AllInMemoryIsTakenAsAllInMem) {
    EXPECT_EQ(Reading("cache_type=AllInMemory").settings.cacheType, CacheType::kAllInMem);
}

TEST(CacheTypeSetting, LowerCaseAllinmemIsUnknownAndKeepsLast100) {
    const Reading reading("cache_type=allinmem");
    EXPECT_EQ(reading.rc, RC_OK);
    EXPECT_EQ(reading.settings.cacheType, CacheType::kLastN);
    EXPECT_EQ(reading.settings.cacheBlocks, 100U);
    EXPECT_EQ(reading.messages.front(),
              Warning("Unknown cache_type allinmem,use default cache_type=Last100"));
}

// --- block_size --------------------------------------------------------------------------------

TEST(BlockSizeSetting, 137IsRefused) {
    const Reading reading("block_size=137");
    EXPECT_EQ(reading.rc, RC_INVALID_ARG);
    EXPECT_EQ(reading.messages.back(),
              Refusal("Wrong block_size value 137, minimum block_size value is 138"));
}

TEST(BlockSizeSetting, 138IsAccepted) {
    const Reading reading("block_size=138");
    EXPECT_EQ(reading.rc, RC_OK);
    EXPECT_EQ(reading.settings.blockSize, 138U);
    EXPECT_TRUE(reading.Logged(Info("Use block_size 138")));
}

TEST(BlockSizeSetting, ANegativeSizeIsRefused) {
    EXPECT_EQ(Reading("block_size=-200").rc, RC_INVALID_ARG);
}

TEST(BlockSizeSetting, ASizeThatDoesNotFit32BitsWithItsHeadIsRefused) {
    EXPECT_EQ(Reading("block_size=4294967199").rc, RC_OK);
    EXPECT_EQ(Reading("block_size=4294967200").rc, RC_INVALID_ARG);
    EXPECT_EQ(Reading("block_size=4294967296").rc, RC_INVALID_ARG);
}

// --- flush_mode, flush_trans_num, flush_data_size ----------------------------------------------

TEST(FlushModeSetting, NoFlushWithoutAllInMemIsRefused) {
    const Reading reading("flush_mode=NoFlush");
    EXPECT_EQ(reading.rc, RC_INVALID_ARG);
    EXPECT_EQ(reading.messages.back(), Refusal("NoFlush cannot be used with cache_type LastN"));
}

TEST(FlushModeSetting, NoFlushWithAllInMemIsAccepted) {
    const Reading reading("flush_mode=NoFlushing;cache_type=AllInMem;flush_trans_num=3");
    EXPECT_EQ(reading.settings.flushMode, FlushMode::kNoFlush);
    EXPECT_TRUE(reading.Logged(Info("Use flush_mode NoFlush")));
    EXPECT_EQ(reading.settings.flushTransNum, 10);
}

TEST(FlushModeSetting, LowerCasePerdataIsIgnoredWithoutAMessage) {
    const Reading reading("flush_mode=perdata;flush_data_size=1");
    EXPECT_EQ(reading.settings.flushMode, FlushMode::kPerTrans);
    EXPECT_EQ(reading.settings.flushTransNum, 10);
    EXPECT_EQ(reading.settings.flushDataSize, 4096);
    Messages expected = kDefaults;
    expected.erase(expected.begin() + 2);
    EXPECT_EQ(reading.messages, expected);
}

TEST(FlushModeSetting, WithoutAModeItsThresholdsAreNotRead) {
    const OpenSettings settings = Reading("flush_trans_num=3;flush_data_size=5").settings;
    EXPECT_EQ(settings.flushTransNum, 10);
    EXPECT_EQ(settings.flushDataSize, 4096);
}

TEST(FlushModeSetting, PerTransWithoutANumberWarns) {
    const Reading reading("flush_mode=PerTransaction");
    EXPECT_TRUE(reading.Logged(Info("Use flush_mode PerTrans")));
    EXPECT_TRUE(reading.Logged(Warning("Use default setting flush_trans_num 10")));
}

TEST(FlushModeSetting, PerTransTakesAnyNumber) {
    EXPECT_EQ(Reading("flush_mode=PerTrans;flush_trans_num=-1").settings.flushTransNum, -1);
    EXPECT_EQ(Reading("flush_mode=PerTrans;flush_trans_num=0").settings.flushTransNum, 0);
    EXPECT_EQ(Reading("flush_mode=PerTrans;flush_trans_num=many").settings.flushTransNum, 0);
}

TEST(FlushModeSetting, PerDataWithoutASizeWarns) {
    const Reading reading("flush_mode=PerData");
    EXPECT_EQ(reading.settings.flushMode, FlushMode::kPerData);
    EXPECT_TRUE(reading.Logged(Info("Use flush_mode PerData")));
    EXPECT_TRUE(reading.Logged(Warning("Use default setting flush_data_size 4096")));
}

TEST(FlushModeSetting, PerDataTakesAnySizeWithItsSign) {
    const Reading reading("flush_mode=PerData;flush_data_size=-5");
    EXPECT_EQ(reading.settings.flushDataSize, -5);
    EXPECT_TRUE(reading.Logged(Info("Use setting flush_data_size -5")));
}

// --- flush_timeout -----------------------------------------------------------------------------

TEST(FlushTimeoutSetting, ZeroIsRefused) {
    const Reading reading("flush_timeout=0");
    EXPECT_EQ(reading.rc, RC_INVALID_ARG);
    EXPECT_EQ(reading.messages.back(), Refusal("'flush_timeout' must be greater than 0"));
}

TEST(FlushTimeoutSetting, ANegativeOneIsRefused) {
    EXPECT_EQ(Reading("flush_timeout=-5").rc, RC_INVALID_ARG);
}

TEST(FlushTimeoutSetting, OneMillisecondIsAccepted) {
    EXPECT_EQ(Reading("flush_timeout=1").settings.flushTimeout, 1U);
}

// --- memory_reserve, index_hint ----------------------------------------------------------------

TEST(MemoryReserveSetting, ZeroFallsBackToTheDefaultWithAWarning) {
    const Reading reading("memory_reserve=0");
    EXPECT_EQ(reading.settings.memoryReserve, 100U);
    EXPECT_TRUE(reading.Logged(Warning("Wrong memory_reserve value (0), using default (100)")));
}

TEST(MemoryReserveSetting, ItsDefaultIsTheNumberOfCachedBlocks) {
    EXPECT_EQ(Reading("cache_type=Last20").settings.memoryReserve, 20U);
    const Reading reading("cache_type=Last20;memory_reserve=-1");
    EXPECT_EQ(reading.settings.memoryReserve, 20U);
    EXPECT_TRUE(reading.Logged(Warning("Wrong memory_reserve value (-1), using default (20)")));
}

TEST(MemoryReserveSetting, ItsDefaultWithAllInMemIs100) {
    EXPECT_EQ(Reading("cache_type=AllInMem").settings.memoryReserve, 100U);
}

TEST(IndexHintSetting, ZeroFallsBackToFiftyWithAWarning) {
    const Reading reading("index_hint=0");
    EXPECT_EQ(reading.settings.indexHint, 50U);
    EXPECT_TRUE(reading.Logged(Warning("Wrong index_hint value (0), using default (50)")));
}

}  // namespace k9erepl::test
