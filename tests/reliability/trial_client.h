// A handle of the library, used so that no call of it makes this client allocate memory: what it
// hears and hands in lies in place. The trials use it, also under allocations that fail.
#ifndef K9EREPL_TESTS_RELIABILITY_TRIAL_CLIENT_H
#define K9EREPL_TESTS_RELIABILITY_TRIAL_CLIENT_H

#include <k9erepl/storage.h>

#include <array>
#include <string>
#include <vector>

#include "engine/storage_fixture.h"
#include "model/choices.h"

namespace k9erepl::reliability {

class TrialClient {
  public:
    TrialClient() = default;
    ~TrialClient() { Close(); }
    TrialClient(const TrialClient&) = delete;
    TrialClient& operator=(const TrialClient&) = delete;

    u32 Open(const char* connStr);
    u32 Close();
    bool HasHandle() const { return m_handle != nullptr; }

    // REQUIRES for all that follow: there is a handle.
    void* Handle() const { return m_handle; }
    StorageState State() const;
    i64 NextRev() const;

    // Makes the next record to insert.
    void Prepare(const model::PlannedRecord& planned);
    // A null `rev` takes the next one.
    u32 Insert(const i64* rev);
    // Enumerates everything. *differs tells whether the records were others than `expected`, from
    // its first one on; all of them, when the result is RC_OK.
    u32 Enumerate(const model::Records& expected, bool* differs) const;

    // The revisions that OnFlush told since the last call.
    std::vector<i64> TakeFlushed();

  private:
    static void K9EREPL_CALL OnFlush(i64 lastRev, void* context);

    void* m_handle = nullptr;
    std::array<i64, 64> m_flushed{};
    std::size_t m_flushedCount = 0;
    std::vector<u64> m_buffer;  // the record to hand in
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_TRIAL_CLIENT_H
