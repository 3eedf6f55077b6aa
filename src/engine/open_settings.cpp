// Reading the storage object's settings; see the header.
#include "engine/open_settings.h"

#include <k9erepl/storage.h>

#include <cassert>
#include <limits>
#include <string>
#include <string_view>

#include "memory/repl_block.h"
#include "support/log.h"
#include "support/params.h"
#include "support/yes_no.h"

namespace k9erepl {

ResultCode OpenSettings::ReadMain(const char* connStr) {
    if (ResultCode rc = ReadCacheType(connStr); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = ReadBlockSize(connStr); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = ReadFlushMode(connStr); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = ReadFlushTimeout(connStr); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = ReadReadOnly(connStr); rc != RC_OK) {
        return rc;
    }
    return ReadCheck(connStr);
}

ResultCode OpenSettings::ReadCacheType(const char* connStr) {
    static constexpr std::string_view kLast = "Last";
    std::string value;
    GetParam(connStr, "cache_type", value);
    if (value.empty()) {
        LOG_WARNING(kLogStorage, "Use default cache_type Last%d", cacheBlocks);
    } else if (value.starts_with(kLast)) {
        const u32 blocks = ToUInt(value.c_str() + kLast.size());
        if (blocks == 0) {
            LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                           "Wrong block num to store in cache %P (must be more than zero)",
                           std::size_t{blocks});
            return RC_INVALID_ARG;
        }
        cacheType = CacheType::kLastN;
        cacheBlocks = blocks;
        LOG_INFO(kLogStorage, "Use cache_type Last%P", std::size_t{blocks});
    } else if (value.starts_with("AllInMem")) {
        cacheType = CacheType::kAllInMem;
        cacheBlocks = 0;
        LOG_INFO(kLogStorage, "Use cache_type AllInMem");
    } else {
        LOG_WARNING(kLogStorage, "Unknown cache_type %s,use default cache_type=Last%d",
                    value.c_str(), cacheBlocks);
    }
    return RC_OK;
}

ResultCode OpenSettings::ReadBlockSize(const char* connStr) {
    // A block is allocated in one piece, whose size is a 32-bit number.
    static constexpr u32 kMaxBlockSize = std::numeric_limits<u32>::max() - kBlockOverhead;
    u32 value = 0;
    if (!GetParamUInt(connStr, "block_size", &value)) {
        LOG_WARNING(kLogStorage, "Use default block_size %u", blockSize);
        return RC_OK;
    }
    if (value < kMinBlockSize || value > kMaxBlockSize) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                       "Wrong block_size value %u, minimum block_size value is %u", value,
                       kMinBlockSize);
        return RC_INVALID_ARG;
    }
    blockSize = value;
    LOG_INFO(kLogStorage, "Use block_size %u", blockSize);
    return RC_OK;
}

ResultCode OpenSettings::ReadFlushMode(const char* connStr) {
    std::string value;
    GetParam(connStr, "flush_mode", value);
    if (value.empty()) {
        LOG_WARNING(kLogStorage, "Use default flush_mode PerTrans with flush_trans_num %d",
                    flushTransNum);
    } else if (value.starts_with("NoFlush")) {
        if (cacheType != CacheType::kAllInMem) {
            LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                           "NoFlush cannot be used with cache_type LastN");
            return RC_INVALID_ARG;
        }
        flushMode = FlushMode::kNoFlush;
        LOG_INFO(kLogStorage, "Use flush_mode NoFlush");
    } else if (value.starts_with("PerTrans")) {
        flushMode = FlushMode::kPerTrans;
        LOG_INFO(kLogStorage, "Use flush_mode PerTrans");
        ReadFlushTransNum(connStr);
    } else if (value.starts_with("PerData")) {
        flushMode = FlushMode::kPerData;
        LOG_INFO(kLogStorage, "Use flush_mode PerData");
        ReadFlushDataSize(connStr);
    }
    return RC_OK;
}

void OpenSettings::ReadFlushTransNum(const char* connStr) {
    if (GetParamInt(connStr, "flush_trans_num", &flushTransNum)) {
        LOG_INFO(kLogStorage, "Use setting flush_trans_num %d", flushTransNum);
    } else {
        LOG_WARNING(kLogStorage, "Use default setting flush_trans_num %d", flushTransNum);
    }
}

void OpenSettings::ReadFlushDataSize(const char* connStr) {
    i32 value = static_cast<i32>(flushDataSize);
    if (GetParamInt(connStr, "flush_data_size", &value)) {
        flushDataSize = value;
        LOG_INFO(kLogStorage, "Use setting flush_data_size %d", value);
    } else {
        LOG_WARNING(kLogStorage, "Use default setting flush_data_size %d", value);
    }
}

ResultCode OpenSettings::ReadFlushTimeout(const char* connStr) {
    i32 value = 0;
    if (!GetParamInt(connStr, "flush_timeout", &value)) {
        LOG_WARNING(kLogStorage, "Use default flush_timeout %u", flushTimeout);
        return RC_OK;
    }
    if (value <= 0) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "'flush_timeout' must be greater than 0");
        return RC_INVALID_ARG;
    }
    flushTimeout = static_cast<u32>(value);
    LOG_INFO(kLogStorage, "Use flush_timeout %u", flushTimeout);
    return RC_OK;
}

// Logs nothing when the key is absent, so existing logs do not change.
ResultCode OpenSettings::ReadReadOnly(const char* connStr) {
    assert(!readOnly);
    YesNo setting;
    if (const ResultCode rc = ReadYesNo(connStr, "read_only", &setting); rc != RC_OK) {
        return rc;
    }
    readOnly = setting.yes;
    if (readOnly && flushMode == FlushMode::kNoFlush) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                       "read_only cannot be used with flush_mode NoFlush");
        return RC_INVALID_ARG;
    }
    LogYesNo("read_only", setting);
    return RC_OK;
}

// Logs nothing when the key is absent, so existing logs do not change.
ResultCode OpenSettings::ReadCheck(const char* connStr) {
    YesNo setting;
    if (const ResultCode rc = ReadYesNo(connStr, "check", &setting); rc != RC_OK) {
        return rc;
    }
    LogYesNo("check", setting);
    checkWhole = setting.yes;
    return RC_OK;
}

void OpenSettings::ReadMemoryReserve(const char* connStr) {
    if (cacheType == CacheType::kLastN) {
        memoryReserve = cacheBlocks;
    }
    i32 value = 0;
    if (!GetParamInt(connStr, "memory_reserve", &value)) {
        LOG_INFO(kLogStorage, "Use default setting memory_reserve %P", std::size_t{memoryReserve});
    } else if (value <= 0) {
        LOG_WARNING(kLogStorage, "Wrong memory_reserve value (%d), using default (%P)", value,
                    std::size_t{memoryReserve});
    } else {
        memoryReserve = static_cast<u32>(value);
        LOG_INFO(kLogStorage, "Use setting memory_reserve %P", std::size_t{memoryReserve});
    }
}

void OpenSettings::ReadRangeIndexMemory(const char* connStr) {
    if (GetParamUInt(connStr, "range_index_memory", &rangeIndexMemory)) {
        LOG_INFO(kLogStorage, "Use range_index_memory %u", rangeIndexMemory);
    }
}

void OpenSettings::ReadIndexHint(const char* connStr) {
    i32 value = 0;
    if (!GetParamInt(connStr, "index_hint", &value)) {
        LOG_INFO(kLogStorage, "Use default index_hint %d", indexHint);
    } else if (value < 1) {
        LOG_WARNING(kLogStorage, "Wrong index_hint value (%d), using default (%d)", value,
                    indexHint);
    } else {
        indexHint = static_cast<u32>(value);
        LOG_INFO(kLogStorage, "Use index_hint %d", indexHint);
    }
}

}  // namespace k9erepl
