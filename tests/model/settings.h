// The settings under which a run opens its storage. Chosen by the generator, read by the model and
// the runner.
#ifndef K9EREPL_TESTS_MODEL_SETTINGS_H
#define K9EREPL_TESTS_MODEL_SETTINGS_H

#include <optional>
#include <string>

#include "model/numbers.h"

namespace k9erepl::model {

enum class SessionKind : u8 {
    kFile,            // a storage file, written
    kEmptyMemory,     // NoFlush, starts empty
    kMemoryFromFile,  // NoFlush, starts with what the storage file holds and leaves it alone
};

enum class FlushBy : u8 { kNever, kTransactions, kData };

struct Settings {
    SessionKind kind = SessionKind::kFile;
    u32 cacheBlocks = 0;  // 0: AllInMem
    u32 blockSize = 4096;
    FlushBy flushBy = FlushBy::kTransactions;
    int flushThreshold = 1;
    u32 indexHint = 50;
    u32 readBuffers = 2;
    u32 initialMebibytes = 0;
    u32 deltaMebibytes = 0;
    bool forceFlush = false;
    bool commitBarrier = false;
    bool async = false;                 // only with a storage file
    std::optional<u32> asyncKilobytes;  // size of the asynchronous writer's buffer

    // The connection string for the storage file at `path`.
    std::string ConnString(const std::string& path) const;
    bool WritesAsync() const { return async && kind == SessionKind::kFile; }
    // What a reader of a failing script wants to know.
    std::string Describe() const;
};

// How many combinations of cache, block size and flush mode there are.
u32 CombinationCount();
// The `number`-th of them; the other settings follow from `random`.
Settings CombinationOf(u32 number, Random& random);

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_SETTINGS_H
