// Fuzz target: the input is a format text (format_grammar.h), values and a buffer size.
// K9SysSNPrintf never writes beyond its buffer, always terminates, and prints what the C library
// prints where the directive is one of the C library's.
#include <k9sys/k9sys.h>

#include <cstring>
#include <memory>
#include <optional>

#include "fuzz/format_grammar.h"

namespace k9erepl::fuzz {

namespace {

constexpr std::size_t kLargestPlain = 8192;

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
