// The formats of cat.
#include "record_printer.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "text_encoding.h"

namespace k9repl {

namespace {

std::string_view DataOf(const K9eReplRec& record) {
    return {reinterpret_cast<const char*>(record.data), record.dataSize};
}

std::string LengthOf(const K9eReplRec& record) {
    std::string length;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        length += static_cast<char>(record.dataSize >> shift & 0xFFU);
    }
    return length;
}

std::string JsonOf(const K9eReplRec& record) {
    const std::string_view data = DataOf(record);
    nlohmann::ordered_json json;
    json["rev"] = std::int64_t{record.rev};
    json["userWord"] = std::uint32_t{record.userWord};
    json["size"] = std::uint32_t{record.dataSize};
    if (IsUtf8(data)) {
        json["data"] = data;
    } else {
        json["base64"] = ToBase64(data);
    }
    return json.dump() + '\n';
}

}  // namespace

bool RecordPrinter::Print(const K9eReplRec& record) {
    switch (m_format) {
        case RecordFormat::kRaw:
            return m_output.Write(DataOf(record));
        case RecordFormat::kLines:
            return m_output.Write(DataOf(record)) && m_output.Write("\n");
        case RecordFormat::kJson:
            return m_output.Write(JsonOf(record));
        case RecordFormat::kLengthPrefixed:
            return m_output.Write(LengthOf(record)) && m_output.Write(DataOf(record));
    }
    return false;
}

}  // namespace k9repl
