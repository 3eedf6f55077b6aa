// The grammar of format directives: flags, width, precision, length, letter.
#include "directive.h"

#include <climits>
#include <cstring>
#include <string_view>

namespace k9sys {

namespace {

constexpr std::string_view kPrefixesOf64[] = {"I64", "ll"};

const char* ParseFlags(const char* text, Directive* directive) {
    for (;; ++text) {
        switch (*text) {
            case '-':
                directive->left = true;
                break;
            case '+':
                directive->plus = true;
                break;
            case ' ':
                directive->blank = true;
                break;
            case '#':
                directive->alternate = true;
                break;
            case '0':
                directive->zero = true;
                break;
            default:
                return text;
        }
    }
}

// A number too large for an int counts as the largest int.
const char* ParseNumber(const char* text, int* number) {
    long long value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10 + (*text - '0');
        value = value < INT_MAX ? value : INT_MAX;
    }
    *number = static_cast<int>(value);
    return text;
}

const char* ParseSize(const char* text, int* number, bool* fromArgument) {
    if (*text == '*') {
        *fromArgument = true;
        return text + 1;
    }
    return ParseNumber(text, number);
}

const char* ParseLength(const char* text, Directive* directive) {
    for (const std::string_view prefix : kPrefixesOf64) {
        if (std::strncmp(text, prefix.data(), prefix.size()) == 0) {
            directive->is64 = true;
            return text + prefix.size();
        }
    }
    return text;
}

}  // namespace

const char* ParseDirective(const char* text, Directive* directive) {
    text = ParseFlags(text, directive);
    text = ParseSize(text, &directive->width, &directive->widthFromArgument);
    if (*text == '.') {
        text = ParseSize(text + 1, &directive->precision, &directive->precisionFromArgument);
    }
    text = ParseLength(text, directive);
    const char* const letters = directive->is64 ? "duxX" : "duxXsPprRf";
    if (*text == '\0' || std::strchr(letters, *text) == nullptr) {
        return nullptr;
    }
    directive->letter = *text;
    return text + 1;
}

}  // namespace k9sys
