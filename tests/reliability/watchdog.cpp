// Signals and a clock; see the header.
#include "reliability/watchdog.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace k9erepl::reliability {

namespace {

constexpr std::chrono::seconds kLongest{120};
constexpr std::array kFatal = {SIGSEGV, SIGABRT, SIGFPE, SIGILL};

// A handler may look at nothing else.
std::array<char, 400> g_command{};

[[noreturn]] void Tell(const char* what) {
    (void)std::fprintf(stderr, "\n%s in:\n  %s\n", what, g_command.data());
    (void)std::fflush(stderr);
    std::_Exit(3);
}

extern "C" void OnSignal(int /*number*/) {
    Tell("CRASHED");
}

}  // namespace

Watchdog::Watchdog() : m_thread([this] { Watch(); }) {
    for (const int number : kFatal) {
        (void)std::signal(number, &OnSignal);
    }
}

Watchdog::~Watchdog() {
    {
        const std::lock_guard lock(m_mutex);
        m_end = true;
    }
    m_ended.notify_all();
    m_thread.join();
    for (const int number : kFatal) {
        (void)std::signal(number, SIG_DFL);
    }
}

void Watchdog::Running(const std::string& command) {
    std::strncpy(g_command.data(), command.c_str(), g_command.size() - 1);
    ++m_case;
}

void Watchdog::Watch() {
    std::unique_lock lock(m_mutex);
    unsigned before = m_case;
    while (!m_ended.wait_for(lock, kLongest, [this] { return m_end; })) {
        if (m_case == before) {
            Tell("HANGS");
        }
        before = m_case;
    }
}

}  // namespace k9erepl::reliability
