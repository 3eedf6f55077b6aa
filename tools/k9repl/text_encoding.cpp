// UTF-8 validation and base64.
#include "text_encoding.h"

#include <cstdint>

namespace k9repl {

namespace {

unsigned ByteAt(std::string_view bytes, std::size_t i) {
    return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U;
}

bool IsContinuation(unsigned byte) {
    return (byte & 0xC0U) == 0x80U;
}

// The size in bytes of the character at the start of `bytes`, 0 when there is no valid one.
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

}  // namespace

bool IsUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t size = Utf8CharacterSize(bytes);
        if (size == 0) {
            return false;
        }
        bytes.remove_prefix(size);
    }
    return true;
}

std::string ToBase64(std::string_view bytes) {
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::uint32_t three =
            ByteAt(bytes, i) << 16U | ByteAt(bytes, i + 1) << 8U | ByteAt(bytes, i + 2);
        text += kAlphabet[three >> 18U];
        text += kAlphabet[three >> 12U & 63U];
        text += i + 1 < bytes.size() ? kAlphabet[three >> 6U & 63U] : '=';
        text += i + 2 < bytes.size() ? kAlphabet[three & 63U] : '=';
    }
    return text;
}

}  // namespace k9repl
