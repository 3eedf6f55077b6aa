// The rules of both documents, in their order; see the header. Numbers of rules are those of the
// lists "Valid if and only if".
#include "reliability/slow_reader.h"

#include <algorithm>

namespace k9erepl::reliability {

namespace {

constexpr std::size_t kFirstCommitAt = 1024;
constexpr std::size_t kFirstItemAt = 1056;
constexpr i64 kCommitWord = 0x3A2D2A7D;
constexpr i64 kRecordWord = 0x7B3A2D2A;
constexpr i64 kRecordSizeMax = 10485760;
constexpr std::size_t kIndexHeader = 32;
constexpr std::size_t kEntrySize = 16;
constexpr std::size_t kChecksumAt = 24;

bool Lies(const std::string& bytes, std::size_t at, std::size_t size) {
    return at <= bytes.size() && size <= bytes.size() - at;
}

u32 Unsigned32(const std::string& bytes, std::size_t at) {
    return static_cast<u32>(NumberAt(bytes, at, 4));
}

std::string WhyNoHeader(const std::string& bytes) {
    if (bytes.size() < kHeaderSize) {
        return "1: no whole header";
    }
    if (bytes.compare(0, 8, "K9_EREPL") != 0) {
        return "2: other signature";
    }
    return NumberAt(bytes, 8, 4) == 3 ? "" : "3: other version";
}

// The walk over the items.
class Walk {
  public:
    Walk(const std::string& bytes, std::size_t start) : m_bytes(bytes), m_at(start) {
        m_fromBeginning = start == kFirstCommitAt;
    }

    void Run(SlowScan& scan) {
        for (std::string why; why.empty();) {
            scan.stopAt = m_at;
            SlowItem item;
            why = Take(scan, &item);
            if (why.empty()) {
                scan.items.push_back(item);
                m_at += item.size;
                Note(scan, item);
            }
            scan.stop = why;
        }
    }

  private:
    std::string Take(const SlowScan& scan, SlowItem* item) {
        if (!Lies(m_bytes, m_at, 4)) {
            return "6: end of the file";
        }
        const i64 word = NumberAt(m_bytes, m_at, 4);
        if (word == kCommitWord) {
            return TakeCommit(scan, item);
        }
        return word == kRecordWord ? TakeRecord(item) : "6: other signature";
    }

    std::string TakeCommit(const SlowScan& scan, SlowItem* item) {
        if (!Lies(m_bytes, m_at, kCommitSize)) {
            return "6: commit block beyond the end of the file";
        }
        const i64 clearRev = NumberAt(m_bytes, m_at + 16, 8);
        const i64 commitRev = NumberAt(m_bytes, m_at + 24, 8);
        *item = {ItemKind::kCommit, m_at, kCommitSize, commitRev};
        if (m_anyCommit && Unsigned32(m_bytes, m_at + 4) != scan.sequence) {
            return "10: not linked";
        }
        if (m_anyCommit && clearRev < m_clearRev) {
            return "11: clearRev falls";
        }
        return m_anyRecord && commitRev < m_recordRev ? "12: commitRev below the records" : "";
    }

    std::string TakeRecord(SlowItem* item) {
        if (m_fromBeginning && !m_anyCommit) {
            return "5: record where a commit block should be";
        }
        if (!Lies(m_bytes, m_at, kHeadSize)) {
            return "6: head of a record beyond the end of the file";
        }
        const i64 size = NumberAt(m_bytes, m_at + 4, 4);
        const i64 rev = NumberAt(m_bytes, m_at + 8, 8);
        if (size != NumberAt(m_bytes, m_at + 20, 4) + i64{kHeadSize} || size > kRecordSizeMax) {
            return "7: sizes of a record";
        }
        if (!Lies(m_bytes, m_at, static_cast<std::size_t>(size))) {
            return "6: record beyond the end of the file";
        }
        if (m_anyCommit && rev < m_lowestRev) {
            return "8: revision below the last commit";
        }
        *item = {ItemKind::kRecord, m_at, static_cast<std::size_t>(size), rev};
        return rev <= m_recordRev ? "9: revision does not rise" : "";
    }

    void Note(SlowScan& scan, const SlowItem& item) {
        if (item.kind == ItemKind::kRecord) {
            m_recordRev = item.rev;
            m_anyRecord = true;
            return;
        }
        const bool isFilesFirst = item.at == kFirstCommitAt;
        m_clearRev = NumberAt(m_bytes, item.at + 16, 8);
        m_lowestRev = isFilesFirst ? std::max(m_clearRev, item.rev) : item.rev;
        m_anyCommit = true;
        scan.sequence = Unsigned32(m_bytes, item.at + 8);
        scan.clearRev = m_clearRev;
        scan.commitRev = m_lowestRev;
        scan.validItems = scan.items.size();
        scan.validEnd = m_at;
    }

    const std::string& m_bytes;
    std::size_t m_at;
    bool m_fromBeginning;
    bool m_anyCommit = false;
    bool m_anyRecord = false;
    i64 m_clearRev = 0;
    i64 m_lowestRev = 0;
    i64 m_recordRev = 0;
};

u32 ChecksumOf(const std::string& bytes) {
    u32 checksum = 0;
    for (std::size_t at = kIndexHeader; Lies(bytes, at, kEntrySize); at += kEntrySize) {
        const u64 difference =
            static_cast<u64>(NumberAt(bytes, at, 8)) - static_cast<u64>(NumberAt(bytes, at + 8, 8));
        checksum ^= static_cast<u32>(difference) ^ static_cast<u32>(difference >> 32U);
    }
    return checksum;
}

std::string WhyNoEntries(const std::string& bytes, std::vector<SlowIndexEntry>* entries) {
    SlowIndexEntry before{0, -1};
    for (std::size_t at = kIndexHeader; at < bytes.size(); at += kEntrySize) {
        const SlowIndexEntry entry{NumberAt(bytes, at, 8), NumberAt(bytes, at + 8, 8)};
        if (entry.rev <= before.rev) {
            return "3: revisions do not rise";
        }
        if (entry.offset <= before.offset) {
            return "4: offsets do not rise";
        }
        entries->push_back(entry);
        before = entry;
    }
    return ChecksumOf(bytes) == Unsigned32(bytes, kChecksumAt) ? "" : "5: checksum";
}

}  // namespace

i64 NumberAt(const std::string& bytes, std::size_t at, std::size_t size) {
    u64 number = 0;
    for (std::size_t i = size; i > 0; --i) {
        number = number << 8U | static_cast<u8>(bytes.at(at + i - 1));
    }
    return static_cast<i64>(number);
}

void SetNumberAt(std::string& bytes, std::size_t at, std::size_t size, i64 number) {
    for (std::size_t i = 0; i < size; ++i) {
        bytes.at(at + i) = static_cast<char>(static_cast<u64>(number) >> 8U * i);
    }
}

SlowScan ScanSlowly(const std::string& bytes, std::size_t start, SlowLoad load) {
    SlowScan scan;
    scan.refusal = WhyNoHeader(bytes);
    if (scan.IsRefused()) {
        return scan;
    }
    scan.lifenum = Unsigned32(bytes, 12);
    scan.mark = NumberAt(bytes, 16, 8);
    const bool intoMemory = load == SlowLoad::kIntoMemory;
    if (bytes.size() < kFirstItemAt) {
        scan.refusal = "4: no room for items";
        return scan;
    }
    const bool isBeginning = start == 0 || start == kFirstCommitAt || start == kFirstItemAt;
    Walk(bytes, isBeginning ? kFirstCommitAt : start).Run(scan);
    if (scan.validItems == 0) {
        scan.refusal = "5: no commit block; " + scan.stop;
        return scan;
    }
    const i64 firstRev = intoMemory ? 0 : NumberAt(bytes, kFirstCommitAt + 24, 8);
    scan.nextRev = std::max(
        {i64{1}, model::AddHeld(scan.commitRev, 1), model::AddHeld(firstRev, 1), scan.clearRev});
    return scan;
}

model::Records ServedRecords(const std::string& bytes, const SlowScan& scan) {
    model::Records records;
    for (std::size_t i = 0; i < scan.validItems; ++i) {
        const SlowItem& item = scan.items[i];
        if (item.kind == ItemKind::kRecord && item.rev >= scan.clearRev) {
            records[item.rev] = RecordAt(bytes, item);
        }
    }
    return records;
}

model::Record RecordAt(const std::string& bytes, const SlowItem& item) {
    return {Unsigned32(bytes, item.at + 16),
            bytes.substr(item.at + kHeadSize, item.size - kHeadSize)};
}

std::vector<SlowItem> WalkLoosely(const std::string& bytes, std::size_t start) {
    std::vector<SlowItem> items;
    for (std::size_t at = start; Lies(bytes, at, kHeadSize);) {
        const i64 word = NumberAt(bytes, at, 4);
        SlowItem item{ItemKind::kCommit, at, kCommitSize, 0};
        if (word == kRecordWord) {
            const i64 size = NumberAt(bytes, at + 4, 4);
            item = {ItemKind::kRecord, at, static_cast<std::size_t>(size),
                    NumberAt(bytes, at + 8, 8)};
            if (size != NumberAt(bytes, at + 20, 4) + i64{kHeadSize}) {
                return items;
            }
        } else if (word != kCommitWord) {
            return items;
        }
        if (!Lies(bytes, at, item.size)) {
            return items;
        }
        items.push_back(item);
        at += item.size;
    }
    return items;
}

SlowIndex ReadIndexSlowly(const std::string& bytes) {
    SlowIndex index;
    if (bytes.size() < kIndexHeader) {
        index.refusal = "1: no whole header";
    } else if (bytes.compare(0, 12, "K9_EREPL_IDX") != 0 || NumberAt(bytes, 12, 4) != 3) {
        index.refusal = "1: magic or version";
    } else if (static_cast<i64>(bytes.size()) !=
               i64{kIndexHeader} + i64{kEntrySize} * NumberAt(bytes, 16, 4)) {
        index.refusal = "2: length";
    } else {
        index.blockSize = Unsigned32(bytes, 20);
        index.refusal = WhyNoEntries(bytes, &index.entries);
    }
    if (!index.refusal.empty()) {
        index.entries.clear();
    }
    return index;
}

std::string IndexBytes(const std::vector<SlowIndexEntry>& entries, u32 blockSize) {
    std::string bytes = "K9_EREPL_IDX";
    bytes.resize(kIndexHeader + kEntrySize * entries.size());
    SetNumberAt(bytes, 12, 4, 3);
    SetNumberAt(bytes, 16, 4, static_cast<i64>(entries.size()));
    SetNumberAt(bytes, 20, 4, blockSize);
    std::size_t at = kIndexHeader;
    for (const SlowIndexEntry& entry : entries) {
        SetNumberAt(bytes, at, 8, entry.rev);
        SetNumberAt(bytes, at + 8, 8, entry.offset);
        at += kEntrySize;
    }
    MendChecksum(bytes);
    return bytes;
}

void MendChecksum(std::string& bytes) {
    if (bytes.size() >= kIndexHeader) {
        SetNumberAt(bytes, kChecksumAt, 4, ChecksumOf(bytes));
    }
}

}  // namespace k9erepl::reliability
