// Warns when a second copy of the library, for example from another path, is loaded into the same
// process: each copy would have threads, locks and callbacks of its own, and a host would hardly
// know which one it calls. module_entry.cpp holds one guard as long as the library is loaded.
#ifndef K9EREPL_API_LOAD_GUARD_H
#define K9EREPL_API_LOAD_GUARD_H

#include "platform/process.h"

namespace k9erepl {

// The first copy leaves a mark in the process (platform/process.h) and takes it away when it is
// unloaded. A copy that finds the mark shows a message and leaves the mark alone. Loading goes on
// in both cases, also when the system cannot make the mark. Both functions run inside the loader,
// on one thread at a time.
class LoadGuard {
  public:
    LoadGuard();
    ~LoadGuard();
    LoadGuard(const LoadGuard&) = delete;
    LoadGuard& operator=(const LoadGuard&) = delete;

    // False also when the system could not make the mark.
    bool IsFirstCopy() const { return m_atom != 0; }

  private:
    platform::ProcessAtom m_atom = 0;  // 0 when another copy added the mark, or nobody could
};

}  // namespace k9erepl

#endif  // K9EREPL_API_LOAD_GUARD_H
