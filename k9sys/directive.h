// One format directive, taken apart: "%-08.3I64d" becomes its flags, width, precision and letter.
// Used by the formatter alone. Knows the grammar, not the arguments.
#ifndef K9SYS_DIRECTIVE_H
#define K9SYS_DIRECTIVE_H

namespace k9sys {

struct Directive {
    bool left = false;       // '-': pad on the right
    bool plus = false;       // '+': a sign also for positive numbers
    bool blank = false;      // ' ': a blank for the sign of positive numbers
    bool alternate = false;  // '#': "0x" before hexadecimal, a point always
    bool zero = false;       // '0': pad numbers with zeros
    bool widthFromArgument = false;
    bool precisionFromArgument = false;
    bool is64 = false;   // "I64" or "ll" before the letter
    int width = 0;       // characters at least
    int precision = -1;  // -1: none given
    char letter = '\0';  // one of "duxXsPprRf"
};

// Reads the directive behind a '%'. Returns its end, or null when `text` begins no directive that
// the formatter knows.
const char* ParseDirective(const char* text, Directive* directive);

}  // namespace k9sys

#endif  // K9SYS_DIRECTIVE_H
