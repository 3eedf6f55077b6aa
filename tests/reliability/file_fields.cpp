// The tables of fields; see the header.
#include "reliability/file_fields.h"

#include <algorithm>
#include <cassert>
#include <span>

namespace k9erepl::reliability {

namespace {

constexpr FileField kHeaderFields[] = {{"header: signature", 0, 8},
                                       {"header: version", 8, 4},
                                       {"header: lifenum", 12, 4},
                                       {"header: clearOldRev", 16, 8},
                                       {"header: reserved", 24, 1000}};
constexpr FileField kFirstCommitFields[] = {
    {"first commit block: signature", 0, 4}, {"first commit block: prevSequence", 4, 4},
    {"first commit block: sequence", 8, 4},  {"first commit block: zero", 12, 4},
    {"first commit block: clearRev", 16, 8}, {"first commit block: commitRev", 24, 8}};
constexpr FileField kCommitFields[] = {
    {"commit block: signature", 0, 4}, {"commit block: prevSequence", 4, 4},
    {"commit block: sequence", 8, 4},  {"commit block: zero", 12, 4},
    {"commit block: clearRev", 16, 8}, {"commit block: commitRev", 24, 8}};
constexpr FileField kRecordFields[] = {{"record: signature", 0, 4},
                                       {"record: size", 4, 4},
                                       {"record: rev", 8, 8},
                                       {"record: userWord", 16, 4},
                                       {"record: dataSize", 20, 4}};
constexpr FileField kIndexHeaderFields[] = {
    {"index: magic", 0, 12},      {"index: version", 12, 4},  {"index: count", 16, 4},
    {"index: block size", 20, 4}, {"index: checksum", 24, 4}, {"index: reserved", 28, 4}};
constexpr FileField kEntryFields[] = {{"index entry: revision", 0, 8},
                                      {"index entry: offset", 8, 8}};

class Fields {
  public:
    void Add(std::span<const FileField> fields) {
        const std::size_t base = m_end;
        for (const FileField& field : fields) {
            AddOne(field.name, base + field.at, field.size);
        }
    }
    void AddUpTo(const char* name, std::size_t end) { AddOne(name, m_end, end - m_end); }
    std::vector<FileField> Take() { return std::move(m_fields); }

  private:
    void AddOne(const char* name, std::size_t at, std::size_t size) {
        assert(at == m_end);
        if (size > 0) {
            m_fields.push_back({name, at, size});
        }
        m_end = at + size;
    }

    std::vector<FileField> m_fields;
    std::size_t m_end = 0;
};

}  // namespace

std::vector<FileField> FieldsOfStorage(const std::string& bytes, const SlowScan& scan) {
    Fields fields;
    fields.Add(kHeaderFields);
    for (std::size_t i = 0; i < scan.validItems; ++i) {
        const SlowItem& item = scan.items[i];
        if (item.kind == ItemKind::kRecord) {
            fields.Add(kRecordFields);
            fields.AddUpTo("record: data", item.at + item.size);
        } else if (i == 0) {
            fields.Add(kFirstCommitFields);
        } else {
            fields.Add(kCommitFields);
        }
    }
    fields.AddUpTo("behind the data", bytes.size());
    return fields.Take();
}

std::vector<FileField> FieldsOfIndex(const std::string& bytes) {
    Fields fields;
    fields.Add(kIndexHeaderFields);
    for (std::size_t at = 32; at < bytes.size(); at += 16) {
        fields.Add(kEntryFields);
    }
    return fields.Take();
}

const FileField& FieldAt(const std::vector<FileField>& fields, std::size_t at) {
    const auto behind = std::upper_bound(
        fields.begin(), fields.end(), at,
        [](std::size_t place, const FileField& field) { return place < field.at; });
    return *(behind - 1);
}

}  // namespace k9erepl::reliability
