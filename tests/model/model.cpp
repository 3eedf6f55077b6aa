// The model's operations; see the header.
#include "model/model.h"

#include <k9erepl/storage.h>

#include <algorithm>
#include <cassert>

namespace k9erepl::model {

namespace {

constexpr i64 kLastAssignableRev = kHighestRev - 1;
constexpr u32 kModeMark = 4;
constexpr u32 kModeSqueeze = 1;
constexpr u32 kModeSqueezeWithBackup = 2;

u64 LargestNeed(const Records& records) {
    u64 largest = 0;
    for (const auto& [rev, record] : records) {
        largest = std::max(largest, record.Need());
    }
    return largest;
}

}  // namespace

// --- Life

void Model::Open(const Settings& settings) {
    m_settings = settings;
    m_isOpen = false;
    m_records.clear();
    m_nextRev = 1;
    m_oldest = {};
    m_depth = 0;
    m_lifenum = HasFile() ? m_file.lifenum : 0;
    m_mark = HasFile() ? m_file.mark : 0;
    AllWritten();
    m_flush.Start(settings);
    m_effects = {};
}

u32 Model::Load() {
    m_effects = {};
    if (m_isOpen) {
        return RC_ALREADY;
    }
    if (m_settings.kind == SessionKind::kEmptyMemory) {
        return Truncate();
    }
    if (LargestNeed(m_file.records) > m_settings.blockSize) {
        return RC_INVALID_ARG;
    }
    m_isOpen = true;
    m_records = m_file.records;
    m_oldest = m_file.oldest;
    m_hasDead = m_file.hasDead;
    m_largestInFile = m_file.largestNeed;
    m_beginMoved = m_hasDead ? Expected::kYes : Expected::kNo;
    return RC_OK;
}

bool Model::AdoptNextRev(i64 nextRev) {
    if (m_settings.kind == SessionKind::kEmptyMemory) {
        return nextRev == 1;
    }
    m_nextRev = nextRev;
    m_flushedRev = nextRev - 1;
    m_fileNextRev = {nextRev, nextRev};
    return m_file.nextRev.Hold(nextRev);
}

void Model::BeginClose() {
    m_effects = {};
    if (m_isOpen) {
        ForgetSince(m_depth > 0 ? m_transStartRev : m_nextRev);
        m_effects.written = Written::kAll;
        ExpectFlush(HasFile() ? Expected::kYes : Expected::kNo);
    }
}

void Model::EndClose() {
    m_file = File();
    AllWritten();
    m_isOpen = false;
}

Content Model::File() const {
    if (!HasFile() || !m_isOpen) {
        return m_file;
    }
    Content file;
    file.records.insert(m_records.begin(), m_records.upper_bound(m_flushedRev));
    file.oldest = m_oldest;
    file.nextRev = m_fileNextRev;
    file.lifenum = m_lifenum;
    file.mark = m_mark;
    file.largestNeed = std::max(m_largestInFile, LargestNeed(m_records));
    file.hasDead = m_hasDead;
    return file;
}

std::vector<Content> Model::FileStates(i64 nextRev) const {
    const Content last = File();
    std::vector<Content> states;
    if (last.nextRev.Hold(nextRev)) {
        states.push_back(last);
    }
    const auto holds = [=](const Bounds& queued) { return queued.Hold(nextRev); };
    if (std::any_of(m_queued.begin(), m_queued.end(), holds)) {
        Content earlier = last;
        earlier.nextRev = {nextRev, nextRev};
        earlier.records.erase(earlier.records.lower_bound(nextRev), earlier.records.end());
        states.push_back(earlier);
    }
    return states;
}

Content Model::FileOnceFlushed() const {
    Content file = File();
    if (HasFile() && m_isOpen && file.records.size() < m_records.size()) {
        file.records = m_records;
        file.nextRev = {m_records.rbegin()->first + 1, m_nextRev};
    }
    return file;
}

// --- Transactions

u32 Model::Begin() {
    m_effects = {};
    if (!m_isOpen) {
        return RC_WRONG_STATE;
    }
    if (m_depth++ == 0) {
        m_transStartRev = m_nextRev;
        m_transBytes = 0;
    }
    return RC_OK;
}

u32 Model::Commit() {
    m_effects = {};
    if (!m_isOpen) {
        return RC_WRONG_STATE;
    }
    if (m_depth == 0) {
        return RC_NO_TRANSACTION;
    }
    if (--m_depth == 0) {
        CommitOutermost();
    }
    return RC_OK;
}

void Model::CommitOutermost() {
    if (m_settings.flushBy == FlushBy::kNever) {
        m_effects.flush = Expected::kYes;
        m_effects.flushedRev = {m_nextRev - 1, m_nextRev - 1};
        return;
    }
    ExpectFlush(m_flush.Commit(m_transBytes));
}

u32 Model::Rollback() {
    m_effects = {};
    if (!m_isOpen) {
        return RC_WRONG_STATE;
    }
    if (m_depth == 0) {
        return RC_NO_TRANSACTION_TO_ROLLBACK;
    }
    ForgetSince(m_transStartRev);
    return RC_OK;
}

void Model::ForgetSince(i64 rev) {
    m_depth = 0;
    m_records.erase(m_records.lower_bound(rev), m_records.end());
    m_nextRev = rev;
}

u32 Model::Insert(const Record& record, u64 need, i64* rev) {
    m_effects = {};
    if (!m_isOpen) {
        return RC_WRONG_STATE;
    }
    *rev = m_nextRev;
    return InsertAt(m_nextRev, record, need);
}

u32 Model::InsertPrepared(i64 rev, const Record& record, u64 need) {
    m_effects = {};
    if (!m_isOpen) {
        return RC_WRONG_STATE;
    }
    return rev < m_nextRev ? RC_INVALID_ARG : InsertAt(rev, record, need);
}

u32 Model::InsertAt(i64 rev, const Record& record, u64 need) {
    if (rev > kLastAssignableRev) {
        return RC_INVALID_ARG;
    }
    const bool fits = need <= m_settings.blockSize;
    if (!fits && m_depth == 0) {
        return RC_INVALID_ARG;
    }
    // Inside a transaction the revision is used up either way.
    m_nextRev = rev + 1;
    if (!fits) {
        return RC_INVALID_ARG;
    }
    m_records[rev] = record;
    if (m_depth > 0) {
        m_transBytes += need;
        return RC_OK;
    }
    m_transBytes = need;
    CommitOutermost();
    return RC_OK;
}

// --- Reading

Records::const_iterator Model::FirstIn(i64 from, i64 to) const {
    const auto first = m_records.lower_bound(from);
    return first == m_records.end() || first->first > to ? m_records.end() : first;
}

Bounds Model::FirstRev() const {
    // A block may begin with a revision that was used up without a record, or cleared.
    const i64 highest = m_records.empty() ? m_nextRev - 1 : m_records.begin()->first;
    const i64 lowest = HasFile() ? std::max<i64>(1, std::min(m_oldest.low, highest)) : 1;
    return m_records.empty() ? Bounds{1, std::max<i64>(1, highest)} : Bounds{lowest, highest};
}

// --- Removing

u32 Model::Clear(i64 rev, u32 mode) {
    m_effects = {};
    if (!m_isOpen) {
        return RC_WRONG_STATE;
    }
    if (m_depth > 0) {
        return RC_IN_TRANSACTION;
    }
    if (mode == kModeMark) {
        m_mark = rev;
        m_effects.written = Written::kAll;
        return RC_OK;
    }
    const bool squeezes = HasFile() && (mode == kModeSqueeze || mode == kModeSqueezeWithBackup);
    const Expected finishes = squeezes ? m_beginMoved : Expected::kNo;
    const i64 clearRev = finishes == Expected::kYes ? std::max(rev, m_oldest.high) : rev;
    if (rev <= m_oldest.low && finishes == Expected::kNo) {
        return RC_OK;
    }
    if (m_records.lower_bound(clearRev) == m_records.end()) {
        ClearEverything(clearRev);
        return RC_OK;
    }
    // A revision without a record may be cleared already, which nothing shows.
    const bool sure = clearRev > m_oldest.high || finishes == Expected::kYes;
    ClearBelow(clearRev, sure ? Expected::kYes : Expected::kMaybe);
    if (squeezes) {
        Squeeze(mode == kModeSqueezeWithBackup, sure);
    }
    return RC_OK;
}

// No record stays. The next revision does.
void Model::ClearEverything(i64 clearRev) {
    m_flush.LoseCount();
    if (m_records.empty()) {
        // There may be nothing to do at all, or there may be revisions without records to forget.
        m_oldest.high = m_nextRev - 1;
        m_fileNextRev.high = m_nextRev;
        return;
    }
    if (clearRev < m_nextRev) {
        // To be seen in the file only once everything is in it.
        ExpectFlush(HasFile() ? Expected::kMaybe : Expected::kNo);
    }
    m_effects.written = Written::kStartOver;
    m_records.clear();
    m_oldest = {m_nextRev - 1, m_nextRev - 1};
    m_flushedRev = m_nextRev - 1;
    m_fileNextRev = {m_nextRev, m_nextRev};
    m_largestInFile = 0;
    m_hasDead = false;
    m_beginMoved = Expected::kNo;
}

void Model::ClearBelow(i64 clearRev, Expected happens) {
    const auto firstKept = m_records.lower_bound(clearRev);
    const bool removes = firstKept != m_records.begin();
    assert(happens == Expected::kYes || !removes);
    if (HasFile()) {
        ExpectFlush(happens);
        m_largestInFile = std::max(m_largestInFile, LargestNeed(m_records));
        m_hasDead = m_hasDead || removes;
        m_beginMoved = happens;
    }
    m_records.erase(m_records.begin(), firstKept);
    if (happens == Expected::kYes) {
        m_effects.written = Written::kAll;
        m_flush.Flushed();
        m_oldest = {clearRev, clearRev};
    } else {
        m_flush.LoseCount();
        m_oldest.low = std::min(clearRev, m_oldest.low);
    }
}

// What is only cleared so far leaves the file.
void Model::Squeeze(bool keepsBackup, bool sure) {
    if (keepsBackup) {
        m_effects.backup = sure ? Expected::kYes : Expected::kMaybe;
    }
    if (sure) {
        m_largestInFile = LargestNeed(m_records);
        m_hasDead = false;
        m_beginMoved = Expected::kNo;
    }
}

u32 Model::Truncate() {
    m_effects = {};
    if (m_depth > 0) {
        return RC_IN_TRANSACTION;
    }
    m_effects.written = Written::kStartOver;
    m_isOpen = true;
    m_records.clear();
    m_nextRev = 1;
    m_oldest = {};
    m_lifenum = 0;
    m_mark = 0;
    m_flushedRev = 0;
    m_fileNextRev = {1, 1};
    m_largestInFile = 0;
    m_hasDead = false;
    m_beginMoved = Expected::kNo;
    m_flush.Flushed();
    return RC_OK;
}

// --- Marks and flushes

void Model::SetLifenum(u32 lifenum) {
    m_effects = {};
    m_effects.written = Written::kAll;
    m_lifenum = lifenum;
    if (HasFile() && !m_isOpen) {
        m_file.lifenum = lifenum;
    }
}

i64 Model::LastCommittable() const {
    return (m_depth > 0 ? m_transStartRev : m_nextRev) - 1;
}

// OnFlush comes only when a record is to be written.
void Model::ExpectFlush(Expected flush) {
    const i64 last = LastCommittable();
    const auto behind = m_records.upper_bound(last);
    const bool nothingNew = behind == m_records.begin() || std::prev(behind)->first <= m_flushedRev;
    if (flush == Expected::kNo || nothingNew) {
        return;
    }
    m_effects.flush = flush;
    m_effects.flushedRev = {std::prev(behind)->first, last};
}

void Model::Flushed(i64 rev) {
    if (HasFile() && rev > m_flushedRev) {
        if (m_settings.WritesAsync()) {
            m_queued.push_back(m_fileNextRev);
        }
        m_flushedRev = rev;
        m_fileNextRev = {rev + 1, rev + 1};
    }
}

// --- The counters of the flush modes

void FlushModel::Start(const Settings& settings) {
    m_by = settings.flushBy;
    m_threshold = settings.flushThreshold;
    Flushed();
}

void FlushModel::Flushed() {
    m_most = 0;
    m_least = 0;
}

void FlushModel::LoseCount() {
    m_least = 0;
}

bool FlushModel::Reached(u64 count) const {
    if (count == 0) {
        return false;
    }
    if (m_by == FlushBy::kTransactions) {
        // As an unsigned number: a negative one is never reached.
        return count >= static_cast<u32>(m_threshold);
    }
    return static_cast<i64>(count) >= m_threshold;
}

Expected FlushModel::Commit(u64 bytes) {
    if (m_by == FlushBy::kNever) {
        return Expected::kNo;
    }
    const u64 counted = m_by == FlushBy::kTransactions ? 1 : bytes;
    m_most += counted;
    m_least += counted;
    if (Reached(m_least)) {
        Flushed();
        return Expected::kYes;
    }
    if (Reached(m_most)) {
        LoseCount();
        return Expected::kMaybe;
    }
    return Expected::kNo;
}

}  // namespace k9erepl::model
