#include "tests/fuzz/target.h"

#include <android/log.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "tests/support/jail.h"
#include "tests/support/test_files.h"

namespace peltex_fuzz {
namespace {

using namespace peltex_test;

constexpr char kOutside[] = "/tmp/outside";
constexpr unsigned kMostSeconds = 60;  // for one input; a busy machine may leave us waiting long

char gJail[] = "/tmp/jail.XXXXXX";
int gLinksMade = 0;

// The lowest free descriptor: it rises when one stays open.
int lowestDescriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

void start() {
    // Lines are formatted, which reads all their arguments, and then dropped.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger([](const __android_log_message* /*unused*/) {});
    umask(022);
    if (mkdtemp(gJail) == nullptr) {
        fail("no jail can be made");
    }
    writeFile(kOutside, "outside");
    // In place of libFuzzer's own, which would write the finding into the jail.
    signal(SIGALRM, [](int /*unused*/) { fail("no end after a minute"); });
    enterJail(gJail);
    prepare();
    leaveJail();
}

}  // namespace

int linksMade() {
    return gLinksMade;
}

}  // namespace peltex_fuzz

// The names are libFuzzer's, the linker's and the sanitizer's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    if (access("/.throw-away-root", F_OK) != 0) {
        fprintf(stderr, "run the fuzz targets with scripts/fuzz.sh\n");
        _exit(2);
    }
    peltex_fuzz::start();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace peltex_fuzz;
    enterJail(gJail);
    alarm(kMostSeconds);
    const int descriptors = lowestDescriptor();
    runInput(std::string(reinterpret_cast<const char*>(data), size));
    if (lowestDescriptor() != descriptors) {
        fail("a descriptor stayed open");
    }
    alarm(0);
    leaveJail();
    if (readFile(kOutside) != "outside") {
        fail("%s was changed", kOutside);
    }
    return 0;
}

int __real_symlink(const char* target, const char* path);

int __wrap_symlink(const char* target, const char* path) {
    const int result = __real_symlink(target, path);
    peltex_fuzz::gLinksMade += result == 0 ? 1 : 0;
    return result;
}

// Large buffers come and go with every input: a long quarantine would only cost memory. A request
// for too much is the sanitizer's to report, from outside the jail.
const char* __asan_default_options() {
    return "quarantine_size_mb=16:detect_stack_use_after_return=0:max_allocation_size_mb=1024";
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
