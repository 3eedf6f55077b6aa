// Files as values; see the header.
#include "reliability/disk_image.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <fstream>
#include <set>

namespace k9erepl::reliability {

u64 Mix(u64 a, u64 b) {
    u64 mixed = (a ^ b * 0x9E3779B97F4A7C15ULL) * 0xBF58476D1CE4E5B9ULL;
    return mixed ^ mixed >> 29U;
}

u64 HashOf(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    u64 hash = size;
    for (std::size_t at = 0; at < size; at += sizeof(u64)) {
        u64 word = 0;
        std::memcpy(&word, bytes + at, std::min(sizeof word, size - at));
        hash = Mix(hash, word);
    }
    return hash;
}

// --- FileBytes

u32 FileBytes::Read(i64 offset, void* buffer, u32 size) const {
    const i64 got = std::clamp<i64>(m_size - offset, 0, size);
    auto* to = static_cast<char*>(buffer);
    std::memset(to, 0, static_cast<std::size_t>(got));
    for (auto at = m_pages.lower_bound(offset - kPageSize + 1);
         at != m_pages.end() && at->first < offset + got; ++at) {
        const i64 first = std::max(at->first, offset);
        const i64 end = std::min(at->first + kPageSize, offset + got);
        std::memcpy(to + (first - offset), at->second->data() + (first - at->first),
                    static_cast<std::size_t>(end - first));
    }
    return static_cast<u32>(got);
}

FileBytes::Page& FileBytes::Changing(i64 begin) {
    std::shared_ptr<Page>& page = m_pages[begin];
    if (page == nullptr) {
        page = std::make_shared<Page>();
    } else if (page.use_count() > 1) {
        page = std::make_shared<Page>(*page);
    }
    return *page;
}

void FileBytes::Write(i64 offset, const void* data, u32 size) {
    const auto* from = static_cast<const char*>(data);
    for (i64 left = size; left > 0;) {
        const i64 begin = offset - offset % kPageSize;
        const i64 part = std::min(begin + kPageSize - offset, left);
        // Zeros are no reason for a page.
        const bool zeros = std::all_of(from, from + part, [](char byte) { return byte == 0; });
        if (!zeros || m_pages.contains(begin)) {
            std::memcpy(Changing(begin).data() + (offset - begin), from,
                        static_cast<std::size_t>(part));
        }
        offset += part;
        from += part;
        left -= part;
    }
    if (size > 0) {
        m_stored = std::max(m_stored, offset);
        m_size = std::max(m_size, offset);
    }
    m_hash.reset();
}

void FileBytes::SetEnd(i64 size) {
    const i64 begin = size - size % kPageSize;
    if (begin != size && m_pages.contains(begin)) {
        Page& page = Changing(begin);
        std::fill(page.begin() + (size - begin), page.end(), '\0');
    }
    m_pages.erase(m_pages.lower_bound(begin == size ? size : begin + kPageSize), m_pages.end());
    m_stored = std::min(m_stored, size);
    m_size = size;
    m_hash.reset();
}

// Pages of zeros make no difference.
u64 FileBytes::Hash() const {
    if (!m_hash) {
        static constexpr Page kZeros{};
        u64 hash = static_cast<u64>(m_size);
        for (const auto& [offset, page] : m_pages) {
            if (*page != kZeros) {
                hash = Mix(hash, Mix(static_cast<u64>(offset), HashOf(page->data(), page->size())));
            }
        }
        m_hash = hash;
    }
    return *m_hash;
}

std::string FileBytes::Whole() const {
    std::string whole(static_cast<std::size_t>(m_size), '\0');
    Read(0, whole.data(), static_cast<u32>(m_size));
    return whole;
}

// --- Changes

bool Change::ChangesNames() const {
    return kind == ChangeKind::kCreate || kind == ChangeKind::kRename ||
           kind == ChangeKind::kLink || kind == ChangeKind::kRemove;
}

std::string Describe(const Change& change) {
    const std::string file = "file " + std::to_string(change.file);
    const std::string at = std::to_string(change.at);
    switch (change.kind) {
        case ChangeKind::kCreate:
            return "create " + change.name + " as " + file;
        case ChangeKind::kWrite:
            return "write " + std::to_string(change.bytes.size()) + " bytes at " + at + " of " +
                   file;
        case ChangeKind::kSetEnd:
            return "set end of " + file + " to " + at;
        case ChangeKind::kRename:
            return "rename " + change.name + " to " + change.to;
        case ChangeKind::kLink:
            return "link " + file + " as " + change.name;
        case ChangeKind::kRemove:
            return "remove " + change.name;
        case ChangeKind::kFlush:
            return "flush " + file;
        case ChangeKind::kFlushDirectory:
            return "flush directory";
    }
    return "";
}

void ApplyToNames(const Change& change, Names& names) {
    switch (change.kind) {
        case ChangeKind::kCreate:
        case ChangeKind::kLink:
            names[change.name] = change.file;
            break;
        case ChangeKind::kRename:
            names[change.to] = change.file;
            if (const auto old = names.find(change.name);
                old != names.end() && old->second == change.file) {
                names.erase(old);
            }
            break;
        case ChangeKind::kRemove:
            names.erase(change.name);
            break;
        default:
            break;
    }
}

// --- DiskImage

FileBytes& DiskImage::Changing(FileNumber file) {
    std::shared_ptr<FileBytes>& bytes = m_files[file];
    if (bytes == nullptr) {
        bytes = std::make_shared<FileBytes>();
    } else if (bytes.use_count() > 1) {
        bytes = std::make_shared<FileBytes>(*bytes);
    }
    return *bytes;
}

void DiskImage::Apply(const Change& change) {
    if (change.ChangesNames()) {
        ApplyToNames(change, m_names);
    }
    if (change.kind == ChangeKind::kCreate) {
        Changing(change.file);
    } else if (change.kind == ChangeKind::kSetEnd) {
        Changing(change.file).SetEnd(change.at);
    } else if (change.kind == ChangeKind::kWrite) {
        ApplyCut(change, static_cast<u32>(change.bytes.size()));
    }
}

void DiskImage::ApplyCut(const Change& write, u32 size) {
    assert(write.kind == ChangeKind::kWrite && size <= write.bytes.size());
    Changing(write.file).Write(write.at, write.bytes.data(), size);
}

std::optional<FileNumber> DiskImage::NumberOf(const std::string& name) const {
    const auto found = m_names.find(name);
    return found == m_names.end() ? std::nullopt : std::optional(found->second);
}

const FileBytes* DiskImage::Find(const std::string& name) const {
    const std::optional<FileNumber> number = NumberOf(name);
    return number ? m_files.at(*number).get() : nullptr;
}

void DiskImage::Put(const std::string& name, FileBytes bytes) {
    const FileNumber number = NextNumber();
    m_files[number] = std::make_shared<FileBytes>(std::move(bytes));
    m_names[name] = number;
}

std::shared_ptr<FileBytes> DiskImage::Share(FileNumber file) const {
    const auto found = m_files.find(file);
    return found == m_files.end() ? std::make_shared<FileBytes>() : found->second;
}

u64 DiskImage::Hash() const {
    u64 hash = 0;
    for (const auto& [name, file] : m_names) {
        hash = Mix(hash, Mix(HashOf(name.data(), name.size()), m_files.at(file)->Hash()));
    }
    return hash;
}

i64 DiskImage::UsedBytes(bool holesCount) const {
    std::set<FileNumber> files;
    i64 bytes = 0;
    for (const auto& [name, file] : m_names) {
        const FileBytes& content = *m_files.at(file);
        const i64 stored = content.StoredSize();
        bytes += !files.insert(file).second ? 0 : holesCount ? content.Size() : stored;
    }
    return bytes;
}

void DiskImage::Save(const std::string& folder) const {
    for (const auto& [name, file] : m_names) {
        const std::string path = folder + "/" + name.substr(name.rfind('/') + 1);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << m_files.at(file)->Whole();
    }
}

}  // namespace k9erepl::reliability
