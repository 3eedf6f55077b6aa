// The family of short transfers: reads and writes that deliver less than asked, or are interrupted,
// one of them or all. What the run leaves must be the bytes of the undisturbed one. A transfer of
// nothing is an error of its own: a system that takes nothing has no room, and a file that gives
// nothing has ended.
#include <k9erepl/storage.h>

#include <algorithm>
#include <array>

#include "reliability/family.h"
#include "reliability/gate_fault.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

enum class Delivery : u8 { kNothing, kOneByte, kHalf, kAllButOne, kInterrupted };
constexpr std::array<const char*, 5> kNames = {"nothing", "one byte", "half", "all but one byte",
                                               "an interruption"};
constexpr u64 kDeliveries = kNames.size();

bool IsTransfer(const Attempt& attempt) {
    return attempt.call == test::SystemCall::kRead || attempt.call == test::SystemCall::kWrite;
}

Permit Deliver(Delivery delivery, u32 size) {
    switch (delivery) {
        case Delivery::kNothing:
            return {{}, 0};
        case Delivery::kOneByte:
            return {{}, 1};
        case Delivery::kHalf:
            return {{}, std::max(size / 2, 1U)};
        case Delivery::kAllButOne:
            return {{}, std::max(size, 2U) - 1};
        case Delivery::kInterrupted:
            break;
    }
    return {test::SystemErrorKind::kInterrupted};
}

// Counts transfers only. Every second interruption is followed by a transfer.
GateFault::Strike Striker(u64* transfers, u64 nth, Delivery delivery) {
    return [=](u64 /*call*/, const Attempt& attempt) -> std::optional<Permit> {
        const bool meets = IsTransfer(attempt) && (++*transfers == nth || nth == 0);
        const bool spared = nth == 0 && delivery == Delivery::kInterrupted && *transfers % 2 == 0;
        return meets && !spared ? std::optional(Deliver(delivery, attempt.size)) : std::nullopt;
    };
}

class Disturbing {
  public:
    Disturbing(MemoryDisk& disk, const TrialPlan& plan, u64 seed)
        : m_disk(disk), m_plan(plan), m_seed(seed) {
        u64 none = 0;
        GateFault fault(disk, [&](u64, const Attempt& attempt) -> std::optional<Permit> {
            none += IsTransfer(attempt) ? 1 : 0;
            return std::nullopt;
        });
        m_undisturbed = RunTrial(disk, plan, fault, seed);
        m_transfers = none;
    }

    const TrialResult& Undisturbed() const { return m_undisturbed; }
    u64 Transfers() const { return m_transfers; }

    // 0 for all of them.
    Problem Disturb(u64 nth, Delivery delivery) const {
        u64 transfers = 0;
        GateFault fault(m_disk, Striker(&transfers, nth, delivery), delivery != Delivery::kNothing);
        const TrialResult result = RunTrial(m_disk, m_plan, fault, m_seed);
        const std::string what =
            (nth == 0 ? std::string("every transfer") : "transfer " + std::to_string(nth)) +
            " delivers " + kNames.at(static_cast<std::size_t>(delivery)) + " (" + fault.Where() +
            "): ";
        if (!result.problem.empty()) {
            return what + result.problem;
        }
        const bool same = BytesOf(result) == BytesOf(m_undisturbed);
        return same || delivery == Delivery::kNothing ? "" : what + "other bytes in the files";
    }

  private:
    // How far the index comes follows from what an asynchronous writer has written by then.
    u64 BytesOf(const TrialResult& result) const {
        return m_plan.async ? result.left.Find(StoragePath())->Hash() : result.left.Hash();
    }

    MemoryDisk& m_disk;
    const TrialPlan m_plan;
    const u64 m_seed;
    TrialResult m_undisturbed;
    u64 m_transfers = 0;
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const TrialPlan plan{.async = run.Number() % 2 == 1,
                         .forceFlush = run.Number() % 3 == 0,
                         .commitBarrier = run.Number() % 6 == 0,
                         .preallocates = false,
                         .moreSettings = ""};
    const Disturbing disturbing(disk, plan, run.Seed());
    run.Case(0, [&] { return disturbing.Undisturbed().problem; });
    for (u64 delivery = 1; delivery < kDeliveries; ++delivery) {
        run.Case(delivery, [&] { return disturbing.Disturb(0, static_cast<Delivery>(delivery)); });
    }
    for (u64 number = 0; number < disturbing.Transfers(); ++number) {
        const auto delivery = static_cast<Delivery>(Mix(run.Seed(), number) % kDeliveries);
        run.Case(kDeliveries + number, [&] { return disturbing.Disturb(number + 1, delivery); });
    }
}

const RegisteredFamily kFamily({.name = "short-transfers",
                                .title = "short transfers and interrupted calls",
                                .cases = 1200,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
