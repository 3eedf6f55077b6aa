// Tells whether two paths lead to one file, or would lead to one as soon as it is made. The storage
// asks before it lets one of two files replace or empty the other.
#ifndef K9EREPL_PLATFORM_ONE_FILE_H
#define K9EREPL_PLATFORM_ONE_FILE_H

#include <string>

namespace k9erepl::platform {

// True when both paths lead to the same file, through whatever links and folders. Also true when
// neither file exists yet and both would be made under the same name in the same folder, which need
// not exist either. A file that cannot be looked at counts as missing.
bool LeadToOneFile(const std::string& one, const std::string& other);

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_ONE_FILE_H
