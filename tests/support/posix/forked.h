// Child processes by fork, and memory that they share with their parent. Used by the long runs of
// the model and by the families of tests/reliability that need processes.
#ifndef K9EREPL_TESTS_SUPPORT_POSIX_FORKED_H
#define K9EREPL_TESTS_SUPPORT_POSIX_FORKED_H

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>
#include <system_error>

namespace k9erepl::test {

// An object in memory that child processes share. It is never destroyed, only unmapped.
template <typename T>
class Shared {
  public:
    Shared()
        : m_memory(
              mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (m_memory == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
        m_object = new (m_memory) T{};
    }
    ~Shared() { munmap(m_memory, sizeof(T)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    T& operator*() const { return *m_object; }
    T* operator->() const { return m_object; }

  private:
    void* const m_memory;
    T* m_object = nullptr;
};

// A child that does `work` and ends with its answer, of one byte. Nothing of the parent's is
// destroyed in it. Throws when the system refuses.
template <typename Work>
pid_t StartForked(Work work) {
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        _exit(static_cast<int>(work()));
    }
    return child;
}

// Waits for the child's end. Its answer, or the negative number of the signal that ended it.
inline int AnswerOf(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

inline void KillForked(pid_t child) {
    kill(child, SIGKILL);
    (void)AnswerOf(child);
}

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_POSIX_FORKED_H
