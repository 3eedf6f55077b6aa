// Several threads that use one storage as hard as they can, and a book of what they committed. Used
// by the test of threads, which is meant for ThreadSanitizer, and by the family of threads in
// tests/reliability.
#ifndef K9EREPL_TESTS_MODEL_WORKOUT_H
#define K9EREPL_TESTS_MODEL_WORKOUT_H

#include <k9erepl/storage.h>

#include <atomic>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "model/numbers.h"

namespace k9erepl::model {

// How many threads of each kind.
struct Crew {
    u32 clients = 3;    // insert, commit, roll back; now and then clear
    u32 readers = 2;    // enumerate
    u32 clearers = 0;   // do nothing but clear
    u32 idlers = 0;     // flush as a host's idle loop does
    bool async = true;  // the storage has the asynchronous writer, with a thread of its own
};

// What clients do is chosen at random; when, by the machine.
class Workout {
  public:
    // The storage file at `path` must exist.
    explicit Workout(const std::string& path, const Crew& crew = {}) : m_path(path), m_crew(crew) {}

    // Opens the storage, lets the threads work until each but the idlers has done `steps` things,
    // chosen by `seed`, closes it. Each round has settings of its own. Ends early at the first
    // problem.
    void Round(u32 number, u32 steps, u64 seed);
    // Opens the storage again and compares it with the book; and once more, which must show the
    // same next and oldest revision; adds to it and compares again.
    void Compare();
    // The first thing that was not as it should be; empty: there was none.
    std::string Problem() const;

    // What the rounds were about did happen.
    u64 Committed() const { return m_committed; }
    u64 Cleared() const { return m_cleared; }
    u64 RolledBack() const { return m_rolledBack; }
    u64 Enumerated() const { return m_enumerated; }
    u64 Written() const { return m_written; }
    u64 Idled() const { return m_idled; }

  private:
    using Entries = std::vector<std::pair<i64, u32>>;  // revision, user word
    using Step = void (Workout::*)(Random& random);
    // What a storage says of itself.
    struct Marks {
        i64 nextRev = 0;
        i64 firstRev = 0;

        bool operator==(const Marks&) const = default;
    };

    std::string ConnString(u32 number) const;
    void Open(const std::string& connString);
    void Close();
    Marks CompareOnce(bool adds);
    void Start(u64 seed, u64 steps);
    void Join();
    void Work(Step step, u64 steps, u64 seed);

    void StepAsClient(Random& random);
    void StepAsReader(Random& random);
    void StepAsIdler(Random& random);
    void InsertAlone(Random& random);
    void Transact(Random& random);
    void Clear(Random& random);
    void Enumerate(Random& random);

    Entries Insert(Random& random, u32 count);
    void Enter(const Entries& entries);
    void EraseBelow(i64 rev);

    void Expect(bool holds, const char* what);
    void ExpectOk(u32 rc, const char* what);
    void Report(const std::string& problem);
    bool HasProblem() const { return m_hasProblem; }

    static void K9EREPL_CALL OnFlush(i64 lastRev, void* workout);
    static void K9EREPL_CALL OnWritten(i64 lastRev, void* workout);

    const std::string m_path;
    const Crew m_crew;
    void* m_handle = nullptr;
    std::vector<std::thread> m_threads;
    std::atomic<bool> m_stop{false};
    // The storage has one transaction at a time: held alone by whoever needs one of several calls
    // or none at all, together by those who insert by single calls.
    std::shared_mutex m_transaction;

    std::mutex m_bookLock;
    std::map<i64, u32> m_book;  // user word of each committed record that was not cleared

    std::atomic<bool> m_hasProblem{false};
    mutable std::mutex m_problemLock;
    std::string m_problem;

    std::atomic<i64> m_flushedRev{0};
    std::atomic<i64> m_writtenRev{0};
    std::atomic<u64> m_committed{0};
    std::atomic<u64> m_cleared{0};
    std::atomic<u64> m_rolledBack{0};
    std::atomic<u64> m_enumerated{0};
    std::atomic<u64> m_written{0};
    std::atomic<u64> m_idled{0};
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_WORKOUT_H
