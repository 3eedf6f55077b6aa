// Counting at the gate, and the codes that the library documents for failed calls; see the header.
#include "reliability/gate_fault.h"

#include <k9erepl/storage.h>

#include <array>

namespace k9erepl::reliability {

GateFault::GateFault(MemoryDisk& disk, Strike strike, bool invisible)
    : m_disk(disk), m_strike(std::move(strike)), m_invisible(invisible) {
    m_disk.SetGate([this](const Attempt& attempt) { return Decide(attempt); });
}

GateFault::~GateFault() {
    m_disk.SetGate(nullptr);
}

// Calls come here one at a time.
Permit GateFault::Decide(const Attempt& attempt) {
    if (!m_acts || m_healed) {
        return {};
    }
    const u64 number = ++m_calls;
    const std::optional<Permit> permit =
        m_strike == nullptr ? std::nullopt : m_strike(number, attempt);
    if (!permit) {
        return {};
    }
    if (!m_struck) {
        m_where = std::string(NameOf(attempt.call)) + " " + attempt.name;
    }
    m_struck = true;
    if (!m_invisible && attempt.name == StoragePath()) {
        m_hurtWriter = true;
    }
    return *permit;
}

bool GateFault::Explains(Operation operation, u32 code) const {
    if (m_invisible) {
        return false;
    }
    switch (operation) {
        case Operation::kLoad:
            return code == RC_SYSTEM_ERROR || code == RC_FILE_CORRUPT || code == RC_SHORT_READ;
        case Operation::kEnumerate:
        case Operation::kClear:
            return code == RC_SYSTEM_ERROR || code == RC_FILE_CORRUPT || code == RC_BAD_DATA;
        default:
            return code == RC_SYSTEM_ERROR;
    }
}

const char* NameOf(test::SystemCall call) {
    static constexpr std::array<const char*, 15> kNames = {
        "open",   "close",      "read",        "write",          "seek",
        "tell",   "set end of", "get size of", "flush",          "own",
        "rename", "link",       "remove",      "make directory", "flush directory"};
    const auto at = static_cast<std::size_t>(call);
    return at < kNames.size() ? kNames.at(at) : "other";
}

}  // namespace k9erepl::reliability
