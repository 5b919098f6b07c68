// Numbers as texts from outside have them.
#pragma once

#include <ctype.h>
#include <stdlib.h>

namespace android::installd {

// Decimal, 0x hexadecimal or leading-0 octal, with a sign or without; the number ends at the first
// character that is no digit of it, and what is no number reads as 0. strtol, but on every device
// alike: newer C libraries also take the binary "0b11", which is the octal 0 here.
inline long parseNumber(const char* text) {
    const char* digits = text;
    while (isspace(static_cast<unsigned char>(*digits)) != 0) {
        ++digits;
    }
    if (*digits == '+' || *digits == '-') {
        ++digits;
    }
    const bool isBinary = digits[0] == '0' && (digits[1] == 'b' || digits[1] == 'B');
    return isBinary ? 0 : strtol(text, nullptr, 0);
}

}  // namespace android::installd
