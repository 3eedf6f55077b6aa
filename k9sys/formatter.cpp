// Turns a format and its arguments into text. Everything is padded here and not by printf, so
// that a width of any size costs no buffer and the host's locale changes nothing.
#include "formatter.h"

#include <k9sys/k9sys.h>

#include <cassert>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "directive.h"

namespace k9sys {

namespace {

// A va_list as a parameter may be a pointer or a copy; behind a pointer it is one object
// everywhere.
struct Arguments {
    va_list* list;
};

// A number taken apart for padding: sign or "0x", zeros, digits, zeros.
struct NumberText {
    std::string_view prefix;
    std::size_t zerosBefore = 0;
    std::string_view digits;
    std::size_t zerosBehind = 0;
    bool mayPadWithZeros = true;

    std::size_t Size() const { return prefix.size() + zerosBefore + digits.size() + zerosBehind; }
};

std::size_t Missing(int wanted, std::size_t present) {
    const std::size_t size = wanted < 0 ? 0 : static_cast<std::size_t>(wanted);
    return size > present ? size - present : 0;
}

void PutNumber(TextOutput& out, const Directive& directive, NumberText number) {
    std::size_t padding = Missing(directive.width, number.Size());
    if (directive.zero && !directive.left && number.mayPadWithZeros) {
        number.zerosBefore += padding;
        padding = 0;
    }
    out.Fill(' ', directive.left ? 0 : padding);
    out.Put(number.prefix);
    out.Fill('0', number.zerosBefore);
    out.Put(number.digits);
    out.Fill('0', number.zerosBehind);
    out.Fill(' ', directive.left ? padding : 0);
}

std::string_view SignOf(bool negative, const Directive& directive) {
    if (negative) {
        return "-";
    }
    if (directive.plus) {
        return "+";
    }
    return directive.blank ? " " : "";
}

void PutInteger(TextOutput& out, const Directive& directive, std::string_view prefix,
                std::uint64_t value, int base) {
    char digits[24] = {};
    char* end = std::to_chars(digits, digits + sizeof digits, value, base).ptr;
    if (directive.precision == 0 && value == 0) {
        end = digits;
    }
    if (directive.letter != 'x' && directive.letter != 'p') {
        for (char* c = digits; c != end; ++c) {
            *c = *c >= 'a' ? static_cast<char>(*c - 'a' + 'A') : *c;
        }
    }
    NumberText number{.prefix = prefix, .digits = {digits, static_cast<std::size_t>(end - digits)}};
    number.zerosBefore = Missing(directive.precision, number.digits.size());
    number.mayPadWithZeros = directive.precision < 0;
    PutNumber(out, directive, number);
}

void PutSigned(TextOutput& out, const Directive& directive, std::int64_t value) {
    const auto bits = static_cast<std::uint64_t>(value);
    PutInteger(out, directive, SignOf(value < 0, directive), value < 0 ? 0 - bits : bits, 10);
}

void PutHexadecimal(TextOutput& out, const Directive& directive, std::uint64_t value) {
    std::string_view prefix;
    if (directive.alternate && value != 0) {
        prefix = directive.letter == 'x' ? "0x" : "0X";
    }
    PutInteger(out, directive, prefix, value, 16);
}

// Result codes below 0x8000 are read as decimal numbers, the family above it as hexadecimal ones.
void PutResultCode(TextOutput& out, const Directive& directive, std::uint32_t code) {
    const bool hexadecimal = code >= 0x8000;
    PutInteger(out, directive, hexadecimal ? "0x" : "", code, hexadecimal ? 16 : 10);
}

void PutDouble(TextOutput& out, const Directive& directive, double value) {
    // The digits of every finite double end here, so longer precisions are zeros.
    constexpr int kMaxFraction = 1074;
    constexpr int kMaxInteger = 309;
    char digits[kMaxInteger + 1 + kMaxFraction + 1];
    const int precision = directive.precision < 0 ? 6 : directive.precision;
    const int computed = precision < kMaxFraction ? precision : kMaxFraction;
    char* end = std::to_chars(digits, digits + sizeof digits, std::fabs(value),
                              std::chars_format::fixed, computed)
                    .ptr;
    if (directive.alternate && precision == 0 && std::isfinite(value)) {
        *end++ = '.';
    }
    NumberText number{.prefix = SignOf(std::signbit(value), directive),
                      .digits = {digits, static_cast<std::size_t>(end - digits)}};
    number.mayPadWithZeros = std::isfinite(value);
    number.zerosBehind = std::isfinite(value) ? static_cast<std::size_t>(precision - computed) : 0;
    PutNumber(out, directive, number);
}

// With a limit (-1: none) the text need not be terminated.
std::size_t TextLength(const char* text, int limit) {
    if (limit < 0) {
        return std::strlen(text);
    }
    const auto size = static_cast<std::size_t>(limit);
    const void* const end = std::memchr(text, '\0', size);
    return end == nullptr ? size : static_cast<std::size_t>(static_cast<const char*>(end) - text);
}

void PutString(TextOutput& out, const Directive& directive, const char* text) {
    text = text == nullptr ? "(null)" : text;
    const std::size_t length = TextLength(text, directive.precision);
    const std::size_t padding = Missing(directive.width, length);
    out.Fill(' ', directive.left ? 0 : padding);
    out.Put({text, length});
    out.Fill(' ', directive.left ? padding : 0);
}

void TakeSizes(Directive& directive, Arguments& args) {
    if (directive.widthFromArgument) {
        const int width = va_arg(*args.list, int);
        directive.left = directive.left || width < 0;
        directive.width = width == INT_MIN ? INT_MAX : std::abs(width);
    }
    if (directive.precisionFromArgument) {
        directive.precision = va_arg(*args.list, int);
    }
}

void PutDirective(TextOutput& out, Directive directive, Arguments& args) {
    TakeSizes(directive, args);
    switch (directive.letter) {
        case 'd':
            PutSigned(out, directive,
                      directive.is64 ? va_arg(*args.list, long long) : va_arg(*args.list, int));
            return;
        case 's':
            PutString(out, directive, va_arg(*args.list, const char*));
            return;
        case 'f':
            PutDouble(out, directive, va_arg(*args.list, double));
            return;
        case 'P':
            PutInteger(out, directive, "", va_arg(*args.list, std::size_t), 10);
            return;
        case 'p': {
            const auto address = reinterpret_cast<std::uintptr_t>(va_arg(*args.list, void*));
            PutInteger(out, directive, "0x", address, 16);
            return;
        }
        case 'R':
            PutResultCode(out, directive, va_arg(*args.list, unsigned));
            return;
        default:
            break;
    }
    const std::uint64_t value =
        directive.is64 ? va_arg(*args.list, unsigned long long) : va_arg(*args.list, unsigned);
    if (directive.letter == 'x' || directive.letter == 'X') {
        PutHexadecimal(out, directive, value);
        return;
    }
    assert(directive.letter == 'u' || directive.letter == 'r');
    PutInteger(out, directive, "", value, 10);
}

// Handles what begins at a '%' and returns where the text goes on.
const char* PutAtPercent(TextOutput& out, const char* percent, Arguments& args) {
    if (percent[1] == '%') {
        out.Fill('%', 1);
        return percent + 2;
    }
    Directive directive;
    const char* const end = ParseDirective(percent + 1, &directive);
    if (end == nullptr) {
        out.Fill('%', 1);
        return percent + 1;
    }
    PutDirective(out, directive, args);
    return end;
}

}  // namespace

void FormatText(TextOutput& out, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    Arguments arguments = {&copy};
    while (*format != '\0') {
        const std::size_t plain = std::strcspn(format, "%");
        out.Put({format, plain});
        format += plain;
        if (*format == '%') {
            format = PutAtPercent(out, format, arguments);
        }
    }
    va_end(copy);
    out.Terminate();
}

}  // namespace k9sys

uint32_t K9SysSNPrintf(char* buffer, uint32_t size, const char* format, ...) {
    k9sys::TextOutput out(buffer, buffer == nullptr ? 0 : size);
    va_list args;
    va_start(args, format);
    k9sys::FormatText(out, format == nullptr ? "" : format, args);
    va_end(args);
    return static_cast<uint32_t>(out.Written());
}
