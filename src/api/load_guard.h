// Warns when a second copy of the library, for example from another path, is loaded into the same
// process. The library's entry holds one for as long as the library is loaded.
#ifndef K9EREPL_API_LOAD_GUARD_H
#define K9EREPL_API_LOAD_GUARD_H

#include "platform/process.h"

namespace k9erepl {

// The first copy leaves a mark in the process and takes it away when it is unloaded; a copy that
// finds the mark shows a message and leaves the mark alone. Loading goes on in both cases.
class LoadGuard {
  public:
    LoadGuard();
    ~LoadGuard();
    LoadGuard(const LoadGuard&) = delete;
    LoadGuard& operator=(const LoadGuard&) = delete;

    bool IsFirstCopy() const { return m_atom != 0; }

  private:
    platform::ProcessAtom m_atom = 0;  // 0 when another copy added it
};

}  // namespace k9erepl

#endif  // K9EREPL_API_LOAD_GUARD_H
