// Says that the storage file is being worked on until the end of a scope. Flushing and clearing
// use it; nested ones put back what they found.
#ifndef K9EREPL_ENGINE_FILE_WORK_SCOPE_H
#define K9EREPL_ENGINE_FILE_WORK_SCOPE_H

#include "engine/repl_storage.h"

namespace k9erepl {

class CK9eReplStorage::FileWorkScope {
  public:
    FileWorkScope(FileWork& work, FileWork now) : m_work(work), m_before(work) { m_work = now; }
    ~FileWorkScope() { m_work = m_before; }
    FileWorkScope(const FileWorkScope&) = delete;
    FileWorkScope& operator=(const FileWorkScope&) = delete;

  private:
    FileWork& m_work;
    const FileWork m_before;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_FILE_WORK_SCOPE_H
