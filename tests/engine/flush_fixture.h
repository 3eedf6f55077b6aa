// What the tests of transactions and flushing add to the vocabulary: settings that say when to
// flush, the items of a storage file in words, callbacks that a test writes as functions.
#ifndef K9EREPL_TESTS_ENGINE_FLUSH_FIXTURE_H
#define K9EREPL_TESTS_ENGINE_FLUSH_FIXTURE_H

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "engine/storage_fixture.h"

namespace k9erepl::test {

// Flushes at every commit, or at none; nothing happens by time.
inline constexpr std::string_view kFlushAlways =
    "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=2147483647;read_buffers_count=1;";
inline constexpr std::string_view kFlushNever =
    "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=2147483647;read_buffers_count=1;";
inline constexpr std::string_view kInMemory =
    "cache_type=AllInMem;flush_mode=NoFlush;file=:memory:;";

// Both texts in one, for connection strings.
std::string With(std::string_view settings, std::string_view more);

// A text with which a record fills a block of 138 bytes, beginning with `text`.
std::string BlockFull(std::string_view text);

// The items of a storage file from its first commit block on: "c<commitRev>" and "r<rev>". Stops
// at the first bytes that are no item. A commit block that does not link to the one before it is
// "broken"; the first may link to anything.
Strings FileItems(const std::string& path);
// The same for the file of a storage that may be in use.
Strings FileItems(const TestStorage& storage);

using Revs = std::vector<i64>;

// A client's OnFlush or OnWriteToFile function: keeps the revisions that it was called with and
// does what a test says. To be declared before the storage, whose last flush may still call it. An
// OnWriteToFile function may be called by the writing thread; the test waits for the writer.
class Notified {
  public:
    Notified() = default;
    explicit Notified(std::function<void(i64)> action) : m_action(std::move(action)) {}
    Notified(const Notified&) = delete;
    Notified& operator=(const Notified&) = delete;

    void Does(std::function<void(i64)> action) { m_action = std::move(action); }
    // Does this in its next call, and nothing from then on.
    void DoesOnce(std::function<void()> action);
    void SetAsOnFlush(TestStorage& storage);
    void SetAsOnWriteToFile(TestStorage& storage);
    Revs Calls() const;

    static void K9EREPL_CALL Call(i64 rev, void* self);

  private:
    std::function<void(i64)> m_action;
    mutable std::mutex m_mutex;
    Revs m_calls;  // guarded by m_mutex
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_FLUSH_FIXTURE_H
