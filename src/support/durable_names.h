// Makes a change of file names durable. The storage file calls it when it has changed a name: when
// it creates or deletes a file, in a squeeze, and when it keeps a damaged tail.
#ifndef K9EREPL_SUPPORT_DURABLE_NAMES_H
#define K9EREPL_SUPPORT_DURABLE_NAMES_H

#include <string>

namespace k9erepl {

// Flushes the directory of `path` to the disk. A directory that this process may write but not read
// cannot be flushed. Work must go on there all the same, so that case is logged as a warning and
// answered with true; the names reach the disk when the system writes them by itself. Returns
// false, with LastSystemError(), when flushing failed for another reason.
[[nodiscard]] bool FlushNamesBeside(const std::string& path);

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_DURABLE_NAMES_H
