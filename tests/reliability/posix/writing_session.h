// One writer's time with a storage that others want to write, too: it opens, compares everything
// with what all writers have told so far, appends and clears, and closes. The family of two writers
// runs it in threads and in processes, some of which are killed.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_WRITING_SESSION_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_WRITING_SESSION_H

#include <atomic>
#include <string>

#include "model/numbers.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

// What the writers of one storage tell one another, in memory that their processes share. Only who
// has the storage open changes the revisions.
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

struct WritersPlan {
    std::string path;  // of the storage file
    std::string connString;
    u64 seed = 0;          // of the records' data
    bool async = false;    // OnWriteToFile tells what is written, else the commit's answer
    bool squeezes = true;  // some clears are squeezes
};

inline constexpr u32 kWritersMost = 63;
inline constexpr i64 kRecordsOfATransaction = 3;

// Creates the storage of the plan.
Problem CreateForWriters(const WritersPlan& plan);

// Waits until the storage can be opened, compares its content, makes `steps` transactions and
// clears, and closes. `writer` is 1 to kWritersMost, and in use once at a time.
Problem WriteForAWhile(const WritersPlan& plan, WritersBoard& board, u32 writer, u32 steps,
                       model::Random& random);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_WRITING_SESSION_H
