// The storage as a client sees it, in the plainest form: a map of records and a few integers. The
// runner asks it what the library must answer. Written from the public interface alone.
#ifndef K9EREPL_TESTS_MODEL_MODEL_H
#define K9EREPL_TESTS_MODEL_MODEL_H

#include <vector>

#include "model/content.h"
#include "model/settings.h"

namespace k9erepl::model {

// Whether something happens during an operation.
enum class Expected : u8 { kNo, kMaybe, kYes };

// The time-out is out of reach, so that a flush comes by count alone.
class FlushModel {
  public:
    void Start(const Settings& settings);
    // A transaction with `bytes` of records was committed; tells whether the storage flushes.
    Expected Commit(u64 bytes);
    // The storage flushed for another reason.
    void Flushed();
    // What was counted so far may be forgotten or not.
    void LoseCount();

  private:
    bool Reached(u64 count) const;

    FlushBy m_by = FlushBy::kNever;
    i64 m_threshold = 0;
    u64 m_most = 0;   // what the storage has counted since its last flush, at most
    u64 m_least = 0;  // and at least
};

// What is certain about the storage file when an operation returns.
enum class Written : u8 {
    kSoFar,      // what its writer has come to
    kAll,        // everything that was flushed
    kStartOver,  // the same, and what was told of it before means nothing any more
};

// What an operation does besides its result, as far as a client can notice.
struct Effects {
    Expected flush = Expected::kNo;   // OnFlush comes, once
    Bounds flushedRev;                // with this revision
    Expected backup = Expected::kNo;  // the file as it was is kept as a backup
    Written written = Written::kSoFar;
};

// Every operation returns the library's result code for it and sets LastEffects.
class Model {
  public:
    // --- Life
    void Open(const Settings& settings);
    u32 Load();
    // After a Load that answered RC_OK: the next revision that the library says it has. False when
    // the file cannot mean it.
    bool AdoptNextRev(i64 nextRev);
    // The last reference goes. Between the two the last flush comes, if there is one.
    void BeginClose();
    void EndClose();
    // The storage file is made anew. REQUIRES: the storage is closed.
    void CreateAnew() { m_file = Content{}; }

    // --- Transactions
    u32 Begin();
    u32 Commit();
    u32 Rollback();
    // *rev receives the revision when the record is taken.
    u32 Insert(const Record& record, u64 need, i64* rev);
    u32 InsertPrepared(i64 rev, const Record& record, u64 need);

    // --- Reading
    // The first record that an enumeration of [from, to] delivers, Served().end() if none.
    Records::const_iterator FirstIn(i64 from, i64 to) const;
    const Records& Served() const { return m_records; }

    // --- Removing
    u32 Clear(i64 rev, u32 mode);
    u32 ClearAll(u32 mode) { return Clear(NextRev(), mode); }
    u32 Truncate();

    // --- Marks and what else is to be seen
    void SetLifenum(u32 lifenum);
    u32 Lifenum() const { return m_lifenum; }
    i64 Mark() const { return m_mark; }
    i64 NextRev() const { return m_nextRev; }
    i64 Oldest() const { return m_oldest.low; }
    bool IsOpen() const { return m_isOpen; }
    bool InTransaction() const { return m_depth > 0; }
    const Settings& CurrentSettings() const { return m_settings; }
    // What the first revision of the oldest block may be.
    Bounds FirstRev() const;

    // OnFlush came with `rev`, as the effects allow.
    void Flushed(i64 rev);
    const Effects& LastEffects() const { return m_effects; }
    // The last operation's flush has been looked for.
    void ForgetFlush() {
        m_effects.flush = Expected::kNo;
        m_effects.written = Written::kSoFar;
    }
    i64 FlushedRev() const { return m_flushedRev; }
    bool WritesFile() const { return HasFile() && m_isOpen; }

    // What the storage file holds at this moment, as one would find it after a crash; with an
    // asynchronous writer, as soon as that has written everything.
    Content File() const;
    // What it may hold meanwhile, when a load finds `nextRev`.
    std::vector<Content> FileStates(i64 nextRev) const;
    void AllWritten() { m_queued.clear(); }
    // The same once everything that is committed is in it. REQUIRES: not InTransaction.
    Content FileOnceFlushed() const;

  private:
    bool HasFile() const { return m_settings.kind == SessionKind::kFile; }
    u32 InsertAt(i64 rev, const Record& record, u64 need);
    void CommitOutermost();
    void ForgetSince(i64 rev);
    void ClearEverything(i64 clearRev);
    void ClearBelow(i64 clearRev, Expected happens);
    void Squeeze(bool keepsBackup, bool sure);
    void ExpectFlush(Expected flush);
    i64 LastCommittable() const;

    Settings m_settings;
    bool m_isOpen = false;
    Records m_records;
    i64 m_nextRev = 1;
    Bounds m_oldest;
    i64 m_mark = 0;
    u32 m_lifenum = 0;

    u32 m_depth = 0;
    i64 m_transStartRev = 0;
    u64 m_transBytes = 0;

    // The storage file: as it was when it was last closed or, while it is open and loaded, only
    // the values that do not follow from the rest.
    Content m_file;
    i64 m_flushedRev = 0;  // records up to here are in the file
    Bounds m_fileNextRev;  // what a load would make the next revision
    u64 m_largestInFile = 0;
    bool m_hasDead = false;                 // the file holds records that are no longer served
    Expected m_beginMoved = Expected::kNo;  // a squeeze may have something to remove

    // What a load of the file would make the next revision before an asynchronous writer has come
    // to the last flushes. A clear that does something waits for it.
    std::vector<Bounds> m_queued;

    FlushModel m_flush;
    Effects m_effects;
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_MODEL_H
