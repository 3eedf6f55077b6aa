// The sum of a file without its stamps; see the header.
#include "portability/portable.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>

#include "format/index_file_format.h"
#include "format/storage_file_format.h"

namespace k9erepl::portable {
namespace {

bool IsStorageFile(std::span<const u8> bytes) {
    return bytes.size() >= kFileHeaderSize &&
           std::memcmp(bytes.data(), kHeaderSignature, kHeaderSignatureSize) == 0 &&
           std::memcmp(bytes.data(), kIndexMagic, kIndexMagicSize) != 0;
}

// Walks the items of a storage file and numbers the stamps of its commit blocks. Between items,
// which are found by their signatures, may lie what a file that was started over has kept.
class StampNumbering {
  public:
    explicit StampNumbering(std::vector<u8>& bytes) : m_bytes(bytes) {}

    void Run() {
        while (Left() >= kCommitBlockSize) {
            m_offset += TakeItem();
        }
    }

  private:
    u64 Left() const { return m_bytes.size() - m_offset; }
    u8* Here() const { return m_bytes.data() + m_offset; }

    // The size of the item, or 1 where none begins.
    u32 TakeItem() {
        const u32 signature = LoadUnaligned<u32>(Here());
        if (signature == kCommitSignature) {
            NumberBlock();
            return kCommitBlockSize;
        }
        const auto head = LoadUnaligned<TRecordHead>(Here());
        const bool isRecord =
            signature == kRecordSignature && head.size >= kRecordHeadSize && head.size <= Left();
        return isRecord ? u32{head.size} : 1;
    }

    void NumberBlock() {
        auto block = LoadUnaligned<TCommitBlock>(Here());
        block.prevSequence = NumberOf(block.prevSequence);
        block.sequence = NumberOf(block.sequence);
        std::memcpy(Here(), &block, sizeof block);
    }

    // A block that links to none has 0.
    u32 NumberOf(u32 stamp) {
        return stamp == 0
                   ? 0
                   : m_numbers.emplace(stamp, static_cast<u32>(m_numbers.size() + 1)).first->second;
    }

    std::vector<u8>& m_bytes;
    std::size_t m_offset = kFirstCommitOffset;
    std::map<u32, u32> m_numbers;
};

u64 Fnv1a(std::span<const u8> bytes) {
    u64 sum = 0xCBF29CE484222325;
    for (const u8 byte : bytes) {
        sum = (sum ^ byte) * 0x100000001B3;
    }
    return sum;
}

}  // namespace

std::vector<u8> WithoutStamps(std::span<const u8> bytes) {
    std::vector<u8> numbered(bytes.begin(), bytes.end());
    if (IsStorageFile(bytes)) {
        StampNumbering(numbered).Run();
    }
    return numbered;
}

std::string Digest(std::span<const u8> bytes) {
    const u64 sum = Fnv1a(WithoutStamps(bytes));
    char text[40];
    (void)std::snprintf(text, sizeof text, "%08x%08x %u", static_cast<u32>(sum >> 32),
                        static_cast<u32>(sum), static_cast<u32>(bytes.size()));
    return text;
}

}  // namespace k9erepl::portable
