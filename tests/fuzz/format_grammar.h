// Format texts out of a fuzz input: one directive of any flags, width, precision and letter, with
// plain text and broken directives around it. Used by the target of the formatter.
#ifndef K9EREPL_TESTS_FUZZ_FORMAT_GRAMMAR_H
#define K9EREPL_TESTS_FUZZ_FORMAT_GRAMMAR_H

#include <cstring>
#include <optional>
#include <string_view>

#include "fuzz/target.h"

namespace k9erepl::fuzz {

// A value of every type that a directive takes.
struct Values {
    std::uint64_t number = 0;
    double real = 0;
    std::string text;
};

// Width and precision stand in the format, or are arguments.
struct Size {
    std::optional<int> argument;
    std::string digits;

    std::string Text() const { return argument ? "*" : digits; }
    // The C library takes seconds for the widest.
    bool IsSmall() const {
        const long long size = argument ? std::llabs(*argument) : std::atoll(digits.c_str());
        return digits.size() < 10 && size < 2000;
    }
};

struct Directive {
    std::string flags;
    Size width;
    std::optional<Size> precision;
    bool is64 = false;
    char letter = 'd';

    std::string Text(const char* prefixOf64) const {
        return "%" + flags + width.Text() + (precision ? "." + precision->Text() : "") +
               (is64 ? prefixOf64 : "") + letter;
    }
    // As the C library writes it.
    std::string PlainText() const {
        Directive plain = *this;
        plain.letter = letter == 'r' ? 'u' : letter;
        return plain.Text("ll");
    }
};

// Printed as they stand.
inline constexpr std::array<const char*, 10> kBroken = {"%q",  "%5.3q",   "%I6q",  "%I64s", "%llf",
                                                        "%hd", "%-+ #0q", "%..1d", "%*.*q", "%1$d"};
inline constexpr std::string_view kFlags = "-+ #0";

inline Size ReadSize(Input& input) {
    Size size;
    switch (input.Below(4)) {
        case 0:
            break;
        case 1:
            size.argument = static_cast<int>(static_cast<std::int8_t>(input.Byte()));
            break;
        case 2:
            size.argument = static_cast<int>(static_cast<std::uint32_t>(input.Number(4)));
            break;
        default:
            size.digits = std::to_string(input.Number(input.Below(8)));
            break;
    }
    return size;
}

inline Directive ReadDirective(Input& input) {
    constexpr std::array kLetters = {'d', 'u', 'x', 'X', 's', 'P', 'p', 'r', 'R', 'f'};
    Directive directive;
    for (std::uint8_t flags = input.Byte() & 31U, i = 0; i < kFlags.size(); ++i) {
        directive.flags += (flags >> i & 1U) != 0 ? kFlags.substr(i, 1) : "";
    }
    directive.width = ReadSize(input);
    if (input.Below(2) == 1) {
        directive.precision = ReadSize(input);
    }
    directive.letter = input.OneOf(kLetters);
    directive.is64 = std::strchr("duxX", directive.letter) != nullptr && input.Below(2) == 1;
    return directive;
}

inline Values ReadValues(Input& input) {
    Values values;
    values.number = input.Number(8);
    std::memcpy(&values.real, &values.number, sizeof values.real);
    values.text = std::string(input.Take(input.Byte()).c_str());
    return values;
}

// What stands around the directive; `expected` is what becomes of it.
inline std::string ReadLiteral(Input& input, std::string* expected) {
    std::string format;
    for (std::uint32_t pieces = input.Below(4); pieces > 0; --pieces) {
        const std::uint32_t kind = input.Below(4);
        std::string piece = kind == 0 ? input.OneOf(kBroken) : kind == 1 ? "%" : "";
        format += kind == 1 ? "%%" : piece;
        if (kind > 1) {
            piece = input.Take(input.Below(40)).c_str();
            std::replace(piece.begin(), piece.end(), '%', '#');
            format += piece;
        }
        *expected += piece;
    }
    return format;
}

}  // namespace k9erepl::fuzz

#endif  // K9EREPL_TESTS_FUZZ_FORMAT_GRAMMAR_H
