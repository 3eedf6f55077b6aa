// An open and loaded storage: the constructor opens and loads it, the destructor closes it. A
// failed operation throws a ToolError that names the storage. Every command but verify uses it.
#ifndef K9EREPL_K9REPL_STORAGE_HANDLE_H
#define K9EREPL_K9REPL_STORAGE_HANDLE_H

#include <k9erepl/storage.h>

#include <cstdint>
#include <optional>
#include <string>

#include "storage_check.h"

namespace k9repl {

// Makes the storage file that `conn` names unless it exists. Throws ToolError, also if the file is
// missing but a backup of it exists, which should take its place.
void CreateStorage(const std::string& conn);

// How the library's message about damage in the middle of a file begins.
inline constexpr const char* kDamageMessage = "Damage in the middle of file";

enum class Access {
    kWrite,
    // Adds read_only=yes, and makes the blocks larger than block_size says if the file's records
    // need that. Leaves the settings as they are with flush_mode=NoFlush, which writes nothing
    // anyway.
    kRead,
};

class StorageHandle {
  public:
    StorageHandle(const std::string& conn, Access access);
    ~StorageHandle();
    StorageHandle(const StorageHandle&) = delete;
    StorageHandle& operator=(const StorageHandle&) = delete;

    // Closes the storage, which flushes what was committed. Afterwards only Name and Path may be
    // called.
    void Close();

    void* Get() const { return m_handle; }
    // The storage in a sentence: "the storage 'data.edb'".
    const std::string& Name() const { return m_name; }
    // The path of its file, as the connection string has it.
    const std::string& Path() const { return m_path; }
    // Throws "nothing DONE the storage would be kept" if the storage writes no file.
    void RequireFile(const std::string& done) const;
    // The revision that the next record gets.
    std::int64_t NextRev() const;

    // The damage in the middle of the file that the load has found; empty if there is none. The
    // load's message about it is then taken from the library's log. Throws ToolError.
    std::optional<FileDamage> TakeDamage() const;

    // Throws "cannot ACTION the storage 'data.edb': ..." unless `code` is RC_OK.
    void Check(std::uint32_t code, const std::string& action) const;

  private:
    void Open(const std::string& conn);
    // Returns the library's code; closes the storage if it is a failure. Throws ToolError if the
    // file is missing.
    std::uint32_t Load();

    std::string m_path;  // empty if the connection string has no file
    std::string m_name;
    void* m_handle = nullptr;  // the library's handle; null if the storage is closed
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STORAGE_HANDLE_H
