// Several writers of one storage: what they tell one another, one writer's time with the storage,
// and the scene in which the family of two writers runs them in threads and in processes, some of
// which are killed.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_WRITING_SESSION_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_WRITING_SESSION_H

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "reliability/posix/kinds.h"
#include "support/log_capture.h"
#include "support/posix/forked.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

// In memory that the processes share. Only who has the storage open changes the revisions.
struct WritersBoard {
    std::atomic<u32> owner{0};       // the writer that has the storage open; 0: none, or unknown
    std::atomic<u64> killed{0};      // by bits, the writers that were, or are about to be, killed
    std::atomic<i64> begun{0};       // the last revision that was handed to a commit
    std::atomic<i64> written{0};     // the last one that the library told to be written
    std::atomic<i64> clearBegun{0};  // the highest revision that a clear was asked for
    std::atomic<i64> cleared{0};     // and the highest that it has answered
    std::atomic<u32> refused{0};     // openings that another writer kept away
    std::atomic<u32> operations{0};  // of all writers
    std::atomic<u32> squeezes{0};
    char problem[400] = {};  // of the first writer that met one
    std::atomic<bool> hasProblem{false};

    void Tell(const Problem& text);
};

inline constexpr u32 kWritersMost = 63;

// A storage in a folder of its own, what its writers tell one another, and what is logged.
class Scene {
  public:
    using Files = std::map<std::string, std::vector<u8>>;

    explicit Scene(u64 seed);

    // Waits until the storage can be opened, compares everything with what all writers have told so
    // far, makes `steps` transactions and clears, and closes. `writer` is 1 to kWritersMost, and in
    // use once at a time.
    Problem Write(u32 writer, u32 steps, model::Random& dice);
    Problem Write(u32 writer, u32 steps) { return Write(writer, steps, random); }
    // A process that does `work`. Answers 0; 1 when there was a problem, which the board has.
    template <typename Work>
    pid_t Start(Work work) const {
        return test::StartForked([&] {
            const Problem problem = work();
            board->Tell(problem);
            return problem.empty() ? 0 : 1;
        });
    }
    void Count(GroupRun& run) const {
        run.Count("refused", board->refused);
        run.Count("squeezes", board->squeezes);
        run.Count("transactions and clears", board->operations);
    }
    // What the folder holds.
    Files Everything() const;
    std::string InUse() const {
        return "Storage file is in use by another writer;file path '" + path + "'";
    }
    // Whoever is refused is told so by one error, beside those of its callers.
    Problem OnlyRefusals() const;
    // The problem that a writer told, or else that the content is not what all have told.
    Problem End() {
        return board->hasProblem ? std::string(board->problem) : Write(kWritersMost, 2);
    }

    model::Random random;
    const test::TempFolder folder;
    const std::string path;  // of the storage file
    const u64 dataSeed;      // of the records
    const bool async;        // OnWriteToFile tells what is written, else the commit's answer
    const std::string connString;
    const test::Shared<WritersBoard> board;
    const test::LogCapture log;
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_WRITING_SESSION_H
