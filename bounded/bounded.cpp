#include "bounded/bounded.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

constexpr size_t kMaxCount = 0x7FFFFFFE;

// What the formatter answers when the text is longer than its room; the destination then holds the
// part that fits.
constexpr int kDoesNotFit = -2;

bool isBadSize(size_t destMax) {
    return destMax == 0 || destMax > BOUNDED_MAX_SIZE;
}

bool overlaps(const void* dest, size_t destLength, const void* src, size_t srcLength) {
    const auto destBegin = reinterpret_cast<uintptr_t>(dest);
    const auto srcBegin = reinterpret_cast<uintptr_t>(src);
    return destBegin < srcBegin ? srcBegin - destBegin < destLength
                                : destBegin - srcBegin < srcLength;
}

int clearBytes(void* dest, size_t destMax, int result) {
    memset(dest, 0, destMax);
    return result;
}

int clearText(char* dest, int result) {
    dest[0] = '\0';
    return result;
}

__attribute__((format(printf, 3, 0))) int formatInto(char* dest, size_t room, const char* format,
                                                     va_list args) {
    const int length = vsnprintf(dest, room, format, args);
    if (length < 0) {
        return -1;
    }
    return static_cast<size_t>(length) < room ? length : kDoesNotFit;
}

bool isUnusable(const char* dest, size_t destMax, const char* format) {
    return dest == nullptr || format == nullptr || isBadSize(destMax);
}

int refuseText(char* dest, size_t destMax) {
    if (dest != nullptr && !isBadSize(destMax)) {
        dest[0] = '\0';
    }
    return -1;
}

}  // namespace

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (isBadSize(destMax)) {
        return BOUNDED_BAD_SIZE;
    }
    if (dest == nullptr) {
        return BOUNDED_NULL_DEST;
    }
    if (src == nullptr) {
        return clearBytes(dest, destMax, BOUNDED_NULL_SOURCE);
    }
    if (count > destMax) {
        return clearBytes(dest, destMax, BOUNDED_DOES_NOT_FIT);
    }
    if (count != 0 && overlaps(dest, count, src, count)) {
        return clearBytes(dest, destMax, BOUNDED_OVERLAP);
    }
    memcpy(dest, src, count);
    return BOUNDED_OK;
}

int memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (isBadSize(destMax)) {
        return BOUNDED_BAD_SIZE;
    }
    if (dest == nullptr) {
        return BOUNDED_NULL_DEST;
    }
    memset(dest, c, std::min(count, destMax));
    return count <= destMax ? BOUNDED_OK : BOUNDED_DOES_NOT_FIT;
}

int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    if (isBadSize(destMax)) {
        return BOUNDED_BAD_SIZE;
    }
    if (dest == nullptr) {
        return BOUNDED_NULL_DEST;
    }
    if (src == nullptr) {
        return clearText(dest, BOUNDED_NULL_SOURCE);
    }
    if (count > BOUNDED_MAX_SIZE) {
        return clearText(dest, BOUNDED_DOES_NOT_FIT);
    }
    const size_t length = strnlen(src, std::min(count, destMax));
    if (length >= destMax) {
        return clearText(dest, BOUNDED_DOES_NOT_FIT);
    }
    if (length != 0 && overlaps(dest, length + 1, src, length)) {
        return clearText(dest, BOUNDED_OVERLAP);
    }
    memcpy(dest, src, length);
    dest[length] = '\0';
    return BOUNDED_OK;
}

int vsprintf_s(char* dest, size_t destMax, const char* format, va_list args) {
    if (isUnusable(dest, destMax, format)) {
        return refuseText(dest, destMax);
    }
    const int length = formatInto(dest, destMax, format, args);
    return length < 0 ? refuseText(dest, destMax) : length;
}

int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args) {
    if (isUnusable(dest, destMax, format) || count > kMaxCount) {
        return refuseText(dest, destMax);
    }
    const int length = formatInto(dest, std::min(destMax, count + 1), format, args);
    return length < 0 ? refuseText(dest, destMax) : length;
}

int vsnprintf_truncated_s(char* dest, size_t destMax, const char* format, va_list args) {
    if (isUnusable(dest, destMax, format)) {
        return refuseText(dest, destMax);
    }
    const int length = formatInto(dest, destMax, format, args);
    if (length == kDoesNotFit) {
        return static_cast<int>(destMax - 1);
    }
    return length < 0 ? refuseText(dest, destMax) : length;
}

int sprintf_s(char* dest, size_t destMax, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = vsprintf_s(dest, destMax, format, args);
    va_end(args);
    return length;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return length;
}

int snprintf_truncated_s(char* dest, size_t destMax, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = vsnprintf_truncated_s(dest, destMax, format, args);
    va_end(args);
    return length;
}
