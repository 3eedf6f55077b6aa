// A fault at the gate of a MemoryDisk: one call on a file or a name, or all from one on, end in
// another way than they should. The families of failing calls and short transfers use it.
#ifndef K9EREPL_TESTS_RELIABILITY_GATE_FAULT_H
#define K9EREPL_TESTS_RELIABILITY_GATE_FAULT_H

#include <atomic>
#include <functional>
#include <string>

#include "reliability/fault_trial.h"

namespace k9erepl::reliability {

class GateFault final : public Fault {
  public:
    // Told the number of each call, from 1 on; null strikes never and only counts.
    using Strike = std::function<std::optional<Permit>(u64 number, const Attempt& attempt)>;

    // `invisible`: the library must make up for it.
    GateFault(MemoryDisk& disk, Strike strike, bool invisible = false);
    ~GateFault() override;
    GateFault(const GateFault&) = delete;
    GateFault& operator=(const GateFault&) = delete;

    void Resume() override { m_acts = true; }
    void Suspend() override { m_acts = false; }
    void Heal() override { m_healed = true; }
    bool Struck() const override { return m_struck; }
    bool MayHurtWriter() const override { return m_hurtWriter; }
    bool Explains(Operation operation, u32 code) const override;

    u64 Calls() const { return m_calls; }
    // Of the first call that it struck.
    const std::string& Where() const { return m_where; }

  private:
    Permit Decide(const Attempt& attempt);

    MemoryDisk& m_disk;
    const Strike m_strike;
    const bool m_invisible;
    std::atomic<bool> m_acts{false};
    std::atomic<bool> m_healed{false};
    std::atomic<bool> m_struck{false};
    std::atomic<bool> m_hurtWriter{false};
    u64 m_calls = 0;
    std::string m_where;
};

// The system call as a reader knows it.
const char* NameOf(test::SystemCall call);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_GATE_FAULT_H
