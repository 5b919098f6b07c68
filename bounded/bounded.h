// Length-checked copy, fill and format functions. Every write into a buffer of fixed size goes
// through one of them: they are told the size of the destination, refuse rather than overrun it,
// and say so in their result. Nobody uses a destination after a refusal.
//
// The functions keep no state and may be called from any thread.
#pragma once

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Results of the copy and fill functions. Where the destination was usable the refusal also resets
// it, which the bit 128 of the result tells: a memory copy clears all `destMax` bytes, a string
// copy makes the destination an empty string, a fill fills it all.
enum BoundedResult {
    BOUNDED_OK = 0,
    BOUNDED_NULL_DEST = 22,           // nothing written
    BOUNDED_BAD_SIZE = 34,            // size 0 or above BOUNDED_MAX_SIZE; nothing written
    BOUNDED_NULL_SOURCE = 22 | 128,   // reset
    BOUNDED_DOES_NOT_FIT = 34 | 128,  // more data than room; reset
    BOUNDED_OVERLAP = 54 | 128,       // source and destination overlap; reset
};

// The largest destination, in bytes, that any of the functions takes.
#define BOUNDED_MAX_SIZE ((size_t)0x7FFFFFFF)

// Copies `count` bytes; a count of 0 copies nothing and is no error.
int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);

// Fills `count` bytes with `c`.
int memset_s(void* dest, size_t destMax, int c, size_t count);

// Copies at most `count` (below 0x80000000) characters of `src` and ends them with NUL.
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);

// The format functions return the number of characters written without the NUL, or -1 when the text
// does not fit or an argument is unusable; the destination, where usable, is then an empty string.
int sprintf_s(char* dest, size_t destMax, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int vsprintf_s(char* dest, size_t destMax, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// As sprintf_s, with room for at most `count` (0x7FFFFFFE at the most) characters and their NUL.
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args)
    __attribute__((format(printf, 4, 0)));

// As sprintf_s, but a text that does not fit is cut to `destMax` - 1 characters, which is the
// result.
int snprintf_truncated_s(char* dest, size_t destMax, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int vsnprintf_truncated_s(char* dest, size_t destMax, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif
