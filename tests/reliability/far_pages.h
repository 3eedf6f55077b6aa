// The part of a file in memory that lies far from its beginning: pages, and holes between them that
// cost nothing, so that a file may be larger than the memory. Used by FileBytes.
#ifndef K9EREPL_TESTS_RELIABILITY_FAR_PAGES_H
#define K9EREPL_TESTS_RELIABILITY_FAR_PAGES_H

#include <array>
#include <map>

#include "platform/int_types.h"

namespace k9erepl::reliability {

// Offsets are those of the file. What was never written is zero.
class FarPages {
  public:
    bool Empty() const { return m_pages.empty(); }
    // Behind it everything is zero; 0 when everything is.
    i64 End() const;
    // Replaces those bytes of `buffer`, which stands for the file from `offset` on and is zero,
    // that were written.
    void Read(i64 offset, char* buffer, i64 size) const;
    // Zeros are no reason for a page.
    void Write(i64 offset, const char* data, i64 size);
    // From `size` on the file is zero.
    void Cut(i64 size);
    // Mixed into `hash`.
    u64 Hash(u64 hash) const;

  private:
    static constexpr i64 kPageSize = 4096;
    using Page = std::array<char, kPageSize>;

    std::map<i64, Page> m_pages;  // by the offsets of their first bytes
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_FAR_PAGES_H
