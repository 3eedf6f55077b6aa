// The stopwatches and their report; see the header.
#include "support/timing_set.h"

#include <cassert>
#include <utility>

#include "platform/clock.h"
#include "support/log.h"

namespace k9erepl {

namespace {

constexpr std::size_t kReportRoom = 256;
constexpr const char* kGap = "  ";
constexpr double kTicksPerSecondToMicrosecond = 1e-6;

}  // namespace

TimingSet::TimingSet() {
    m_report.reserve(kReportRoom);
    i64 ticksPerSecond = 0;
    if (!platform::PerformanceFrequency(&ticksPerSecond)) {
        LOG_ERROR(kLogTiming, "QueryPerformanceFrequency() failed");
        return;
    }
    m_ticksPerMicrosecond = static_cast<double>(ticksPerSecond) * kTicksPerSecondToMicrosecond;
}

u32 TimingSet::Register(const char* name) {
    assert(name != nullptr);
    for (std::size_t i = 0; i < m_counters.size(); ++i) {
        if (m_counters[i].name == name) {
            LOG_ERROR(kLogTiming, "Counter '%s' has already registered", name);
            return static_cast<u32>(i);
        }
    }
    // Room for the longest report, so that reporting allocates nothing.
    m_report.reserve((m_counters.size() + 1) * (kTextSize + 2));
    Counter counter;
    counter.name = name;
    m_counters.push_back(std::move(counter));
    return static_cast<u32>(m_counters.size() - 1);
}

void TimingSet::Start(u32 index) {
    assert(index < m_counters.size());
    Counter& counter = m_counters[index];
    if (counter.start != 0) {
        LOG_ERROR(kLogTiming, "Counter '%s' has already started", counter.name.c_str());
        Clear(counter);
    }
    counter.start = platform::PerformanceCounter();
}

void TimingSet::Stop(u32 index) {
    assert(index < m_counters.size());
    Counter& counter = m_counters[index];
    if (counter.start == 0) {
        return;
    }
    counter.total += platform::PerformanceCounter() - counter.start;
    counter.start = 0;
    ++counter.count;
}

void TimingSet::Report() {
    m_report.clear();
    for (Counter& counter : m_counters) {
        Format(counter);
        m_report += counter.text;
        m_report += kGap;
    }
    LOG_INFO(kLogTiming, "%s", m_report.c_str());
    Reset(false);
}

void TimingSet::Reset(bool all) {
    if (all) {
        m_counters.clear();
        return;
    }
    for (Counter& counter : m_counters) {
        Clear(counter);
    }
}

void TimingSet::Clear(Counter& counter) {
    counter.start = 0;
    counter.total = 0;
    counter.count = 0;
}

void TimingSet::Format(Counter& counter) const {
    const double total = static_cast<double>(counter.total) / m_ticksPerMicrosecond;
    const u32 length =
        K9SysSNPrintf(counter.text, kTextSize, "%s: %.2f mcs", counter.name.c_str(), total);
    if (counter.count > 1) {
        (void)K9SysSNPrintf(counter.text + length, kTextSize - length, " (%d x %.2f mcs)",
                            counter.count, total / counter.count);
    }
}

}  // namespace k9erepl
