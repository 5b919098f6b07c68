#include "tests/fuzz/target.h"

#include <android/log.h>
#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "tests/support/jail.h"
#include "tests/support/test_files.h"

namespace peltex_fuzz {
namespace {

using namespace peltex_test;

constexpr char kOutside[] = "/tmp/outside";
constexpr time_t kMostSeconds = 60;  // for one input; a busy machine may leave us waiting long

pthread_t gThread;
sem_t gInputReady;
sem_t gInputDone;
std::string gInput;
char gJail[] = "/tmp/jail.XXXXXX";
int gLinksMade = 0;

// The lowest free descriptor: it rises when one stays open.
int lowestDescriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

void* jailedThread(void* /*unused*/) {
    enterJail(gJail);
    prepare();
    while (true) {
        sem_post(&gInputDone);
        while (sem_wait(&gInputReady) != 0) {
        }
        const int descriptors = lowestDescriptor();
        runInput(gInput);
        if (lowestDescriptor() != descriptors) {
            fail("a descriptor stayed open");
        }
    }
}

void waitForThread() {
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += kMostSeconds;
    while (sem_timedwait(&gInputDone, &deadline) != 0) {
        if (errno == ETIMEDOUT) {
            pthread_kill(gThread, SIGUSR1);
            pause();
        }
    }
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
    sem_init(&gInputReady, 0, 0);
    sem_init(&gInputDone, 0, 0);
    // The trace is to show the thread that does not come to an end.
    signal(SIGUSR1, [](int /*unused*/) { fail("no end after a minute"); });
    pthread_create(&gThread, nullptr, jailedThread, nullptr);
    waitForThread();
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
    gInput.assign(reinterpret_cast<const char*>(data), size);
    sem_post(&gInputReady);
    waitForThread();
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

// Large buffers come and go with every input: a long quarantine would only cost memory.
const char* __asan_default_options() {
    return "quarantine_size_mb=16:detect_stack_use_after_return=0";
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
