// Tested by tests/unit/platform/platform_test.cpp.

#include <sys/resource.h>
#include <utils/AndroidThreads.h>
#include <utils/Errors.h>

// PRIO_PROCESS with a thread's id means that thread alone on Linux, whatever its name says.

int androidSetThreadPriority(pid_t tid, int prio) {
    const int result = setpriority(PRIO_PROCESS, static_cast<id_t>(tid), prio);
    return result == 0 ? android::OK : android::INVALID_OPERATION;
}

int androidGetThreadPriority(pid_t tid) {
    return getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
}
