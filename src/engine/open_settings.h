// The storage object's own settings: their defaults, limits and messages. Read once, when a storage
// is opened; docs/configuration.md lists them for users. Settings of the storage file are read in
// solid/file_settings.h, those of a writer, of the read buffers and of the index by their owners.
#ifndef K9EREPL_ENGINE_OPEN_SETTINGS_H
#define K9EREPL_ENGINE_OPEN_SETTINGS_H

#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// Which blocks stay in memory: all of them, or after a flush only the newest ones.
enum class CacheType : u32 { kAllInMem = 1, kLastN = 2 };
// What a flush counts: nothing, for a storage that writes no file; transactions; bytes of records.
enum class FlushMode : u32 { kNoFlush = 1, kPerTrans = 2, kPerData = 3 };

// The least value of block_size, in bytes.
inline constexpr u32 kMinBlockSize = 138;

// Written while the storage is opened, then constant and read by any thread. Each member is
// initialised with the default of its setting.
struct OpenSettings {
    CacheType cacheType = CacheType::kLastN;  // setting cache_type
    // The N of LastN: blocks that stay in memory, at least 1; 0 with AllInMem.
    u32 cacheBlocks = 100;
    // Setting block_size: bytes for records in a block, from kMinBlockSize to what a 32-bit
    // allocation with the block's head holds.
    u32 blockSize = 1048672;
    // Setting flush_mode.
    FlushMode flushMode = FlushMode::kPerTrans;
    // Setting flush_trans_num: transactions a flush, with PerTrans. 0: every commit flushes;
    // negative: no flush by count.
    i32 flushTransNum = 10;
    // Setting flush_data_size: bytes a flush, heads included, with PerData. 0 or negative: every
    // commit with records flushes.
    i64 flushDataSize = 4096;
    // Setting flush_timeout: milliseconds after which commits are flushed in any case, above 0. The
    // index thread wakes up as often.
    u32 flushTimeout = 1000;
    // Setting memory_reserve: how many free blocks are kept for reuse, 1 or more. Its default is
    // the N of LastN, or 100 with AllInMem.
    u32 memoryReserve = 100;
    // Setting range_index_memory: bytes that notes of blocks in the file may use; 0: none are kept.
    u32 rangeIndexMemory = 8 * 1024 * 1024;
    // Setting index_hint: new blocks between two saves of the index, at least 1.
    u32 indexHint = 50;
    // Setting read_only: nothing is ever written, and the storage file may be another process's.
    bool readOnly = false;
    // Setting check: a load reads the whole file, also what the index lets it pass over.
    bool checkWhole = false;

    // True when blocks may leave memory and be read back from the file.
    bool MayEvict() const { return cacheType != CacheType::kAllInMem; }
    // False with NoFlush: nothing is written, though a load may read a file.
    bool HasFile() const { return flushMode != FlushMode::kNoFlush; }

    // Reads cache_type, block_size, flush_mode with its threshold, flush_timeout, read_only and
    // check, and logs what it uses. A refused value is logged and answers RC_INVALID_ARG; settings
    // before it are then read.
    [[nodiscard]] ResultCode ReadMain(const char* connStr);
    // Reads memory_reserve; a value below 1 is logged and not used. To be called after ReadMain,
    // for the default depends on cache_type.
    void ReadMemoryReserve(const char* connStr);
    // Reads index_hint; a value below 1 is logged and not used.
    void ReadIndexHint(const char* connStr);
    // Reads range_index_memory. Logs nothing when the key is absent, so existing logs do not
    // change.
    void ReadRangeIndexMemory(const char* connStr);

  private:
    // Each reads one setting and logs it. Those that return a code refuse with RC_INVALID_ARG.
    [[nodiscard]] ResultCode ReadCacheType(const char* connStr);
    [[nodiscard]] ResultCode ReadBlockSize(const char* connStr);
    // Reads flush_mode and, after PerTrans or PerData, its threshold. Comes after ReadCacheType,
    // for NoFlush goes with AllInMem only.
    [[nodiscard]] ResultCode ReadFlushMode(const char* connStr);
    void ReadFlushTransNum(const char* connStr);
    void ReadFlushDataSize(const char* connStr);
    [[nodiscard]] ResultCode ReadFlushTimeout(const char* connStr);
    // Comes after ReadFlushMode, for a read-only storage cannot have NoFlush.
    [[nodiscard]] ResultCode ReadReadOnly(const char* connStr);
    [[nodiscard]] ResultCode ReadCheck(const char* connStr);
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_OPEN_SETTINGS_H
