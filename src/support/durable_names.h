// Making a change of file names durable. The storage file's creation, squeeze, deletion and damaged
// tail call it when they have changed a name.
#ifndef K9EREPL_SUPPORT_DURABLE_NAMES_H
#define K9EREPL_SUPPORT_DURABLE_NAMES_H

#include <string>

namespace k9erepl {

// Flushes the directory of `path` to the disk. A directory that this process may write but not read
// cannot be flushed: that is logged as a warning and true, for work shall go on there; the names
// are then on the disk when the system writes them by itself. False: LastSystemError().
bool FlushNamesBeside(const std::string& path);

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_DURABLE_NAMES_H
