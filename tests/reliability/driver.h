// Random operations on a storage and on a plain model of it, for a History. What a history is made
// of, the script of a process, a trial under faults and a removal are drivers: each says how a call
// is made and judged and what follows it.
#ifndef K9EREPL_TESTS_RELIABILITY_DRIVER_H
#define K9EREPL_TESTS_RELIABILITY_DRIVER_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/model.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

using model::i64;
using model::u32;
using model::u64;
using model::u8;

enum class Operation : u8 {
    kCreate,
    kOpen,
    kLoad,
    kBegin,
    kInsert,
    kCommit,
    kRollback,
    kClear,
    kStartOver,  // truncation, or a clear of everything
    kMark,       // life number or revision mark
    kEnumerate,
    kClose,
    kDelete,
};
const char* NameOf(Operation operation);

class Driver {
  public:
    virtual ~Driver() = default;
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

  protected:
    using Call = std::function<u32()>;

    // Chooses settings of a storage file: small blocks, every cache, flushes by transactions or by
    // data.
    Driver(History& history, u64 seed);

    // Makes the call and asks the model for its answer; judges, and hears what was flushed.
    virtual void Do(Operation operation, const Call& call, const Call& expect) = 0;
    // Behind each operation below but Begin.
    virtual void End(Operation /*operation*/) {}
    // No more operations.
    virtual bool Ended() const { return !m_history.problem.empty(); }
    // A clear, or a truncation, which begins without a flush.
    virtual void BeforeRemoval(bool /*truncates*/) {}

    // Another answer than the expected one is the history's problem.
    void Expect(const char* name, u32 got, u32 expected);
    void CreateAt(const std::string& connString);
    // Opens and loads.
    void OpenAt(const std::string& connString);
    // Up to `recordsMax` records; a rollback once in `rollbackIn` times, never if that is 0.
    void Transaction(u32 recordsMax, u32 rollbackIn = 8);
    void Insert();
    void Clear();
    void ClearBelow(i64 rev, u32 mode);
    void StartOver();
    void Truncate();
    void SetMark();

    // The model hears which flushes the library made; whether there was one.
    bool TellFlushes();

    History& m_history;
    model::Random m_random;
    model::Model m_model;
    u32 m_recordSize = 0;  // bytes of data of every record; 0: they differ
    u32 m_unexpected = 0;  // the first answer that was another
    // Of the last operation of the kind.
    i64 m_insertRev = 0;
    u32 m_clearMode = 0;
    bool m_clearsAll = false;           // nothing is kept
    std::optional<u32> m_setLifenum{};  // or else m_setMark
    i64 m_setMark = 0;

    model::StorageClient m_client;  // last: what it tells while it closes has somewhere to go

  private:
    model::SizeChoice AnySize();
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_DRIVER_H
