// Where the family of two writers plays: a storage in a folder of its own, the board that its
// writers share, and the processes that write.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_WRITERS_SCENE_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_WRITERS_SCENE_H

#include <k9erepl/storage.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "reliability/posix/writing_session.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

using Files = std::map<std::string, std::vector<u8>>;

// The board, in memory that forked processes share.
class SharedBoard {
  public:
    SharedBoard()
        : m_memory(mmap(nullptr, sizeof(WritersBoard), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
        if (m_memory == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
        m_board = new (m_memory) WritersBoard;
    }
    ~SharedBoard() { munmap(m_memory, sizeof(WritersBoard)); }
    SharedBoard(const SharedBoard&) = delete;
    SharedBoard& operator=(const SharedBoard&) = delete;

    WritersBoard& operator*() const { return *m_board; }
    WritersBoard* operator->() const { return m_board; }

  private:
    void* const m_memory;
    WritersBoard* m_board = nullptr;
};

// A storage in a folder of its own, what its writers tell one another, and what is logged.
struct Scene {
    explicit Scene(u64 seed) : random(seed) {
        plan.path = folder.File("shared.edb");
        plan.seed = seed;
        plan.async = random.OneIn(3);
        plan.connString = "file=" + plan.path +
                          ";block_size=" + random.OneOf<const char*>({"300", "2000"}) +
                          ";cache_type=" + random.OneOf<const char*>({"Last1", "AllInMem"}) +
                          ";flush_mode=PerTrans;flush_trans_num=1;flush_timeout=1000000" +
                          ";force_flush=" + (random.OneIn(4) ? "yes" : "no") +
                          ";async_mode=" + (plan.async ? "yes" : "no");
        board->Tell(CreateForWriters(plan));
    }

    Problem Write(u32 writer, u32 steps) {
        return WriteForAWhile(plan, *board, writer, steps, random);
    }
    // What the folder holds.
    Files Everything() const {
        Files files;
        for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
            files[entry.path().filename()] = test::ReadBytes(entry.path());
        }
        return files;
    }
    std::string InUse() const {
        return "Storage file is in use by another writer;file path '" + plan.path + "'";
    }
    // The problem that a writer told, or else that the content is not what all have told.
    Problem End() {
        return board->hasProblem ? std::string(board->problem) : Write(kWritersMost, 2);
    }

    model::Random random;
    const test::TempFolder folder;
    WritersPlan plan;
    const SharedBoard board;
    const test::LogCapture log;
};

inline Problem Expect(const char* what, u32 got, u32 expected) {
    return got == expected ? ""
                           : std::string(what) + " answers " + std::to_string(got) + ", not " +
                                 std::to_string(expected) + "; ";
}

// A process that does `work` and ends with 0; 1 when there was a problem, which the board has.
template <typename Work>
pid_t Start(const Scene& scene, Work work) {
    const pid_t process = fork();
    if (process == 0) {
        const Problem problem = work();
        scene.board->Tell(problem);
        _exit(problem.empty() ? 0 : 1);
    }
    return process;
}

inline bool EndedWell(pid_t process) {
    int status = -1;
    waitpid(process, &status, 0);
    return status == 0;
}

inline void Kill(pid_t process) {
    kill(process, SIGKILL);
    int status = 0;
    waitpid(process, &status, 0);
}

// Whoever is refused is told so by one error, beside those of its callers.
inline Problem OnlyRefusals(const Scene& scene) {
    for (const std::string& text : scene.log.Texts(K9SYS_LOG_ERROR)) {
        if (text != scene.InUse() && !text.starts_with("Failed to init ")) {
            return "logs '" + text + "'";
        }
    }
    return "";
}

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_WRITERS_SCENE_H
