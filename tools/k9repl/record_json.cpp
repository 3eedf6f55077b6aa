// Writing a record as JSON, character by character; see the header.
#include "record_json.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <string_view>

namespace k9repl {

namespace {

unsigned ByteAt(std::string_view bytes, std::size_t i) {
    return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U;
}

bool IsContinuation(unsigned byte) {
    return (byte & 0xC0U) == 0x80U;
}

// Returns the size in bytes of the character at the start of `bytes`; 0 if there is no valid one.
std::size_t Utf8CharacterSize(std::string_view bytes) {
    const unsigned first = ByteAt(bytes, 0);
    const unsigned second = ByteAt(bytes, 1);
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC2 || first > 0xF4 || !IsContinuation(second)) {
        return 0;
    }
    if (first < 0xE0) {
        return 2;
    }
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool surrogate = first == 0xED && second > 0x9F;
    const bool tooHigh = first == 0xF4 && second > 0x8F;
    if (overlong || surrogate || tooHigh || !IsContinuation(ByteAt(bytes, 2))) {
        return 0;
    }
    if (first < 0xF0) {
        return 3;
    }
    return IsContinuation(ByteAt(bytes, 3)) ? 4 : 0;
}

// Uses the alphabet with "+" and "/", and pads with "=".
void AppendBase64(std::string_view bytes, std::string* text) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    text->reserve(text->size() + (bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::uint32_t three =
            ByteAt(bytes, i) << 16U | ByteAt(bytes, i + 1) << 8U | ByteAt(bytes, i + 2);
        *text += kAlphabet[three >> 18U];
        *text += kAlphabet[three >> 12U & 63U];
        *text += i + 1 < bytes.size() ? kAlphabet[three >> 6U & 63U] : '=';
        *text += i + 2 < bytes.size() ? kAlphabet[three & 63U] : '=';
    }
}

// True for the characters that stand in a JSON text as they are.
constexpr std::array<bool, 256> kPlain = [] {
    std::array<bool, 256> plain{};
    for (std::size_t c = 0x20; c < 0x80; ++c) {
        plain[c] = c != '"' && c != '\\';
    }
    return plain;
}();

// `c` is a control character, a quotation mark or a backslash.
void AppendEscaped(char c, std::string* text) {
    constexpr std::string_view kHex = "0123456789abcdef";
    constexpr std::string_view kNamed = "\"\\\b\f\n\r\t";
    constexpr std::string_view kNames = "\"\\bfnrt";
    *text += '\\';
    if (const std::size_t at = kNamed.find(c); at != std::string_view::npos) {
        *text += kNames[at];
        return;
    }
    const auto byte = static_cast<unsigned char>(c);
    text->append("u00").append(1, kHex[byte >> 4U]).append(1, kHex[byte & 15U]);
}

// Appends the text between the quotation marks. Returns false at the first byte that is no UTF-8;
// part of the text is appended then. Strict: overlong forms, surrogates and everything above
// U+10FFFF are none.
bool AppendCharacters(std::string_view bytes, std::string* text) {
    std::size_t begin = 0;  // of what stands as it is and is not appended yet
    std::size_t i = 0;
    while (i < bytes.size()) {
        if (kPlain[static_cast<unsigned char>(bytes[i])]) {
            ++i;
            continue;
        }
        const std::size_t size = Utf8CharacterSize(bytes.substr(i));
        if (size == 0) {
            return false;
        }
        if (size == 1) {
            text->append(bytes, begin, i - begin);
            AppendEscaped(bytes[i], text);
            begin = i + 1;
        }
        i += size;
    }
    text->append(bytes, begin);
    return true;
}

template <typename Number>
void AppendNumber(Number number, std::string* text) {
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    text->append(digits.data(), end);
}

}  // namespace

void AppendJson(const K9eReplRec& record, std::string* text) {
    const std::string_view data(reinterpret_cast<const char*>(record.data), record.dataSize);
    text->append("{\"rev\":");
    AppendNumber(std::int64_t{record.rev}, text);
    text->append(",\"userWord\":");
    AppendNumber(std::uint32_t{record.userWord}, text);
    text->append(",\"size\":");
    AppendNumber(std::uint32_t{record.dataSize}, text);
    const std::size_t before = text->size();
    text->append(",\"data\":\"");
    if (!AppendCharacters(data, text)) {
        text->resize(before);
        text->append(",\"base64\":\"");
        AppendBase64(data, text);
    }
    text->append("\"}\n");
}

}  // namespace k9repl
