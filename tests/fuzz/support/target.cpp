#include "tests/fuzz/support/target.h"

#include <android/log.h>
#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/jail.h"
#include "tests/fuzz/support/sentinel.h"

namespace peltex_fuzz {
namespace {

constexpr char kOutside[] = "/tmp/outside";

// For one input; a busy machine may leave us waiting long.
constexpr time_t kMostSeconds = 60;

pthread_t gThread;
sem_t gInputReady;
sem_t gInputDone;
std::string gInput;
std::string gJail;

// The lowest free descriptor: it rises when one stays open.
int lowestDescriptor() {
    const int fd = dup(STDERR_FILENO);
    close(fd);
    return fd;
}

void* jailedThread(void* /*unused*/) {
    enterJail(gJail);
    prctl(PR_SET_TIMERSLACK, 1UL);  // for targets that poll
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

void raiseDescriptorLimit() {
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void start() {
    // Lines are formatted, which reads all their arguments, and then dropped.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger([](const __android_log_message* /*unused*/) {});
    raiseDescriptorLimit();
    umask(022);

    char jail[] = "/tmp/jail.XXXXXX";
    if (mkdtemp(jail) == nullptr) {
        perror(jail);
        _exit(2);
    }
    gJail = jail;
    writeFile(kOutside, "outside");

    sem_init(&gInputReady, 0, 0);
    sem_init(&gInputDone, 0, 0);
    // The trace is to show the thread that does not come to an end.
    signal(SIGUSR1, [](int /*unused*/) { fail("no end after a minute"); });
    pthread_create(&gThread, nullptr, jailedThread, nullptr);
    waitForThread();
}

void runOnJailedThread(const uint8_t* data, size_t size) {
    static Sentinel outside({kOutside, "/tmp", "/"});
    gInput.assign(reinterpret_cast<const char*>(data), size);
    sem_post(&gInputReady);
    waitForThread();
    outside.check();
}

}  // namespace
}  // namespace peltex_fuzz

// The names are libFuzzer's and the sanitizer's. NOLINTBEGIN(bugprone-reserved-identifier)
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
    peltex_fuzz::runOnJailedThread(data, size);
    return 0;
}

// Large buffers come and go with every input: a long quarantine would only cost memory.
const char* __asan_default_options() {
    return "quarantine_size_mb=16:detect_stack_use_after_return=0";
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
