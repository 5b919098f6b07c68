#include "tests/support/jail.h"

#include <fcntl.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace peltex_test {
namespace {

int gOutsideRoot = -1;
int gOutsideDir = -1;

}  // namespace

void enterJail(const std::string& dir) {
    if (gOutsideRoot < 0) {
        gOutsideRoot = open("/", O_PATH | O_CLOEXEC);
        gOutsideDir = open(".", O_PATH | O_CLOEXEC);
    }
    if (unshare(CLONE_FS) != 0 || chroot(dir.c_str()) != 0 || chdir("/") != 0) {
        fail("the jail cannot be entered");
    }
}

void leaveJail() {
    if (gOutsideRoot >= 0 &&
        (fchdir(gOutsideRoot) != 0 || chroot(".") != 0 || fchdir(gOutsideDir) != 0)) {
        perror("leaving the jail");
    }
}

void fail(const char* format, ...) {
    leaveJail();
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    abort();
}

}  // namespace peltex_test

// The sanitizers' hooks, called before they report. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void __asan_on_error() {
    peltex_test::leaveJail();
}

void __ubsan_on_report() {
    peltex_test::leaveJail();
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
