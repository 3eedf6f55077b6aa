// The combinations of settings, and how they read in a connection string.
#include "model/settings.h"

#include <array>

namespace k9erepl::model {

namespace {

struct FlushChoice {
    SessionKind kind;
    FlushBy by;
    int threshold;
};

constexpr std::array<u32, 5> kBlockSizes = {138, 139, 200, 4096, 65536};
constexpr std::array<u32, 4> kCaches = {0, 1, 2, 7};
constexpr std::array<FlushChoice, 4> kFlushes = {{
    {SessionKind::kFile, FlushBy::kTransactions, 1},
    {SessionKind::kFile, FlushBy::kTransactions, 5},
    {SessionKind::kFile, FlushBy::kData, 1},
    {SessionKind::kFile, FlushBy::kData, 2000},
}};
// Without a file everything stays in memory, so that there is one cache type only.
constexpr std::array<FlushChoice, 2> kInMemory = {{
    {SessionKind::kEmptyMemory, FlushBy::kNever, 0},
    {SessionKind::kMemoryFromFile, FlushBy::kNever, 0},
}};
constexpr u32 kVariants = static_cast<u32>(kCaches.size() * kFlushes.size() + kInMemory.size());

// A threshold now and then that no client would think of.
int Threshold(const FlushChoice& flush, Random& random) {
    return random.OneIn(12) ? random.OneOf({0, -1, 1000000}) : flush.threshold;
}

std::string AsyncText(const std::optional<u32>& kilobytes) {
    return kilobytes ? ";async_mode=yes;async_buffer_size=" + std::to_string(*kilobytes)
                     : std::string(";async_mode=yes");
}

}  // namespace

u32 CombinationCount() {
    return kVariants * static_cast<u32>(kBlockSizes.size());
}

Settings CombinationOf(u32 number, Random& random) {
    const u32 variant = number / static_cast<u32>(kBlockSizes.size()) % kVariants;
    const bool inMemory = variant < kInMemory.size();
    const u32 fileVariant = inMemory ? 0 : variant - static_cast<u32>(kInMemory.size());
    const FlushChoice& flush =
        inMemory ? kInMemory.at(variant) : kFlushes.at(fileVariant % kFlushes.size());
    Settings settings;
    settings.kind = flush.kind;
    settings.flushBy = flush.by;
    settings.flushThreshold = Threshold(flush, random);
    settings.cacheBlocks = inMemory ? 0 : kCaches.at(fileVariant / kFlushes.size());
    settings.blockSize = kBlockSizes.at(std::size_t{number} % kBlockSizes.size());
    settings.indexHint = random.OneOf<u32>({1, 2, 50});
    settings.readBuffers = random.OneOf<u32>({1, 2, 32});
    settings.initialMebibytes = random.OneIn(6) ? 1 : 0;
    settings.deltaMebibytes = random.OneIn(6) ? 1 : 0;
    settings.forceFlush = random.OneIn(10);
    settings.commitBarrier = settings.forceFlush && random.OneIn(2);
    settings.asyncKilobytes = random.OneOf<std::optional<u32>>({std::nullopt, 0, 1, 64});
    return settings;
}

std::string Settings::ConnString(const std::string& path) const {
    const std::string file = kind == SessionKind::kEmptyMemory ? ":memory:" : path;
    return "file=" + file + ";" + Describe() +
           ";read_buffers_count=" + std::to_string(readBuffers) +
           ";file_initial_size=" + std::to_string(initialMebibytes) +
           ";file_size_delta=" + std::to_string(deltaMebibytes) +
           ";force_flush=" + (forceFlush ? "yes" : "no") +
           ";commit_barrier=" + (commitBarrier ? "yes" : "no") +
           // Nothing is to depend on the clock.
           ";flush_timeout=2000000000";
}

std::string Settings::Describe() const {
    std::string text = "cache_type=";
    text += cacheBlocks == 0 ? "AllInMem" : "Last" + std::to_string(cacheBlocks);
    text += ";block_size=" + std::to_string(blockSize) + ";flush_mode=";
    switch (flushBy) {
        case FlushBy::kNever:
            return text + "NoFlush";
        case FlushBy::kTransactions:
            text += "PerTrans;flush_trans_num=";
            break;
        case FlushBy::kData:
            text += "PerData;flush_data_size=";
            break;
    }
    text += std::to_string(flushThreshold) + ";index_hint=" + std::to_string(indexHint);
    return text + (WritesAsync() ? AsyncText(asyncKilobytes) : "");
}

}  // namespace k9erepl::model
