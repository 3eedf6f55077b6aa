// Flushes the directory of a file whose name has changed; see the header.
#include "support/durable_names.h"

#include "platform/file_names.h"
#include "platform/system_error.h"
#include "support/log.h"

namespace k9erepl {

bool FlushNamesBeside(const std::string& path) {
    if (platform::FlushParentDirectory(path)) {
        return true;
    }
    if (!platform::LastSystemErrorIs(platform::SystemErrorKind::kAccessDenied)) {
        return false;
    }
    LOG_WARNING(
        kLogStorage,
        "Directory may not be read and cannot be flushed, a crash may undo what was done to "
        "its names;file path '%s',sys-err %r",
        path.c_str(), platform::LastSystemError());
    return true;
}

}  // namespace k9erepl
