// The storage object's own settings: their defaults, limits and messages. Read once, when a
// storage is opened; docs/configuration.md lists them for users.
#ifndef K9EREPL_ENGINE_OPEN_SETTINGS_H
#define K9EREPL_ENGINE_OPEN_SETTINGS_H

#include "platform/int_types.h"

namespace k9erepl {

enum class CacheType : u32 { kAllInMem = 1, kLastN = 2 };
enum class FlushMode : u32 { kNoFlush = 1, kPerTrans = 2, kPerData = 3 };

inline constexpr u32 kMinBlockSize = 138;

struct OpenSettings {
    CacheType cacheType = CacheType::kLastN;
    u32 cacheBlocks = 100;  // N of LastN, 0 with AllInMem
    u32 blockSize = 1048672;
    FlushMode flushMode = FlushMode::kPerTrans;
    i32 flushTransNum = 10;
    i64 flushDataSize = 4096;
    u32 flushTimeout = 1000;  // milliseconds
    u32 memoryReserve = 100;  // free blocks kept for reuse
    u32 indexHint = 50;       // new blocks between two saves of the index
    bool readOnly = false;    // nothing is ever written; the storage file stays another's
    bool checkWhole = false;  // a load reads the whole file, whatever the index lets it pass over

    bool MayEvict() const { return cacheType != CacheType::kAllInMem; }
    bool HasFile() const { return flushMode != FlushMode::kNoFlush; }

    // Each logs what it uses. The first reads cache_type, block_size, flush_mode with its
    // threshold, flush_timeout, read_only and check; a refused value is logged and answers
    // RC_INVALID_ARG.
    [[nodiscard]] u32 ReadMain(const char* connStr);
    void ReadMemoryReserve(const char* connStr);
    void ReadIndexHint(const char* connStr);

  private:
    [[nodiscard]] u32 ReadCacheType(const char* connStr);
    [[nodiscard]] u32 ReadBlockSize(const char* connStr);
    [[nodiscard]] u32 ReadFlushMode(const char* connStr);
    void ReadFlushTransNum(const char* connStr);
    void ReadFlushDataSize(const char* connStr);
    [[nodiscard]] u32 ReadFlushTimeout(const char* connStr);
    [[nodiscard]] u32 ReadReadOnly(const char* connStr);
    [[nodiscard]] u32 ReadCheck(const char* connStr);
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_OPEN_SETTINGS_H
