// Pages by their offsets; see the header.
#include "reliability/far_pages.h"

#include <algorithm>
#include <cstring>

#include "reliability/disk_image.h"

namespace k9erepl::reliability {

namespace {

bool IsZero(const char* bytes, i64 size) {
    return bytes[0] == 0 && std::memcmp(bytes, bytes + 1, static_cast<std::size_t>(size) - 1) == 0;
}

}  // namespace

i64 FarPages::End() const {
    return m_pages.empty() ? 0 : m_pages.rbegin()->first + kPageSize;
}

void FarPages::Read(i64 offset, char* buffer, i64 size) const {
    for (auto at = m_pages.lower_bound(offset - kPageSize + 1);
         at != m_pages.end() && at->first < offset + size; ++at) {
        const i64 first = std::max(at->first, offset);
        const i64 end = std::min(at->first + kPageSize, offset + size);
        std::memcpy(buffer + (first - offset), at->second.data() + (first - at->first),
                    static_cast<std::size_t>(end - first));
    }
}

void FarPages::Write(i64 offset, const char* data, i64 size) {
    while (size > 0) {
        const i64 begin = offset - offset % kPageSize;
        const i64 part = std::min(begin + kPageSize - offset, size);
        auto page = m_pages.find(begin);
        if (page == m_pages.end() && !IsZero(data, part)) {
            page = m_pages.emplace(begin, Page{}).first;
        }
        if (page != m_pages.end()) {
            std::memcpy(page->second.data() + (offset - begin), data,
                        static_cast<std::size_t>(part));
        }
        offset += part;
        data += part;
        size -= part;
    }
}

void FarPages::Cut(i64 size) {
    const i64 begin = size - size % kPageSize;
    if (const auto page = m_pages.find(begin); page != m_pages.end() && begin != size) {
        std::fill(page->second.begin() + (size - begin), page->second.end(), '\0');
    }
    m_pages.erase(m_pages.lower_bound(begin == size ? size : begin + kPageSize), m_pages.end());
}

u64 FarPages::Hash(u64 hash) const {
    for (const auto& [offset, page] : m_pages) {
        hash = Mix(hash, Mix(static_cast<u64>(offset), HashOf(page.data(), page.size())));
    }
    return hash;
}

}  // namespace k9erepl::reliability
