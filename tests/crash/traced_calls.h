// The system calls that change files, recorded one by one, and a process that ends at one of them:
// right before it, right after it, or with half of a write done. Used by the crash tests of
// everything that removes revisions.
//
//     TracedCalls calls(storagePath);         // before any storage is opened
//     calls.Begin();
//     ... an operation of the storage, and its closing
//     const Trace trace = calls.End();        // "Flush temporary", "Rename temporary to storage"
//     ...
//
// Nothing is flushed to the disk for real: bytes and names outlive a process without it.
#ifndef K9EREPL_TESTS_CRASH_TRACED_CALLS_H
#define K9EREPL_TESTS_CRASH_TRACED_CALLS_H

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "platform/int_types.h"
#include "platform/system_calls.h"

namespace k9erepl::test {

// Files are named by what they are to the storage: storage, index, temporary, backup, backup-index,
// or directory; anything else by its path.
struct TracedCall {
    std::string kind;  // "Rename"
    std::string file;  // "temporary"
    std::string text;  // "Rename temporary to storage"
    u32 nth = 0;       // of its kind, from 1
};
using Trace = std::vector<TracedCall>;

enum class Moment { kBefore, kWithin, kAfter };

// A moment at the call with this place in the trace, from 0.
struct CrashPoint {
    std::size_t call = 0;
    Moment moment = Moment::kBefore;
};

// Every call of `trace` before and after it, and writes in the middle, too.
std::vector<CrashPoint> CrashPointsOf(const Trace& trace);
// "BeforeRename1 (Rename temporary to storage)".
std::string NameOf(const Trace& trace, const CrashPoint& point);
std::vector<std::string> TextsOf(const Trace& trace);
// Whether the last call with this text is done at `point`; false when there is none.
bool IsDone(const Trace& trace, const std::string& text, const CrashPoint& point);
// What a crash of the system right before the first call with this text could lose: the files that
// have changed and not been flushed since, in order of their names; "directory" stands for names.
std::vector<std::string> UnflushedBefore(const Trace& trace, const std::string& text);
std::vector<std::string> UnflushedAtTheEnd(const Trace& trace);

// While it lives the table of system calls is its own. One at a time, begun before and ended after
// every storage. `storagePath` says which file is the storage.
class TracedCalls {
  public:
    explicit TracedCalls(const std::string& storagePath);
    ~TracedCalls();
    TracedCalls(const TracedCalls&) = delete;
    TracedCalls& operator=(const TracedCalls&) = delete;

    // Hard links fail, as on file systems without them.
    void RefuseHardLinks();

    void Begin();
    Trace End();

    // The process kills itself at that place of what is recorded from Begin on. For a child
    // process: there is no way back. Time stamps are the same in every such process,
    // so that what it leaves depends on nothing but the place.
    void EndProcessAt(const CrashPoint& point);

  private:
    platform::SystemCalls m_saved;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_CRASH_TRACED_CALLS_H
