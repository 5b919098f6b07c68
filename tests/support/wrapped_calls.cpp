#include "tests/support/wrapped_calls.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <new>

#include "tests/support/jail.h"

namespace peltex_test {
namespace {

constexpr int64_t kSecond = 1000000000;
std::atomic<WaitLength> gLength{WaitLength::kReal};
std::atomic<int> gWaitsBegun{0};
std::atomic<size_t> gRefused{0};

timespec moved(const timespec& deadline, WaitLength length) {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t present = now.tv_sec * kSecond + now.tv_nsec;
    const int64_t distance = deadline.tv_sec * kSecond + deadline.tv_nsec - present;
    const bool isShort = length == WaitLength::kShort;
    const int64_t point = present + (isShort ? distance / 100 : distance + 3600 * kSecond);
    return {point / kSecond, point % kSecond};
}

}  // namespace

void setWaits(WaitLength length) {
    gLength = length;
}

int waitsBegun() {
    return gWaitsBegun;
}

void refuseMemory(size_t size) {
    gRefused = size;
}

}  // namespace peltex_test

// The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline);

__attribute__((used)) int __wrap_pthread_cond_timedwait(pthread_cond_t* condition,
                                                        pthread_mutex_t* mutex,
                                                        const timespec* deadline) {
    using namespace peltex_test;
    // Before it counts: a length that is set behind a wait that was seen is for later ones alone.
    const WaitLength length = gLength;
    ++gWaitsBegun;
    if (length == WaitLength::kReal) {
        return __real_pthread_cond_timedwait(condition, mutex, deadline);
    }
    const timespec other = moved(*deadline, length);
    return __real_pthread_cond_timedwait(condition, mutex, &other);
}

FILE* __real_fopen(const char* path, const char* mode);

__attribute__((used)) FILE* __wrap_fopen(const char* path, const char* mode) {
    FILE* stream = __real_fopen(path, mode);
    const bool isData = strncmp(path, "/data/", strlen("/data/")) == 0;
    if (stream != nullptr && isData && (fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC) == 0) {
        peltex_test::fail("%s would stay open in another program", path);
    }
    return stream;
}

void* __real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);

__attribute__((used)) void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
    return size == peltex_test::gRefused ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
