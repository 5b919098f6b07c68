#include "tests/fuzz/support/waits.h"

#include <errno.h>
#include <pthread.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <list>
#include <mutex>
#include <set>
#include <vector>

// The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_broadcast(pthread_cond_t* condition);
}

namespace peltex_fuzz {
namespace {

// Comes and goes under the mutex that the wait gives up: who holds that mutex and sees the waiter
// finds it waiting.
struct Waiter {
    pthread_cond_t* condition;
    pthread_mutex_t* mutex;
    bool isTimed;
    bool isWoken;
};

std::mutex gLock;
// Guarded by gLock.
std::list<Waiter> gWaiters;
std::set<pthread_cond_t*> gLapsed;

int waitWithoutEnd(const Waiter& waiter) {
    std::list<Waiter>::iterator place;
    {
        const std::lock_guard<std::mutex> lock(gLock);
        if (waiter.isTimed && gLapsed.count(waiter.condition) != 0) {
            return ETIMEDOUT;
        }
        place = gWaiters.insert(gWaiters.end(), waiter);
    }
    __real_pthread_cond_wait(waiter.condition, waiter.mutex);
    const std::lock_guard<std::mutex> lock(gLock);
    const int result = waiter.isTimed && gLapsed.count(waiter.condition) != 0 ? ETIMEDOUT : 0;
    gWaiters.erase(place);
    return result;
}

void wake(pthread_cond_t* condition) {
    {
        const std::lock_guard<std::mutex> lock(gLock);
        for (Waiter& waiter : gWaiters) {
            waiter.isWoken = waiter.isWoken || waiter.condition == condition;
        }
    }
    __real_pthread_cond_broadcast(condition);
}

bool isTimedAndWaiting(const Waiter& waiter) {
    return waiter.isTimed && !waiter.isWoken;
}

}  // namespace

size_t waitingThreads() {
    const std::lock_guard<std::mutex> lock(gLock);
    return static_cast<size_t>(std::count_if(gWaiters.begin(), gWaiters.end(),
                                             [](const Waiter& waiter) { return !waiter.isWoken; }));
}

bool isTimedWaiting() {
    const std::lock_guard<std::mutex> lock(gLock);
    return std::any_of(gWaiters.begin(), gWaiters.end(), isTimedAndWaiting);
}

void lapseTimedWaits() {
    std::vector<Waiter> waiters;
    {
        const std::lock_guard<std::mutex> lock(gLock);
        std::copy_if(gWaiters.begin(), gWaiters.end(), std::back_inserter(waiters),
                     isTimedAndWaiting);
        for (const Waiter& waiter : waiters) {
            gLapsed.insert(waiter.condition);
        }
    }
    for (const Waiter& waiter : waiters) {
        pthread_mutex_lock(waiter.mutex);
        wake(waiter.condition);
        pthread_mutex_unlock(waiter.mutex);
    }
}

void resetWaits() {
    const std::lock_guard<std::mutex> lock(gLock);
    gLapsed.clear();
}

}  // namespace peltex_fuzz

extern "C" {

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return peltex_fuzz::waitWithoutEnd({condition, mutex, false, false});
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* /*deadline*/) {
    return peltex_fuzz::waitWithoutEnd({condition, mutex, true, false});
}

int __wrap_pthread_cond_broadcast(pthread_cond_t* condition) {
    peltex_fuzz::wake(condition);
    return 0;
}

// Takes the place of the C library's: workers of a lower priority would only wait for one another.
int setpriority(__priority_which_t /*which*/, id_t /*who*/, int /*priority*/) noexcept {
    return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
