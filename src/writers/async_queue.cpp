// The queue of the asynchronous writer; see the header.
#include "writers/async_queue.h"

#include <k9erepl/storage.h>

#include <cassert>
#include <mutex>
#include <new>

#include "support/log.h"

namespace k9erepl {

ResultCode CheckElem(const CAsyncQueueElem& elem) {
    const bool hasBytes = elem.data != nullptr && elem.size != 0;
    switch (elem.type) {
        case AsyncElemType::kWrite:
            return hasBytes && elem.memoryBlock != nullptr && elem.filePosition != nullptr
                       ? RC_OK
                       : RC_INVALID_ARG;
        case AsyncElemType::kCommit:
            return hasBytes ? RC_OK : RC_INVALID_ARG;
        case AsyncElemType::kBeginTransaction:
        case AsyncElemType::kComplete:
        case AsyncElemType::kStop:
            return RC_OK;
    }
    LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "Wrong async queue element type %d",
                   static_cast<u32>(elem.type));
    return RC_INVALID_ARG;
}

void AsyncElems::Append(CAsyncQueueElem* elem) {
    elem->next = nullptr;
    if (m_last == nullptr) {
        m_first = elem;
    } else {
        m_last->next = elem;
    }
    m_last = elem;
    ++m_size;
}

void AsyncElems::AppendAll(AsyncElems& other) {
    if (other.IsEmpty()) {
        return;
    }
    (IsEmpty() ? m_first : m_last->next) = other.m_first;
    m_last = other.m_last;
    m_size += other.m_size;
    other.m_first = nullptr;
    other.m_last = nullptr;
    other.m_size = 0;
}

CAsyncQueueElem* AsyncElems::TakeFirst() {
    assert(!IsEmpty());
    CAsyncQueueElem* const elem = m_first;
    m_first = elem->next;
    if (m_first == nullptr) {
        m_last = nullptr;
    }
    --m_size;
    return elem;
}

void AsyncElems::Swap(AsyncElems& other) noexcept {
    std::swap(m_first, other.m_first);
    std::swap(m_last, other.m_last);
    std::swap(m_size, other.m_size);
}

void AsyncElems::DeleteAll() {
    while (!IsEmpty()) {
        delete TakeFirst();
    }
}

AsyncQueue::~AsyncQueue() {
    m_queued.DeleteAll();
    m_free.DeleteAll();
    m_clientFree.DeleteAll();
}

CAsyncQueueElem* AsyncQueue::NewElem() {
    if (m_clientFree.IsEmpty()) {
        const std::lock_guard guard(m_lock);
        m_clientFree.Swap(m_free);
    }
    if (m_clientFree.IsEmpty()) {
        return new (std::nothrow) CAsyncQueueElem;
    }
    CAsyncQueueElem* const elem = m_clientFree.TakeFirst();
    *elem = CAsyncQueueElem{};
    return elem;
}

// A thread that wakes takes everything, so only the first element of an empty queue must wake it.
bool AsyncQueue::Push(CAsyncQueueElem* elem) {
    bool wake = false;
    {
        const std::lock_guard guard(m_lock);
        if (m_closed) {
            return false;
        }
        wake = m_queued.IsEmpty() || m_wakeFailed;
        m_queued.Append(elem);
    }
    if (wake) {
        Wake();
    }
    return true;
}

AsyncElems AsyncQueue::TakeAll() {
    const std::lock_guard guard(m_lock);
    return std::move(m_queued);
}

void AsyncQueue::Recycle(AsyncElems& done) {
    {
        const std::lock_guard guard(m_lock);
        if (m_free.Size() + done.Size() <= kMostFree) {
            m_free.AppendAll(done);
        }
    }
    done.DeleteAll();
}

AsyncElems AsyncQueue::Close() {
    const std::lock_guard guard(m_lock);
    m_closed = true;
    return std::move(m_queued);
}

}  // namespace k9erepl
