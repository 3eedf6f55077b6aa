// The search for what goes on behind a damage; see the header.
#include "solid/damage_search.h"

#include <algorithm>
#include <optional>

#include "solid/file_format.h"

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
        for (std::size_t at = 0; Left(at) >= kRecordHeadSize;) {
            const u32 word = WordAt(at);
            std::size_t step = 1;
            if (word == kRecordSignature) {
                step = TakeRecord(at);
            } else if (word == kCommitSignature && Left(at) >= kCommitBlockSize) {
                step = TakeCommit(at);
            }
            at += step;
        }
        m_found.lowestRev = m_lowestRec.value_or(m_lowestCommit.value_or(0));
        return m_found;
    }

  private:
    std::size_t Left(std::size_t at) const { return m_size - at; }
    u32 WordAt(std::size_t at) const { return LoadUnaligned<u32>(m_bytes + at); }

    // Data may hold anything, a whole storage file too: the data of a record that is sound is
    // passed over.
    std::size_t TakeRecord(std::size_t at) {
        const auto head = LoadUnaligned<TRecordHead>(m_bytes + at);
        const bool isItem = u64{head.size} == u64{head.dataSize} + kRecordHeadSize &&
                            head.rev > std::max(m_commitRev, m_recRev) &&
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

    std::size_t TakeCommit(std::size_t at) {
        const auto block = LoadUnaligned<TCommitBlock>(m_bytes + at);
        const bool falls = block.clearRev < m_clearRev || block.commitRev < m_commitRev;
        const bool followsLast = !m_lastSequence && block.prevSequence == m_last.sequence;
        if (falls && !followsLast) {
            return 1;
        }
        if (m_lastSequence == block.prevSequence) {
            ++m_found.linkedBlocks;
        }
        // The block at the stop may itself be what is damaged: it raises no bound.
        const bool isTrusted = at > 0 && !followsLast;
        m_clearRev = isTrusted ? i64{block.clearRev} : std::min<i64>(m_clearRev, block.clearRev);
        m_commitRev =
            isTrusted ? i64{block.commitRev} : std::min<i64>(m_commitRev, block.commitRev);
        m_lastSequence = block.sequence;
        m_lowestCommit = m_lowestCommit.value_or(block.commitRev);
        m_found.highestRev = block.commitRev;
        return kCommitBlockSize;
    }

    const u8* const m_bytes;
    const std::size_t m_size;
    const LastGoodCommit m_last;
    i64 m_clearRev;
    i64 m_commitRev;
    i64 m_recRev = 0;
    std::optional<u32> m_lastSequence;
    std::optional<i64> m_lowestRec;
    std::optional<i64> m_lowestCommit;
    BeyondDamage m_found;
};

}  // namespace

BeyondDamage SearchBeyondDamage(const u8* bytes, std::size_t size, const LastGoodCommit& last) {
    return Search(bytes, std::min<std::size_t>(size, kDamageSearchSize), last).Run();
}

}  // namespace k9erepl
