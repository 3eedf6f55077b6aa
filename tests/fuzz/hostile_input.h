// Storage and index files out of fuzz inputs, opened and judged on a disk in memory. Used by the
// targets whose inputs are files.
#ifndef K9EREPL_TESTS_FUZZ_HOSTILE_INPUT_H
#define K9EREPL_TESTS_FUZZ_HOSTILE_INPUT_H

#include "fuzz/target.h"
#include "model/seed_run.h"
#include "reliability/hostile_opening.h"
#include "reliability/steady_calls.h"

namespace k9erepl::fuzz {

inline constexpr std::array<u32, 4> kCaches = {0, 1, 2, 7};
inline constexpr std::array<u32, 4> kBlockSizes = {138, 400, 4096, 65536};

// The settings that `choice` stands for: where the content lies, cache, block size, writer.
inline model::Settings SettingsOf(std::uint8_t choice) {
    model::Settings settings;
    settings.cacheBlocks = kCaches[choice % 4U];
    settings.blockSize = kBlockSizes[choice / 4U % 4U];
    settings.async = choice / 16U % 2U == 1;
    settings.commitBarrier = choice / 32U % 2U == 1;
    settings.forceFlush = settings.commitBarrier;
    settings.readBuffers = 1;
    settings.indexHint = choice / 64U % 2U == 1 ? 1 : 50;
    if (choice / 128U == 1) {
        settings.kind = model::SessionKind::kMemoryFromFile;
        settings.flushBy = model::FlushBy::kNever;
        settings.cacheBlocks = 0;
    }
    return settings;
}

// Opens, loads, enumerates, appends, opens again, and compares with the slow reader; ends the
// process when something is wrong.
inline void Examine(const reliability::HostileCase& hostile) {
    constexpr u64 kSeed = 1;
    const reliability::SteadyCalls steady;
    model::KeepQuiet();
    reliability::MemoryDisk disk;
    reliability::Fate fate{};
    Expect(reliability::ExamineHostile(disk, hostile, kSeed, &fate));
}

}  // namespace k9erepl::fuzz

#endif  // K9EREPL_TESTS_FUZZ_HOSTILE_INPUT_H
