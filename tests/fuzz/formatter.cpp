// Fuzz target: the input is a format text (one directive of any flags, width, precision and letter,
// with plain text and broken directives around it), values and a buffer size. K9SysSNPrintf never
// writes beyond its buffer, always terminates, and prints what the C library prints where the
// directive is one of the C library's.
#include <k9sys/k9sys.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "fuzz/target.h"

namespace k9erepl::fuzz {

namespace {

constexpr std::size_t kLargestPlain = 8192;

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
constexpr std::array<const char*, 10> kBroken = {"%q",  "%5.3q",   "%I6q",  "%I64s", "%llf",
                                                 "%hd", "%-+ #0q", "%..1d", "%*.*q", "%1$d"};
constexpr std::string_view kFlags = "-+ #0";

Size ReadSize(Input& input) {
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

Directive ReadDirective(Input& input) {
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

Values ReadValues(Input& input) {
    Values values;
    values.number = input.Number(8);
    std::memcpy(&values.real, &values.number, sizeof values.real);
    values.text = std::string(input.Take(input.Byte()).c_str());
    return values;
}

// What stands around the directive; `expected` is what becomes of it.
std::string ReadLiteral(Input& input, std::string* expected) {
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

// --- Printing

// Calls `print` with the directive's arguments behind those for width and precision.
template <typename Print>
auto WithValue(const Directive& directive, const Values& values, Print print) {
    const auto word = static_cast<std::uint32_t>(values.number);
    switch (directive.letter) {
        case 'f':
            return print(values.real);
        case 's':
            return print(values.text.c_str());
        case 'p':
            return print(reinterpret_cast<void*>(static_cast<std::uintptr_t>(values.number)));
        case 'P':
            return print(static_cast<std::size_t>(values.number));
        default:
            return directive.is64 ? print(values.number) : print(word);
    }
}

template <typename Call>
auto WithArguments(const Directive& directive, const Values& values, Call call) {
    std::array<int, 2> sizes = {};
    std::size_t count = 0;
    for (const Size& size : {directive.width, directive.precision.value_or(Size{})}) {
        if (size.argument) {
            sizes[count++] = *size.argument;
        }
    }
    return WithValue(directive, values, [&](auto value) {
        if (count == 2) {
            return call(sizes[0], sizes[1], value);
        }
        return count == 1 ? call(sizes[0], value) : call(value);
    });
}

// C says nothing about the other flags.
bool IsPlain(const Directive& directive) {
    if (!directive.width.IsSmall() || !directive.precision.value_or(Size{}).IsSmall()) {
        return false;
    }
    const auto has = [&](const char* flags) {
        return directive.flags.find_first_of(flags) != std::string::npos;
    };
    switch (directive.letter) {
        case 'f':
            return true;
        case 'd':
            return !has("#");
        case 'u':
        case 'r':
            return !has("#+ ");
        case 'x':
        case 'X':
            return !has("+ ");
        case 's':
            return !has("#+ 0");
        default:
            return false;
    }
}

std::optional<std::string> Plain(const Directive& directive, const Values& values) {
    const std::string format = directive.PlainText();
    std::string text(kLargestPlain, '\0');
    if (!IsPlain(directive)) {
        return std::nullopt;
    }
    const int length = WithArguments(directive, values, [&](auto... arguments) {
        return std::snprintf(text.data(), text.size(), format.c_str(), arguments...);
    });
    if (length < 0 || static_cast<std::size_t>(length) >= text.size()) {
        return std::nullopt;
    }
    text.resize(static_cast<std::size_t>(length));
    return text;
}

// Into a buffer of just that size, so that a sanitizer sees a byte beyond it.
std::string Printed(const std::string& format, const Directive& directive, const Values& values,
                    std::uint32_t size) {
    const std::unique_ptr<char[]> buffer(new char[size]);
    const std::uint32_t length = WithArguments(directive, values, [&](auto... arguments) {
        return K9SysSNPrintf(buffer.get(), size, format.c_str(), arguments...);
    });
    Expect(length < size || (size == 0 && length == 0), "the length is the buffer's");
    Expect(size == 0 || std::memchr(buffer.get(), '\0', size) == buffer.get() + length,
           "the text does not end where it says");
    return {buffer.get(), length};
}

}  // namespace

}  // namespace k9erepl::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace k9erepl::fuzz;
    Input input(data, size);
    const auto bufferSize = static_cast<std::uint32_t>(input.Number(2) % 2048);
    const Directive directive = ReadDirective(input);
    const Values values = ReadValues(input);
    std::string before;
    std::string behind;
    std::string format = ReadLiteral(input, &before) + directive.Text("I64");
    format += ReadLiteral(input, &behind);
    const std::string text = Printed(format, directive, values, bufferSize);
    if (const std::optional<std::string> plain = Plain(directive, values)) {
        const std::string whole = before + *plain + behind;
        const std::string fits = whole.substr(0, bufferSize == 0 ? 0 : bufferSize - 1);
        Expect(text == fits, format + " gives [" + text + "], expected [" + fits + "]");
    }
    return 0;
}
