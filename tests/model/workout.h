// Several threads that use one storage as hard as they can, and a book of what they committed. Used
// by the test of threads, which is meant for ThreadSanitizer.
#ifndef K9EREPL_TESTS_MODEL_WORKOUT_H
#define K9EREPL_TESTS_MODEL_WORKOUT_H

#include <k9erepl/storage.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "model/numbers.h"

namespace k9erepl::model {

// What clients do is chosen at random; when, by the machine. Failures are reported as they occur.
class Workout {
  public:
    // The storage file at `path` must exist.
    explicit Workout(const std::string& path) : m_path(path) {}

    // Opens the storage, lets the threads work for `time`, closes it. Each round has settings of
    // its own.
    void Round(u32 number, std::chrono::milliseconds time);
    // Opens the storage again and compares it with the book.
    void Compare();

    // What the rounds were about did happen.
    u64 Committed() const { return m_committed; }
    u64 Cleared() const { return m_cleared; }
    u64 RolledBack() const { return m_rolledBack; }
    u64 Enumerated() const { return m_enumerated; }
    u64 Written() const { return m_written; }

  private:
    using Entries = std::vector<std::pair<i64, u32>>;  // revision, user word

    std::string ConnString(u32 number) const;
    void Open(const std::string& connString);
    void Close();

    void WorkAsClient(u64 seed);
    void WorkAsReader(u64 seed);
    void InsertAlone(Random& random);
    void Transact(Random& random);
    void Clear(Random& random);
    void Enumerate(Random& random);

    Entries Insert(Random& random, u32 count);
    void Enter(const Entries& entries);
    void EraseBelow(i64 rev);

    static void K9EREPL_CALL OnFlush(i64 lastRev, void* workout);
    static void K9EREPL_CALL OnWritten(i64 lastRev, void* workout);

    const std::string m_path;
    void* m_handle = nullptr;
    std::atomic<bool> m_stop{false};
    // The storage has one transaction at a time: held alone by whoever needs one of several calls
    // or none at all, together by those who insert by single calls.
    std::shared_mutex m_transaction;

    std::mutex m_bookLock;
    std::map<i64, u32> m_book;  // user word of each committed record that was not cleared

    std::atomic<i64> m_flushedRev{0};
    std::atomic<i64> m_writtenRev{0};
    std::atomic<u64> m_committed{0};
    std::atomic<u64> m_cleared{0};
    std::atomic<u64> m_rolledBack{0};
    std::atomic<u64> m_enumerated{0};
    std::atomic<u64> m_written{0};
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_WORKOUT_H
