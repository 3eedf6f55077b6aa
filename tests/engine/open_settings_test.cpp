// The storage object's settings: values, limits, and every message at its level.
#include "engine/open_settings.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

LoggedMessage Info(const std::string& text) {
    return {K9SYS_LOG_INFO, "k9eRepl-storage", text, 0};
}
LoggedMessage Warning(const std::string& text) {
    return {K9SYS_LOG_WARNING, "k9eRepl-storage", text, 0};
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

TEST(OpenSettings, LogsEachDefaultInTheOrderOfReading) {
    const Reading reading("file=x");
    EXPECT_EQ(reading.rc, RC_OK);
    EXPECT_EQ(reading.messages, kDefaults);
    EXPECT_EQ(reading.settings.cacheType, CacheType::kLastN);
    EXPECT_EQ(reading.settings.cacheBlocks, 100U);
    EXPECT_EQ(reading.settings.blockSize, 1048672U);
    EXPECT_EQ(reading.settings.flushMode, FlushMode::kPerTrans);
    EXPECT_EQ(reading.settings.flushTransNum, 10);
    EXPECT_EQ(reading.settings.flushDataSize, 4096);
    EXPECT_EQ(reading.settings.flushTimeout, 1000U);
    EXPECT_EQ(reading.settings.memoryReserve, 100U);
    EXPECT_EQ(reading.settings.indexHint, 50U);
    EXPECT_EQ(
        Reading("cache_type=;block_size=;flush_mode=;flush_timeout=;memory_reserve=;index_hint=")
            .messages,
        kDefaults)
        << "an empty value is an absent one";
}

TEST(OpenSettings, LogsAndKeepsEachGivenValue) {
    const Reading reading(
        "cache_type=Last7;block_size=4096;flush_mode=PerTrans;flush_trans_num=3;flush_timeout=250;"
        "memory_reserve=9;index_hint=4");
    EXPECT_EQ(reading.messages,
              Messages({Info("Use cache_type Last7"), Info("Use block_size 4096"),
                        Info("Use flush_mode PerTrans"), Info("Use setting flush_trans_num 3"),
                        Info("Use flush_timeout 250"), Info("Use setting memory_reserve 9"),
                        Info("Use index_hint 4")}));
    EXPECT_EQ(reading.settings.cacheBlocks, 7U);
    EXPECT_EQ(reading.settings.blockSize, 4096U);
    EXPECT_EQ(reading.settings.flushTransNum, 3);
    EXPECT_EQ(reading.settings.flushTimeout, 250U);
    EXPECT_EQ(reading.settings.memoryReserve, 9U);
    EXPECT_EQ(reading.settings.indexHint, 4U);
}

TEST(OpenSettings, RefusesWhatNoStorageCanHave) {
    const std::pair<const char*, const char*> refused[] = {
        // setting, message unless empty
        {"cache_type=Last0", "Wrong block num to store in cache 0 (must be more than zero)"},
        {"cache_type=Last", ""},
        {"cache_type=Lastly", ""},
        {"cache_type=Last-3", ""},
        {"block_size=137", "Wrong block_size value 137, minimum block_size value is 138"},
        {"block_size=-200", ""},
        {"block_size=4294967200", ""},
        {"block_size=4294967296", ""},
        {"flush_mode=NoFlush", "NoFlush cannot be used with cache_type LastN"},
        {"flush_timeout=0", "'flush_timeout' must be greater than 0"},
        {"flush_timeout=-5", ""}};
    for (const auto& [setting, text] : refused) {
        const Reading reading(setting);
        EXPECT_EQ(reading.rc, RC_INVALID_ARG) << setting;
        EXPECT_EQ(reading.messages.back().code, RC_INVALID_ARG) << setting;
        EXPECT_EQ(reading.messages.back().level, K9SYS_LOG_ERROR) << setting;
        EXPECT_TRUE(*text == '\0' || reading.messages.back().text == text) << setting;
    }
}

// A number of the settings that were read, to be compared.
using Member = std::function<i64(const OpenSettings&)>;
i64 CacheBlocks(const OpenSettings& settings) {
    return settings.cacheType == CacheType::kLastN ? i64{settings.cacheBlocks} : -1;
}
i64 BlockSize(const OpenSettings& settings) {
    return settings.blockSize;
}
i64 TransNum(const OpenSettings& settings) {
    return settings.flushMode == FlushMode::kPerTrans ? settings.flushTransNum : -1000;
}
i64 DataSize(const OpenSettings& settings) {
    return settings.flushMode == FlushMode::kPerData ? settings.flushDataSize : -1000;
}
i64 Timeout(const OpenSettings& settings) {
    return settings.flushTimeout;
}
i64 Reserve(const OpenSettings& settings) {
    return settings.memoryReserve;
}
i64 Hint(const OpenSettings& settings) {
    return settings.indexHint;
}

struct Taken {
    const char* settings;
    Member member;
    i64 value;
    LoggedMessage message;  // among others; no text: not compared
};
const Taken kTaken[] = {
    {"cache_type=Last5x", CacheBlocks, 5, Info("Use cache_type Last5")},
    {"cache_type=Last99999999999;memory_reserve=1", CacheBlocks, 4294967295, Info("")},
    {"cache_type=AllInMem", CacheBlocks, -1, Info("Use cache_type AllInMem")},
    {"cache_type=AllInMemory", CacheBlocks, -1, Info("Use cache_type AllInMem")},
    {"cache_type=allinmem", CacheBlocks, 100,
     Warning("Unknown cache_type allinmem,use default cache_type=Last100")},
    {"block_size=138", BlockSize, 138, Info("Use block_size 138")},
    {"block_size=4294967199", BlockSize, 4294967199, Info("")},
    {"flush_trans_num=3;flush_data_size=5", TransNum, 10, Info("")},
    {"flush_mode=PerTransaction", TransNum, 10, Warning("Use default setting flush_trans_num 10")},
    {"flush_mode=PerTransaction", TransNum, 10, Info("Use flush_mode PerTrans")},
    {"flush_mode=PerTrans;flush_trans_num=-1", TransNum, -1, Info("")},
    {"flush_mode=PerTrans;flush_trans_num=0", TransNum, 0, Info("")},
    {"flush_mode=PerTrans;flush_trans_num=many", TransNum, 0, Info("")},
    {"flush_mode=PerData", DataSize, 4096, Warning("Use default setting flush_data_size 4096")},
    {"flush_mode=PerData", DataSize, 4096, Info("Use flush_mode PerData")},
    {"flush_mode=PerData;flush_data_size=-5", DataSize, -5, Info("Use setting flush_data_size -5")},
    {"flush_timeout=1", Timeout, 1, Info("")},
    {"memory_reserve=0", Reserve, 100,
     Warning("Wrong memory_reserve value (0), using default (100)")},
    {"cache_type=Last20", Reserve, 20, Info("")},
    {"cache_type=Last20;memory_reserve=-1", Reserve, 20,
     Warning("Wrong memory_reserve value (-1), using default (20)")},
    {"cache_type=AllInMem", Reserve, 100, Info("")},
    {"index_hint=0", Hint, 50, Warning("Wrong index_hint value (0), using default (50)")}};

TEST(OpenSettings, TakesEveryOtherValueAsItsBeginningSays) {
    for (const Taken& wanted : kTaken) {
        const Reading reading(wanted.settings);
        EXPECT_EQ(reading.rc, RC_OK) << wanted.settings;
        EXPECT_EQ(wanted.member(reading.settings), wanted.value) << wanted.settings;
        const Messages& all = reading.messages;
        EXPECT_TRUE(wanted.message.text.empty() ||
                    std::find(all.begin(), all.end(), wanted.message) != all.end())
            << wanted.settings;
    }
}

TEST(OpenSettings, ReadsThresholdsOfTheGivenFlushModeOnly) {
    const Reading noFlush("flush_mode=NoFlushing;cache_type=AllInMem;flush_trans_num=3");
    EXPECT_EQ(noFlush.settings.flushMode, FlushMode::kNoFlush);
    EXPECT_EQ(noFlush.settings.flushTransNum, 10);
    EXPECT_FALSE(noFlush.settings.MayEvict());
    EXPECT_EQ(noFlush.messages.at(2), Info("Use flush_mode NoFlush"));
    const Reading unknown("flush_mode=perdata;flush_data_size=1");
    EXPECT_EQ(unknown.settings.flushMode, FlushMode::kPerTrans);
    EXPECT_EQ(unknown.settings.flushDataSize, 4096);
    Messages expected = kDefaults;  // it is ignored without a message
    expected.erase(expected.begin() + 2);
    EXPECT_EQ(unknown.messages, expected);
}

}  // namespace
}  // namespace k9erepl::test
