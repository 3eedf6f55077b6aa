// Events of our own, so that it is known who waits; see the header.
#include "reliability/steady_calls.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace k9erepl::reliability {

namespace {

using platform::WaitResult;

constexpr u32 kForeverMs = 1'000'000'000;  // nothing waits that long and means it

struct Event {
    bool isSet = false;
    u32 waiting = 0;  // threads of the library's
};

// One lock for all: there are few events.
struct World {
    std::mutex mutex;
    std::condition_variable changed;
    u32 threads = 0;  // of the library's, alive
    u32 idle = 0;     // of these, waiting for an event that is not set
    bool held = false;
};
World g_world;
std::atomic<u64> g_stamp{1};
thread_local bool t_isTheLibrarys = false;

struct Start {
    platform::ThreadBody body;
    void* argument;
};

void* CreateEvent() {
    return new (std::nothrow) Event;
}

void DestroyEvent(void* event) {
    delete static_cast<Event*>(event);
}

bool SetEvent(void* event) {
    const std::lock_guard lock(g_world.mutex);
    auto& target = *static_cast<Event*>(event);
    if (!target.isSet) {
        target.isSet = true;
        g_world.idle -= target.waiting;
        target.waiting = 0;
    }
    g_world.changed.notify_all();
    return true;
}

WaitResult WaitEvent(void* event, u32 timeoutMs) {
    std::unique_lock lock(g_world.mutex);
    auto& source = *static_cast<Event*>(event);
    const auto isSet = [&] { return source.isSet && !(t_isTheLibrarys && g_world.held); };
    if (!source.isSet && t_isTheLibrarys) {
        ++source.waiting;
        ++g_world.idle;
        g_world.changed.notify_all();
    }
    if (timeoutMs >= kForeverMs) {
        g_world.changed.wait(lock, isSet);
    } else if (!g_world.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), isSet)) {
        if (t_isTheLibrarys && source.waiting > 0) {
            --source.waiting;
            --g_world.idle;
        }
        return WaitResult::kTimedOut;
    }
    source.isSet = false;
    return WaitResult::kSignalled;
}

// The thread is gone for Settle when its body has ended.
u32 Run(void* argument) {
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    t_isTheLibrarys = true;
    struct Leaver {
        Leaver() = default;
        Leaver(const Leaver&) = delete;
        Leaver& operator=(const Leaver&) = delete;
        ~Leaver() {
            const std::lock_guard lock(g_world.mutex);
            --g_world.threads;
            g_world.changed.notify_all();
        }
    } const leaver;
    return start->body(start->argument);
}

void* CreateThread(platform::ThreadBody body, void* argument) {
    auto start = std::make_unique<Start>(Start{body, argument});
    {
        const std::lock_guard lock(g_world.mutex);
        ++g_world.threads;
    }
    void* const thread = platform::NativeSystemCalls().createThread(&Run, start.get());
    if (thread == nullptr) {
        const std::lock_guard lock(g_world.mutex);
        --g_world.threads;
        return nullptr;
    }
    (void)start.release();
    return thread;
}

}  // namespace

SteadyCalls::SteadyCalls() {
    platform::SystemCalls& calls = platform::TheSystemCalls();
    calls.createEvent = &CreateEvent;
    calls.destroyEvent = &DestroyEvent;
    calls.setEvent = &SetEvent;
    calls.waitEvent = &WaitEvent;
    calls.createThread = &CreateThread;
    calls.tickCount = [] { return u32{1000}; };
    calls.coarseTickCount = calls.tickCount;
    calls.timeStampCounter = [] { return g_stamp.fetch_add(1); };
}

void SteadyCalls::SetStamp(u32 first) {
    g_stamp = first;
}

void SteadyCalls::Hold() {
    const std::lock_guard lock(g_world.mutex);
    g_world.held = true;
}

void SteadyCalls::Release() {
    const std::lock_guard lock(g_world.mutex);
    g_world.held = false;
    g_world.changed.notify_all();
}

void SteadyCalls::Settle() {
    std::unique_lock lock(g_world.mutex);
    g_world.changed.wait(lock, [] { return g_world.idle == g_world.threads; });
}

}  // namespace k9erepl::reliability
