// The search for what goes on behind damage; see the header.
#include "format/damage_search.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "format/storage_file_format.h"
#include "format/stream_rules.h"

namespace k9erepl {

namespace {

class Search {
  public:
    Search(const u8* bytes, std::size_t size, const LastGoodCommit& last)
        : m_bytes(bytes),
          m_size(size),
          m_last(last),
          m_clearRev(last.clearRev),
          m_commitRev(last.commitRev) {}

    BeyondDamage Run() {
        for (std::size_t at = NextPlace(0); Left(at) >= kRecordHeadSize; at = NextPlace(at)) {
            const u32 word = WordAt(at);
            std::size_t step = 1;
            if (word == kRecordSignature) {
                step = TakeRecord(at);
            } else if (word == kCommitSignature && Left(at) >= kCommitBlockSize) {
                TakeCommit(at);
            }
            at += step;
        }
        m_found.lowestRev = m_lowestRec.value_or(m_lowestCommit.value_or(0));
        return m_found;
    }

  private:
    // The next place, `at` included, where an item may begin, or the end. Most bytes behind the end
    // of a storage are zeros; to test them one by one would take longer than the load itself.
    std::size_t NextPlace(std::size_t at) const {
        constexpr u8 kInBoth = '*';  // the first byte of records, the second of commit blocks
        static_assert((kRecordSignature & 0xFF) == kInBoth);
        static_assert((kCommitSignature >> 8 & 0xFF) == kInBoth);
        constexpr u8 kFirstOfCommits = kCommitSignature & 0xFF;
        if (Left(at) == 0) {
            return at;
        }
        const void* const found = std::memchr(m_bytes + at, kInBoth, Left(at));
        if (found == nullptr) {
            return m_size;
        }
        const auto place = static_cast<std::size_t>(static_cast<const u8*>(found) - m_bytes);
        return place > at && m_bytes[place - 1] == kFirstOfCommits ? place - 1 : place;
    }

    std::size_t Left(std::size_t at) const { return m_size - at; }
    u32 WordAt(std::size_t at) const { return LoadUnaligned<u32>(m_bytes + at); }

    // Returns how far to move on. The data of a sound record is passed over: it may hold anything,
    // even a whole storage file.
    std::size_t TakeRecord(std::size_t at) {
        const auto head = LoadUnaligned<TRecordHead>(m_bytes + at);
        const bool isItem = SizesAgree(head) && Rises(head.rev, std::max(m_commitRev, m_recRev)) &&
                            ItemFollows(at, head.size);
        if (!isItem) {
            return 1;
        }
        m_recRev = head.rev;
        m_lowestRec = m_lowestRec.value_or(head.rev);
        return head.size;
    }

    bool ItemFollows(std::size_t at, u32 size) const {
        if (Left(at) < std::size_t{size} + kSignatureSize) {
            return false;
        }
        const u32 next = WordAt(at + size);
        return next == kRecordSignature || next == kCommitSignature;
    }

    // The search moves on by one byte only: a damaged byte in front of a record may make it look
    // like the beginning of a commit block.
    void TakeCommit(std::size_t at) {
        const auto block = LoadUnaligned<TCommitBlock>(m_bytes + at);
        const bool followsLast = !m_previous && block.prevSequence == m_last.sequence;
        if (IsBelow(block, m_clearRev, m_commitRev) && !followsLast) {
            return;
        }
        if (LinksToPrevious(block)) {
            ++m_found.linkedBlocks;
            // Two linked blocks raise the bounds to what both reach. One alone may be what the
            // damage made of a block, with revisions that nothing behind it would reach.
            m_clearRev =
                std::max<i64>(m_clearRev, std::min<i64>(m_previous->clearRev, block.clearRev));
            m_commitRev =
                std::max<i64>(m_commitRev, std::min<i64>(m_previous->commitRev, block.commitRev));
        }
        // A block where the walk stopped, or one linked to the last good block, may itself be what
        // is damaged.
        m_previousIsTrusted = at > 0 && !followsLast;
        if (!m_previousIsTrusted) {
            m_clearRev = std::min<i64>(m_clearRev, block.clearRev);
            m_commitRev = std::min<i64>(m_commitRev, block.commitRev);
        }
        m_previous = block;
        m_lowestCommit = m_lowestCommit.value_or(block.commitRev);
        m_found.highestRev = block.commitRev;
    }

    static bool IsBelow(const TCommitBlock& block, i64 clearRev, i64 commitRev) {
        return block.clearRev < clearRev || block.commitRev < commitRev;
    }

    bool LinksToPrevious(const TCommitBlock& block) const {
        return m_previous && m_previous->sequence == block.prevSequence &&
               !(m_previousIsTrusted &&
                 IsBelow(block, m_previous->clearRev, m_previous->commitRev));
    }

    const u8* const m_bytes;
    const std::size_t m_size;
    const LastGoodCommit m_last;
    i64 m_clearRev;    // the bounds: the lowest clearRev that a commit block may have,
    i64 m_commitRev;   // and the lowest commitRev
    i64 m_recRev = 0;  // of the last record that counted; 0: none yet
    std::optional<TCommitBlock> m_previous;  // the last commit block that counted
    // False: m_previous may be the damaged block, so its revisions do not bound those behind it.
    bool m_previousIsTrusted = false;
    std::optional<i64> m_lowestRec;     // of the first record that counted
    std::optional<i64> m_lowestCommit;  // commitRev of the first commit block that counted
    BeyondDamage m_found;
};

}  // namespace

BeyondDamage SearchBeyondDamage(const u8* bytes, std::size_t size, const LastGoodCommit& last) {
    return Search(bytes, std::min<std::size_t>(size, kDamageSearchSize), last).Run();
}

}  // namespace k9erepl
