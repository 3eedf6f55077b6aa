// The queue between the clients' threads and the writing thread of the asynchronous writer, which
// owns one. Elements are recycled, so that a queue in use allocates nothing.
#ifndef K9EREPL_WRITERS_ASYNC_QUEUE_H
#define K9EREPL_WRITERS_ASYNC_QUEUE_H

#include <atomic>
#include <cstddef>
#include <utility>

#include "memory/repl_block.h"
#include "platform/event.h"
#include "platform/int_types.h"
#include "platform/lock.h"

namespace k9erepl {

enum class AsyncElemType : u32 {
    kWrite = 0,             // bytes of a memory block
    kCommit = 1,            // a commit block, copied when it was queued
    kBeginTransaction = 3,  // remembers where a rollback goes back to
    kComplete = 4,          // writes out what is buffered and tells the waiting client
    kStop = 5,              // ends the thread
};

// One piece of work. What it points at stays where it is until the work is done.
struct CAsyncQueueElem {
    AsyncElemType type = AsyncElemType::kWrite;
    u32 size = 0;
    u8* data = nullptr;                        // kWrite: the client's; kCommit: the copy
    K9eReplBlock* memoryBlock = nullptr;       // its pending-write count covers this element
    std::atomic<i64>* filePosition = nullptr;  // kWrite: receives the offset of the data
    i64 lastRevision = 0;  // for the log; kBeginTransaction: the last flushed revision
    u64 ticket = 0;        // kComplete: which one it is
    CAsyncQueueElem* next = nullptr;
};

// RC_INVALID_ARG for an element that lacks what its type needs, or has another type; the latter is
// logged here.
u32 CheckElem(const CAsyncQueueElem& elem);

// A chain of elements, first in, first out. The elements are the holder's to give on.
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
    // Takes all elements of `other`, in order.
    void AppendAll(AsyncElems& other);
    // REQUIRES: not empty.
    CAsyncQueueElem* TakeFirst();
    void Swap(AsyncElems& other) noexcept;
    // Gives the elements back to the heap.
    void DeleteAll();

  private:
    CAsyncQueueElem* m_first = nullptr;
    CAsyncQueueElem* m_last = nullptr;
    std::size_t m_size = 0;
};

// Clients, one at a time, make and push elements; the writing thread waits for them, takes all at
// once and recycles them.
class AsyncQueue {
  public:
    AsyncQueue() = default;
    ~AsyncQueue();
    AsyncQueue(const AsyncQueue&) = delete;
    AsyncQueue& operator=(const AsyncQueue&) = delete;

    // Makes the event that wakes the thread. False: LastSystemError().
    bool Init() { return m_newTask.Create(); }

    // --- The client
    // An element with all fields at their defaults; null when there is no memory.
    CAsyncQueueElem* NewElem();
    // The other way for an element that was not pushed.
    void GiveBack(CAsyncQueueElem* elem) { m_clientFree.Append(elem); }
    // Appends and wakes the thread; false when the queue was closed, the element is still the
    // client's then.
    bool Push(CAsyncQueueElem* elem);
    // Wakes the thread for nothing but what it finds.
    void Wake() { m_wakeFailed = !m_newTask.Set(); }

    // --- The writing thread
    platform::WaitResult WaitForTask() { return m_newTask.Wait(platform::kWaitForever); }
    AsyncElems TakeAll();
    // Takes back elements whose work is done; `done` is empty then.
    void Recycle(AsyncElems& done);
    // From now on nothing is accepted; returns what was still queued.
    AsyncElems Close();

  private:
    // A batch that would make more than these lie idle goes back to the heap.
    static constexpr std::size_t kMostFree = 16384;

    platform::AutoResetEvent m_newTask;
    platform::RecursiveLock m_lock;
    AsyncElems m_queued;        // guarded by m_lock
    AsyncElems m_free;          // guarded by m_lock
    bool m_closed = false;      // guarded by m_lock
    AsyncElems m_clientFree;    // the client's
    bool m_wakeFailed = false;  // the client's: the next push tries again
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_ASYNC_QUEUE_H
