// What an index file says of itself, read for stat. The file is only an aid; what cannot be read is
// simply not known.
#ifndef K9EREPL_K9REPL_INDEX_FACTS_H
#define K9EREPL_K9REPL_INDEX_FACTS_H

#include <cstdint>
#include <optional>
#include <string>

namespace k9repl {

// The number of blocks that the index file at `path` lists, when its header is one.
std::optional<std::uint32_t> IndexedBlocks(const std::string& path);

// The size in bytes of the file at `path`, when there is one.
std::optional<std::uint64_t> FileSize(const std::string& path);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_INDEX_FACTS_H
