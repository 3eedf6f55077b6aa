// The queue between the clients' threads and the writing thread of the asynchronous writer, which
// owns one. Elements are recycled, so a queue in use soon allocates nothing.
#ifndef K9EREPL_WRITERS_ASYNC_QUEUE_H
#define K9EREPL_WRITERS_ASYNC_QUEUE_H

#include <atomic>
#include <cstddef>
#include <utility>

#include "memory/repl_block.h"
#include "platform/event.h"
#include "platform/int_types.h"
#include "platform/lock.h"
#include "support/result.h"

namespace k9erepl {

// The work that an element asks of the writing thread.
enum class AsyncElemType : u32 {
    // Write bytes that lie in a memory block.
    kWrite = 0,
    // Write a commit block, which was copied when it was queued.
    kCommit = 1,
    // Remember the position to which a rollback goes back.
    kBeginTransaction = 3,
    // Write out what is buffered, then tell the waiting client.
    kComplete = 4,
    // Write out what is buffered, then end the thread.
    kStop = 5,
};

// One piece of work. It owns nothing but the copy of a commit block; what else it points at stays
// where it is until the work is done. The element belongs to the client until it is pushed, then to
// the writing thread until that recycles it.
struct CAsyncQueueElem {
    AsyncElemType type = AsyncElemType::kWrite;
    // Bytes at `data`: at least 1 for kWrite, 32 for kCommit, else 0.
    u32 size = 0;
    // kWrite: bytes of the memory block. kCommit: the copy, from the writer's pool. Else null.
    u8* data = nullptr;
    // The block whose pending-write count covers this element. kCommit: may be null.
    K9eReplBlock* memoryBlock = nullptr;
    // kWrite: receives the file offset of the data, if it holds kUnknownOffset. Else null.
    std::atomic<i64>* filePosition = nullptr;
    // kBeginTransaction: the last flushed revision when the transaction began. Else for the log
    // only.
    i64 lastRevision = 0;
    // kComplete: its number, from 1 on, by which the waiting client knows its own.
    u64 ticket = 0;
    // The element behind this one in its chain; null at the end.
    CAsyncQueueElem* next = nullptr;
};

// Returns RC_INVALID_ARG for an element that lacks what its type needs, and for an unknown type;
// the latter is logged here.
[[nodiscard]] ResultCode CheckElem(const CAsyncQueueElem& elem);

// A chain of elements, first in, first out. It does not delete its elements: whoever holds the
// chain hands them on or calls DeleteAll. No lock of its own.
class AsyncElems {
  public:
    AsyncElems() = default;
    AsyncElems(AsyncElems&& other) noexcept { Swap(other); }
    AsyncElems& operator=(AsyncElems&& other) noexcept {
        Swap(other);
        return *this;
    }
    AsyncElems(const AsyncElems&) = delete;
    AsyncElems& operator=(const AsyncElems&) = delete;

    bool IsEmpty() const { return m_first == nullptr; }
    std::size_t Size() const { return m_size; }
    void Append(CAsyncQueueElem* elem);
    // Takes all elements of `other`, in order, to its end; `other` is empty afterwards.
    void AppendAll(AsyncElems& other);
    // REQUIRES: not empty.
    CAsyncQueueElem* TakeFirst();
    void Swap(AsyncElems& other) noexcept;
    // Gives the elements back to the heap.
    void DeleteAll();

  private:
    CAsyncQueueElem* m_first = nullptr;  // null when the chain is empty
    CAsyncQueueElem* m_last = nullptr;   // null when the chain is empty
    std::size_t m_size = 0;              // elements
};

// Clients make and push elements, one client at a time, under the storage's lock. The writing
// thread waits for elements, takes all of them at once, and recycles them when their work is done.
class AsyncQueue {
  public:
    AsyncQueue() = default;
    ~AsyncQueue();
    AsyncQueue(const AsyncQueue&) = delete;
    AsyncQueue& operator=(const AsyncQueue&) = delete;

    // Makes the event that wakes the thread. To be called once, before anything else. Returns
    // false, with LastSystemError(), when the system has none.
    [[nodiscard]] bool Init() { return m_newTask.Create(); }

    // --- For the client
    // Returns an element with all fields at their defaults; null when there is no memory.
    CAsyncQueueElem* NewElem();
    // Takes back an element that was not pushed.
    void GiveBack(CAsyncQueueElem* elem) { m_clientFree.Append(elem); }
    // Appends the element and wakes the thread. Returns false when the queue was closed; the
    // element is then still the client's.
    [[nodiscard]] bool Push(CAsyncQueueElem* elem);
    // Wakes the thread, which then looks for work even if nothing was pushed.
    void Wake() { m_wakeFailed = !m_newTask.Set(); }

    // --- For the writing thread
    // Waits for a push or a Wake, without a time limit.
    platform::WaitResult WaitForTask() { return m_newTask.Wait(platform::kWaitForever); }
    // Takes everything queued; the chain may be empty.
    AsyncElems TakeAll();
    // Takes back elements whose work is done; `done` is empty afterwards.
    void Recycle(AsyncElems& done);
    // Refuses every push from now on, and returns what was still queued.
    AsyncElems Close();

  private:
    // The most elements kept for reuse. A batch that would make more goes back to the heap whole.
    static constexpr std::size_t kMostFree = 16384;

    platform::AutoResetEvent m_newTask;
    platform::RecursiveLock m_lock;
    AsyncElems m_queued;    // guarded by m_lock: not yet taken by the thread
    AsyncElems m_free;      // guarded by m_lock: recycled by the thread
    bool m_closed = false;  // guarded by m_lock
    // The client's: free elements that NewElem gives out without taking the lock.
    AsyncElems m_clientFree;
    // The client's: waking the thread failed, so the next push tries again.
    bool m_wakeFailed = false;
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_ASYNC_QUEUE_H
