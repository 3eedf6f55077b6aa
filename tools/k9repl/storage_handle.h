// An open, loaded storage: opened and loaded by its construction, closed at its end. Each operation
// throws a ToolError that names the storage. Used by every command.
#ifndef K9EREPL_K9REPL_STORAGE_HANDLE_H
#define K9EREPL_K9REPL_STORAGE_HANDLE_H

#include <k9erepl/storage.h>

#include <cstdint>
#include <optional>
#include <string>

#include "storage_check.h"

namespace k9repl {

// Makes the storage file that `conn` names unless there is one. Throws ToolError, also where a
// backup of the missing file waits to be put in its place.
void CreateStorage(const std::string& conn);

// The beginning of the library's message about damage in the middle of a file.
inline constexpr const char* kDamageMessage = "Damage in the middle of file";

enum class Access {
    kWrite,
    // Adds read_only=yes, and makes the blocks as large as the file's records need, whatever
    // block_size says. A storage with flush_mode=NoFlush writes nothing anyway and is left alone.
    kRead,
};

class StorageHandle {
  public:
    StorageHandle(const std::string& conn, Access access);
    ~StorageHandle();
    StorageHandle(const StorageHandle&) = delete;
    StorageHandle& operator=(const StorageHandle&) = delete;

    // Closes the storage, which flushes what was committed. Nothing else may follow.
    void Close();

    void* Get() const { return m_handle; }
    // The storage in a sentence: "the storage 'data.edb'".
    const std::string& Name() const { return m_name; }
    // Its file's path, as the connection string has it.
    const std::string& Path() const { return m_path; }
    // Throws "nothing DONE the storage would be kept" when there is no file that is written.
    void RequireFile(const std::string& done) const;
    std::int64_t NextRev() const;

    // The damage in the middle of the file that the load met, if it did. Throws ToolError.
    std::optional<FileDamage> TakeDamage() const;

    // Throws "cannot ACTION the storage 'data.edb': ..." unless `code` is RC_OK.
    void Check(std::uint32_t code, const std::string& action) const;

  private:
    void Open(const std::string& conn);
    // Returns the library's code; throws where the file is missing.
    std::uint32_t Load();

    std::string m_path;
    std::string m_name;
    void* m_handle = nullptr;
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STORAGE_HANDLE_H
