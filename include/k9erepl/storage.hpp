// The library in C++20: Storage, Transaction and RecordRange over the functions of
// <k9erepl/storage.h>, whose comments hold for what is called here. Header only; link the library
// as from C.
//
// Every function answers with a Result (<k9erepl/result.hpp>): test it, or call Value(), which
// throws StorageError for a failure. Nothing else throws, but std::bad_alloc where memory runs out
// in this header, and whatever a visitor throws.
#ifndef K9EREPL_STORAGE_HPP
#define K9EREPL_STORAGE_HPP

#include <k9erepl/storage.h>
#include <k9erepl/record.hpp>
#include <k9erepl/result.hpp>
#include <k9erepl/settings.hpp>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

namespace k9erepl {

inline namespace cpp1 {

// What Create does with a file that exists.
enum class CreateMode : std::uint32_t {
    kNew = K9EREPL_CREATE_NEW,
    kReplace = K9EREPL_CREATE_REPLACE,
    kKeepExisting = K9EREPL_CREATE_KEEP_EXISTING,
};

// What clearing old revisions does to the storage file.
enum class ClearMode : std::uint32_t {
    kLogical = K9EREPL_CLEAR_LOGICAL,
    kSqueeze = K9EREPL_CLEAR_SQUEEZE,
    kSqueezeBackup = K9EREPL_CLEAR_SQUEEZE_BACKUP,
    kMark = K9EREPL_CLEAR_MARK,
};

// What a Storage and its transactions share: the handle, and the memory in which each record is put
// together. It stays where it is when the Storage is moved.
class OpenStorage {
  public:
    explicit OpenStorage(void* handle) noexcept : m_handle(handle) {}
    OpenStorage(const OpenStorage&) = delete;
    OpenStorage& operator=(const OpenStorage&) = delete;
    ~OpenStorage() { (void)K9eReplStorageClose(m_handle); }  // always RC_OK

    void* Handle() const noexcept { return m_handle; }

    using InsertFunction = std::uint32_t(K9EREPL_CALL*)(void* handle, K9eReplRec* rec);
    // Appends a record through one of the two functions and returns its revision.
    Result<std::int64_t> Insert(InsertFunction insert, std::int64_t rev, std::uint32_t userWord,
                                std::span<const std::byte> data) {
        K9eReplRec* const rec = m_record.Fill(rev, userWord, data);
        const std::uint32_t code = rec == nullptr ? RC_INVALID_ARG : insert(m_handle, rec);
        if (code != RC_OK) {
            return Result<std::int64_t>::Failure(code);
        }
        return std::int64_t{rec->rev};
    }

  private:
    void* const m_handle;
    RecordBuffer m_record;
};

// The open transaction of a storage, or one nested level of it. Its end without Commit rolls the
// whole transaction back. It must end before its storage does. A transaction belongs to the storage
// and not to a thread, see K9eReplStorageBeginTransaction: writers in several threads need a lock.
class Transaction {
  public:
    Transaction(Transaction&& other) noexcept : m_open(std::exchange(other.m_open, nullptr)) {}
    Transaction& operator=(Transaction&&) = delete;
    ~Transaction() {
        if (m_open != nullptr) {
            (void)K9eReplStorageRollback(m_open->Handle());  // dropped: a destructor has no result
        }
    }

    // Appends a record and returns the revision that it got. Errors: as K9eReplStorageInsert;
    // RC_WRONG_STATE after the end of the transaction.
    Result<std::int64_t> Insert(std::span<const std::byte> data, std::uint32_t userWord = 0) {
        return InsertWith(K9eReplStorageInsert, 0, userWord, data);
    }
    Result<std::int64_t> Insert(std::string_view text, std::uint32_t userWord = 0) {
        return Insert(BytesOf(text), userWord);
    }
    // Appends a record under its own revision, which must not be below the next one.
    Result<std::int64_t> InsertAt(std::int64_t rev, std::span<const std::byte> data,
                                  std::uint32_t userWord = 0) {
        return InsertWith(K9eReplStorageInsertP, rev, userWord, data);
    }

    // Ends this level; the outermost one makes the records part of the storage. After a failed
    // flush the transaction is open again: Commit can be tried again, and the destructor rolls
    // back. RC_NO_TRANSACTION after the end of the transaction.
    Result<void> Commit() {
        if (m_open == nullptr) {
            return Result<void>(RC_NO_TRANSACTION);
        }
        const std::uint32_t code = K9eReplStorageCommit(m_open->Handle());
        if (code == RC_OK) {
            m_open = nullptr;
        }
        return Result<void>(code);
    }
    // Takes back every record of all levels. RC_NO_TRANSACTION_TO_ROLLBACK after the end of the
    // transaction.
    Result<void> Rollback() {
        if (m_open == nullptr) {
            return Result<void>(RC_NO_TRANSACTION_TO_ROLLBACK);
        }
        return Result<void>(K9eReplStorageRollback(std::exchange(m_open, nullptr)->Handle()));
    }

  private:
    friend class Storage;

    explicit Transaction(OpenStorage* open) noexcept : m_open(open) {}

    Result<std::int64_t> InsertWith(OpenStorage::InsertFunction insert, std::int64_t rev,
                                    std::uint32_t userWord, std::span<const std::byte> data) {
        return m_open == nullptr ? Result<std::int64_t>::Failure(RC_WRONG_STATE)
                                 : m_open->Insert(insert, rev, userWord, data);
    }

    OpenStorage* m_open;  // null after the end; the storage's
};

// One reference to an open storage, given back by the destructor; the last one flushes and closes.
// One thread at a time may use an object; for another thread, Duplicate makes another object for
// the same storage.
class Storage {
  public:
    // --- Files
    static Result<void> Create(const Settings& settings, CreateMode mode = CreateMode::kNew) {
        return WithText(settings, [&](const char* text) {
            return K9eReplStorageCreate(text, static_cast<std::uint32_t>(mode));
        });
    }
    // Deletes the storage file and its index file.
    static Result<void> Delete(const Settings& settings) {
        return WithText(settings, [](const char* text) { return K9eReplStorageDelete(text); });
    }

    // --- Opening
    // Opens a storage and loads it. The file must exist.
    static Result<Storage> Open(const Settings& settings) {
        Result<Storage> opened = OpenUnloaded(settings);
        if (opened) {
            if (const auto loaded = opened->Load(); !loaded) {
                return Result<Storage>::Failure(loaded.Code());
            }
        }
        return opened;
    }
    // Makes the file first if there is none.
    static Result<Storage> OpenOrCreate(const Settings& settings) {
        if (const auto created = Create(settings, CreateMode::kKeepExisting); !created) {
            return Result<Storage>::Failure(created.Code());
        }
        return Open(settings);
    }
    // For a client that sets callbacks before the load, which it then calls itself.
    static Result<Storage> OpenUnloaded(const Settings& settings) {
        void* handle = nullptr;
        const auto opened =
            WithText(settings, [&](const char* text) { return K9eReplStorageOpen(text, &handle); });
        if (!opened) {
            return Result<Storage>::Failure(opened.Code());
        }
        return Take(handle);
    }
    // Also reads what is new in a storage that was opened to read only.
    Result<void> Load() { return Result<void>(K9eReplStorageLoad(Handle())); }

    // One more reference to the same storage.
    Result<Storage> Duplicate() {
        void* handle = nullptr;
        const std::uint32_t code = K9eReplStorageDuplicateHandle(Handle(), &handle);
        if (code != RC_OK) {
            return Result<Storage>::Failure(code);
        }
        return Take(handle);
    }
    // For the functions of <k9erepl/storage.h>; stays this object's.
    void* Handle() const noexcept { return m_open->Handle(); }

    // --- Writing
    // Appends a record as a transaction of its own, or to the one that is open, and returns the
    // revision that it got.
    Result<std::int64_t> Insert(std::span<const std::byte> data, std::uint32_t userWord = 0) {
        return m_open->Insert(K9eReplStorageInsert, 0, userWord, data);
    }
    Result<std::int64_t> Insert(std::string_view text, std::uint32_t userWord = 0) {
        return Insert(BytesOf(text), userWord);
    }
    Result<Transaction> Begin() {
        const std::uint32_t code = K9eReplStorageBeginTransaction(Handle());
        if (code != RC_OK) {
            return Result<Transaction>::Failure(code);
        }
        return Transaction(m_open.get());
    }

    // --- Reading
    // Calls visit(const Record&) for every record with fromRev <= rev <= toRev, with the storage's
    // lock held. A visitor that returns bool ends the enumeration with false. What it throws ends
    // the enumeration and goes on to the caller.
    template <typename Visitor>
    Result<void> Enumerate(std::int64_t fromRev, std::int64_t toRev, Visitor&& visit) {
        VisitContext<std::remove_reference_t<Visitor>> context{.visit = &visit};
        const std::uint32_t code = K9eReplStorageEnumRecords(
            Handle(), fromRev, toRev, &Visit<std::remove_reference_t<Visitor>>, &context);
#if defined(__cpp_exceptions)
        if (context.thrown != nullptr) {
            std::rethrow_exception(context.thrown);
        }
#endif
        return Result<void>(context.stopped ? std::uint32_t{RC_OK} : code);
    }
    // The same records as a range, which copies them.
    RecordRange Records(std::int64_t fromRev = kFirstRev,
                        std::int64_t toRev = kLastRev) const noexcept {
        return {Handle(), fromRev, toRev};
    }
    // The revision that the next record will get.
    Result<std::int64_t> NextRev() const {
        return Get<std::int64_t>(K9eReplStorageGetNextRev);
    }

    // --- Old revisions and marks
    // Clears the records below `rev`.
    Result<void> ClearOld(std::int64_t rev, ClearMode mode = ClearMode::kLogical) {
        return Result<void>(
            K9eReplStorageClearOldRev(Handle(), rev, static_cast<std::uint32_t>(mode)));
    }
    Result<void> ClearAll(ClearMode mode = ClearMode::kLogical) {
        return Result<void>(K9eReplStorageClearAll(Handle(), static_cast<std::uint32_t>(mode)));
    }
    // Throws the whole content away; revisions begin with 1 again.
    Result<void> Truncate() {
        return Result<void>(K9eReplStorageTruncate(Handle()));
    }
    // What ClearMode::kMark has set.
    Result<std::int64_t> RevisionMark() const {
        return Get<std::int64_t>(K9eReplStorageGetClearOldRev);
    }
    Result<void> SetLifenum(std::uint32_t lifenum) {
        return Result<void>(K9eReplStorageSetLifenum(Handle(), lifenum));
    }
    Result<std::uint32_t> Lifenum() const {
        return Get<std::uint32_t>(K9eReplStorageGetLifenum);
    }

    // --- Notifications: notify(std::int64_t lastRev) is called as storage.h says. It must not
    // throw and must live as long as the storage, which keeps its address.
    template <typename Notify>
    Result<void> SetOnFlush(Notify& notify) {
        return Result<void>(
            K9eReplStorageSetOnFlushCallback(Handle(), &CallNotify<Notify>, &notify));
    }
    template <typename Notify>
    Result<void> SetOnWriteToFile(Notify& notify) {
        return Result<void>(
            K9eReplStorageSetOnWriteToFileCallback(Handle(), &CallNotify<Notify>, &notify));
    }

  private:
    template <typename Visitor>
    struct VisitContext {
        Visitor* visit;
        bool stopped = false;         // the visitor wants no more
        std::exception_ptr thrown{};  // null: nothing was thrown
    };

    explicit Storage(std::unique_ptr<OpenStorage> open) noexcept : m_open(std::move(open)) {}

    // Takes over a handle.
    static Result<Storage> Take(void* handle) {
        std::unique_ptr<OpenStorage> open(new (std::nothrow) OpenStorage(handle));
        if (open == nullptr) {
            (void)K9eReplStorageClose(handle);  // always RC_OK
            return Result<Storage>::Failure(RC_NO_MEMORY);
        }
        return Storage(std::move(open));
    }

    template <typename Call>
    static Result<void> WithText(const Settings& settings, Call call) {
        return Result<void>(settings.IsValid() ? call(settings.ConnectionString().c_str())
                                               : std::uint32_t{RC_INVALID_ARG});
    }

    template <typename T>
    Result<T> Get(std::uint32_t(K9EREPL_CALL* get)(void*, T*)) const {
        T value{};
        const std::uint32_t code = get(Handle(), &value);
        if (code != RC_OK) {
            return Result<T>::Failure(code);
        }
        return value;
    }

    template <typename Visitor>
    static std::uint32_t CallVisitor(const K9eReplRec& rec, VisitContext<Visitor>& context) {
        if constexpr (std::is_same_v<std::invoke_result_t<Visitor&, const Record&>, bool>) {
            context.stopped = !(*context.visit)(ToRecord(rec));
            return context.stopped ? RC_ENUM_STOP : RC_OK;
        } else {
            (*context.visit)(ToRecord(rec));
            return RC_OK;
        }
    }

    // No exception may pass through the library.
    template <typename Visitor>
    static std::uint32_t K9EREPL_CALL Visit(const K9eReplRec* rec, void* ctx) noexcept {
        auto& context = *static_cast<VisitContext<Visitor>*>(ctx);
#if defined(__cpp_exceptions)
        try {
            return CallVisitor(*rec, context);
        } catch (...) {
            context.thrown = std::current_exception();
            return RC_ENUM_STOP;
        }
#else
        return CallVisitor(*rec, context);
#endif
    }

    template <typename Notify>
    static void K9EREPL_CALL CallNotify(std::int64_t lastRev, void* notify) noexcept {
        (*static_cast<Notify*>(notify))(lastRev);
    }

    std::unique_ptr<OpenStorage> m_open;  // null after a move
};

}  // namespace cpp1

}  // namespace k9erepl

#endif  // K9EREPL_STORAGE_HPP
