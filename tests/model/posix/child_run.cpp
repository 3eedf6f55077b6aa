// A run in a process of its own, by fork: the child tells the failure through a pipe and its
// progress through shared memory.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "model/runner.h"
#include "model/seed_run.h"
#include "support/temp_folder.h"

namespace k9erepl::model {

namespace {

using Progress = std::atomic<std::size_t>;

// A number that parent and child share.
class SharedProgress {
  public:
    SharedProgress()
        : m_memory(mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (m_memory == MAP_FAILED) {
            std::perror("mmap");
            std::abort();
        }
        m_progress = new (m_memory) Progress(0);
    }
    ~SharedProgress() { munmap(m_memory, sizeof(Progress)); }
    SharedProgress(const SharedProgress&) = delete;
    SharedProgress& operator=(const SharedProgress&) = delete;

    Progress* Get() const { return m_progress; }

  private:
    void* m_memory;
    Progress* m_progress;
};

void WriteText(int to, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t got = write(to, text.data() + done, text.size() - done);
        if (got <= 0) {
            return;
        }
        done += static_cast<std::size_t>(got);
    }
}

std::string ReadAll(int from) {
    std::string text;
    char part[4096];
    for (ssize_t got = 0; (got = read(from, part, sizeof part)) > 0;) {
        text.append(part, static_cast<std::size_t>(got));
    }
    return text;
}

[[noreturn]] void RunAsChild(const Script& script, const std::string& folder, Progress* progress,
                             int answer) {
    const std::optional<Failure> failure = Runner(folder).Run(script, progress);
    if (failure) {
        *progress = failure->position;
        WriteText(answer, failure->what + "\n" + failure->details);
    }
    // The parent's objects are not the child's to destroy.
    std::_Exit(0);
}

std::optional<Failure> Judge(int status, const std::string& answer, std::size_t position) {
    if (WIFSIGNALED(status)) {
        return Failure{position, "ended by signal " + std::to_string(WTERMSIG(status)), ""};
    }
    if (WEXITSTATUS(status) != 0) {
        return Failure{position, "ended with status " + std::to_string(WEXITSTATUS(status)), ""};
    }
    if (answer.empty()) {
        return std::nullopt;
    }
    const std::size_t split = answer.find('\n');
    return Failure{position, answer.substr(0, split), answer.substr(split + 1)};
}

}  // namespace

std::optional<Failure> RunInChild(const Script& script, u32 secondsMax) {
    const SharedProgress progress;
    const test::TempFolder folder;
    int ends[2];
    if (pipe(ends) != 0) {
        return Failure{0, "no pipe", ""};
    }
    const pid_t child = fork();
    if (child < 0) {
        return Failure{0, "no process", ""};
    }
    if (child == 0) {
        close(ends[0]);
        alarm(secondsMax);
        RunAsChild(script, folder.Path(), progress.Get(), ends[1]);
    }
    close(ends[1]);
    const std::string answer = ReadAll(ends[0]);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return Judge(status, answer, *progress.Get());
}

}  // namespace k9erepl::model
