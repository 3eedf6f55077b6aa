// One record on its way in and out, and a range of records. Part of the C++ interface, see
// <k9erepl/storage.hpp>.
#ifndef K9EREPL_RECORD_HPP
#define K9EREPL_RECORD_HPP

#include <k9erepl/storage.h>
#include <k9erepl/result.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace k9erepl {

inline namespace cpp1 {

inline constexpr std::int64_t kFirstRev = 1;
inline constexpr std::int64_t kLastRev = std::numeric_limits<std::int64_t>::max();

// One record that an enumeration delivers. `data` is valid during the visit, or until the iterator
// moves on.
struct Record {
    std::int64_t rev;
    std::uint32_t userWord;  // the client's own
    std::span<const std::byte> data;

    std::string_view Text() const noexcept {
        return {reinterpret_cast<const char*>(data.data()), data.size()};
    }
};

// A record on its way in: head and data in one piece of memory, as the library takes it. It grows
// with the largest record and is never freed between records.
class RecordBuffer {
  public:
    // The record with `data`. Valid until the next call. Returns null for data of 4 GiB and more.
    // Throws std::bad_alloc.
    K9eReplRec* Fill(std::int64_t rev, std::uint32_t userWord, std::span<const std::byte> data) {
        if (data.size() > std::numeric_limits<std::uint32_t>::max()) {
            return nullptr;
        }
        const std::size_t size = sizeof(K9eReplRec) + data.size();
        if (m_bytes.size() < size) {
            m_bytes.resize(size);
        }
        auto* const rec = reinterpret_cast<K9eReplRec*>(m_bytes.data());
        rec->rev = rev;
        rec->userWord = userWord;
        rec->dataSize = static_cast<std::uint32_t>(data.size());
        if (!data.empty()) {
            std::memcpy(rec->data, data.data(), data.size());
        }
        return rec;
    }

  private:
    std::vector<std::byte> m_bytes;
};

inline std::span<const std::byte> BytesOf(std::string_view text) noexcept {
    return std::as_bytes(std::span(text.data(), text.size()));
}

inline Record ToRecord(const K9eReplRec& rec) noexcept {
    return {.rev = rec.rev,
            .userWord = rec.userWord,
            .data = std::as_bytes(std::span(rec.data, rec.dataSize))};
}

// The records of a range of revisions, to be walked once:
//     for (const Record& record : storage.Records(100, 200)) ...
// They are fetched in pieces of 64 KiB and more. The library's lock is free in between: records
// that another thread appends meanwhile are delivered, too, and those that it clears are not.
class RecordRange {
  public:
    class Iterator {
      public:
        using value_type = Record;
        using difference_type = std::ptrdiff_t;

        const Record& operator*() const noexcept { return m_records->m_current; }
        const Record* operator->() const noexcept { return &m_records->m_current; }
        // Throws StorageError when the records cannot be read.
        Iterator& operator++() {
            m_records->Advance();
            return *this;
        }
        void operator++(int) { ++*this; }
        bool operator==(std::default_sentinel_t) const noexcept { return m_records->m_atEnd; }

      private:
        friend class RecordRange;
        explicit Iterator(RecordRange* records) noexcept : m_records(records) {}
        RecordRange* m_records;  // never null
    };

    // Throws StorageError when the records cannot be read.
    Iterator begin() {
        Advance();
        return Iterator(this);
    }
    std::default_sentinel_t end() const noexcept { return {}; }

  private:
    friend class Storage;

    static constexpr std::size_t kPieceSize = 64 * 1024;  // bytes; a larger record comes alone

    RecordRange(void* handle, std::int64_t fromRev, std::int64_t toRev) noexcept
        : m_handle(handle), m_nextRev(fromRev), m_toRev(toRev) {}

    void Advance() {
        if (m_position == m_used && !Fetch()) {
            m_atEnd = true;
            return;
        }
        const auto* const rec = reinterpret_cast<const K9eReplRec*>(m_bytes.get() + m_position);
        m_current = ToRecord(*rec);
        m_position += sizeof(K9eReplRec) + rec->dataSize;
    }

    // Returns false when there are no more records.
    bool Fetch() {
        m_position = 0;
        m_used = 0;
        if (m_lastPiece || m_nextRev > m_toRev) {
            return false;
        }
        m_isFull = false;
        const std::uint32_t code =
            K9eReplStorageEnumRecords(m_handle, m_nextRev, m_toRev, &RecordRange::Take, this);
        if (code != RC_OK && !m_isFull) {
            m_lastPiece = true;
            Result<void>(code).Value();
        }
        m_lastPiece = !m_isFull;
        return m_used > 0;
    }

    static std::uint32_t K9EREPL_CALL Take(const K9eReplRec* rec, void* self) noexcept {
        return static_cast<RecordRange*>(self)->Take(*rec);
    }

    // Runs inside of the library: must not throw.
    std::uint32_t Take(const K9eReplRec& rec) noexcept {
        const std::size_t size = sizeof(K9eReplRec) + rec.dataSize;
        if (m_used > 0 && size > m_capacity - m_used) {
            m_isFull = true;
            return RC_ENUM_STOP;
        }
        if (size > m_capacity) {
            const std::size_t capacity = size > kPieceSize ? size : kPieceSize;
            m_bytes.reset(new (std::nothrow) std::byte[capacity]);
            m_capacity = m_bytes == nullptr ? 0 : capacity;
            if (m_bytes == nullptr) {
                return RC_NO_MEMORY;
            }
        }
        std::memcpy(m_bytes.get() + m_used, &rec, size);
        m_used += size;
        m_nextRev = rec.rev + 1;  // a revision is below kLastRev
        return RC_OK;
    }

    void* m_handle;          // not owned
    std::int64_t m_nextRev;  // where the next piece begins
    std::int64_t m_toRev;
    std::unique_ptr<std::byte[]> m_bytes;  // records of one piece, each with its head
    std::size_t m_capacity = 0;
    std::size_t m_used = 0;
    std::size_t m_position = 0;  // of the record behind the current one
    bool m_isFull = false;       // the fetch stopped because the piece is full
    bool m_lastPiece = false;    // nothing is left behind this piece
    bool m_atEnd = false;
    Record m_current{};
};

}  // namespace cpp1

}  // namespace k9erepl

#endif  // K9EREPL_RECORD_HPP
