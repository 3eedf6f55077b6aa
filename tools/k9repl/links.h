// Symbolic links as the library takes them. Used where files beside a storage file are looked for.
#ifndef K9EREPL_K9REPL_LINKS_H
#define K9EREPL_K9REPL_LINKS_H

#include <string>

namespace k9repl {

// The path of the storage file that a squeeze of the one at `path` replaces: where `path` is a
// symbolic link, the library replaces what it leads to. On Windows it replaces the link itself.
std::string FollowLink(const std::string& path);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_LINKS_H
