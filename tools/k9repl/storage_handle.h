// An open, loaded storage: opened and loaded by its construction, closed at its end. Each operation
// throws a ToolError that names the storage. Used by every command.
#ifndef K9EREPL_K9REPL_STORAGE_HANDLE_H
#define K9EREPL_K9REPL_STORAGE_HANDLE_H

#include <k9erepl/storage.h>

#include <cstdint>
#include <string>

namespace k9repl {

// Makes the storage file that `conn` names unless there is one.
void CreateStorage(const std::string& conn);

class StorageHandle {
  public:
    explicit StorageHandle(const std::string& conn);
    ~StorageHandle();
    StorageHandle(const StorageHandle&) = delete;
    StorageHandle& operator=(const StorageHandle&) = delete;

    // Closes the storage, which flushes what was committed. Nothing else may follow.
    void Close();

    void* Get() const { return m_handle; }
    // The storage in a sentence: "the storage 'data.edb'".
    const std::string& Name() const { return m_name; }
    // Whether there is a storage file that is written.
    bool HasFile() const;
    std::int64_t NextRev() const;

    // Throws "cannot ACTION the storage 'data.edb': ..." unless `code` is RC_OK.
    void Check(std::uint32_t code, const std::string& action) const;

  private:
    void Open(const std::string& conn);

    std::string m_name;
    void* m_handle = nullptr;
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STORAGE_HANDLE_H
