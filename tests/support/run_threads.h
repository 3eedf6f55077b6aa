// The same body on several threads at once. For tests of what many threads may call.
#ifndef K9EREPL_TESTS_SUPPORT_RUN_THREADS_H
#define K9EREPL_TESTS_SUPPORT_RUN_THREADS_H

#include <cstddef>
#include <thread>
#include <vector>

namespace k9erepl::test {

// Runs `body(number)` with the numbers from 0 on `count` threads and waits for all of them.
template <typename Body>
void RunThreads(int count, Body body) {
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(count));
    for (int number = 0; number < count; ++number) {
        threads.emplace_back(body, number);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_RUN_THREADS_H
