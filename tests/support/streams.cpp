// Streams of the library are for this process alone: what the daemon starts inherits none. One that is
// opened otherwise ends the test.
#include <fcntl.h>
#include <stdio.h>

#include "tests/support/jail.h"

// The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

FILE* __real_fopen(const char* path, const char* mode);

__attribute__((used)) FILE* __wrap_fopen(const char* path, const char* mode) {
    FILE* stream = __real_fopen(path, mode);
    if (stream != nullptr && (fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC) == 0) {
        peltex_test::fail("%s would stay open in another program", path);
    }
    return stream;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
