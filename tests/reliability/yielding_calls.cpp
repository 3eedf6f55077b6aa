// The table's entries, wrapped; see the header.
#include "reliability/yielding_calls.h"

#include <atomic>
#include <cassert>
#include <thread>

#include "reliability/disk_image.h"

namespace k9erepl::reliability {

namespace {

using platform::SystemCalls;

constexpr u32 kTurnsMax = 4;  // given away at once

SystemCalls g_saved;
bool g_begun = false;
u64 g_seed = 0;
u64 g_oneIn = 1;
// Relaxed: they must not order what the threads do.
std::atomic<u64> g_calls{0};
std::atomic<u64> g_yields{0};

void MayYield() {
    const u64 drawn = Mix(g_seed, g_calls.fetch_add(1, std::memory_order_relaxed));
    if (drawn % g_oneIn != 0) {
        return;
    }
    g_yields.fetch_add(1, std::memory_order_relaxed);
    for (u64 left = 1 + (drawn >> 32U) % kTurnsMax; left > 0; --left) {
        std::this_thread::yield();
    }
}

// Behind a call, too, however it ends.
struct YieldAtEnd {
    YieldAtEnd() = default;
    YieldAtEnd(const YieldAtEnd&) = delete;
    YieldAtEnd& operator=(const YieldAtEnd&) = delete;
    ~YieldAtEnd() { MayYield(); }
};

template <auto kEntry, typename Result, typename... Arguments>
void WrapEntry(Result (*SystemCalls::* /*entry*/)(Arguments...)) {
    platform::TheSystemCalls().*kEntry = [](Arguments... arguments) -> Result {
        MayYield();
        const YieldAtEnd atEnd;
        return (g_saved.*kEntry)(arguments...);
    };
}

template <auto... kEntries>
void Wrap() {
    (WrapEntry<kEntries>(kEntries), ...);
}

}  // namespace

YieldingCalls::YieldingCalls(u64 seed) {
    assert(!g_begun);
    g_begun = true;
    g_saved = platform::TheSystemCalls();
    g_seed = seed;
    g_oneIn = u64{1} << Mix(seed, 0) % 5;
    using Calls = SystemCalls;
    Wrap<&Calls::openFile, &Calls::closeFile, &Calls::readFile, &Calls::writeFile, &Calls::seekFile,
         &Calls::tellFile, &Calls::setFileEnd, &Calls::fileSize, &Calls::flushFile,
         &Calls::startFlush, &Calls::takeOwnerAndMode>();
    Wrap<&Calls::renameFile, &Calls::linkFile, &Calls::removeFile, &Calls::makeDirectory,
         &Calls::flushDirectory>();
    Wrap<&Calls::allocMemory, &Calls::freeMemory, &Calls::createEvent, &Calls::destroyEvent,
         &Calls::setEvent, &Calls::waitEvent>();
    Wrap<&Calls::createThread, &Calls::setThreadAffinity, &Calls::resumeThread, &Calls::joinThread,
         &Calls::terminateThread, &Calls::destroyThread>();
}

YieldingCalls::~YieldingCalls() {
    platform::TheSystemCalls() = g_saved;
    g_begun = false;
}

u64 YieldingCalls::Yields() {
    return g_yields;
}

}  // namespace k9erepl::reliability
