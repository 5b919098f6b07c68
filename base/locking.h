// Mutex, scoped lock and condition variable on the monotonic clock, annotated so that clang's
// -Wthread-safety proves at compile time that guarded fields are touched under their lock only. The
// macros bear our prefix: the platform's own headers define the plain names for theirs.
#pragma once

#include <pthread.h>
#include <time.h>

#if defined(__clang__)
#define PELTEX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define PELTEX_THREAD_ANNOTATION(x)
#endif

#define PELTEX_CAPABILITY(x) PELTEX_THREAD_ANNOTATION(capability(x))
#define PELTEX_SCOPED_CAPABILITY PELTEX_THREAD_ANNOTATION(scoped_lockable)
#define PELTEX_GUARDED_BY(x) PELTEX_THREAD_ANNOTATION(guarded_by(x))
#define PELTEX_REQUIRES(...) PELTEX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define PELTEX_EXCLUDES(...) PELTEX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define PELTEX_ACQUIRE(...) PELTEX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define PELTEX_RELEASE(...) PELTEX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace android::installd {

// A mutex with default attributes: not recursive.
class PELTEX_CAPABILITY("mutex") Mutex {
  public:
    Mutex() { pthread_mutex_init(&mMutex, nullptr); }
    ~Mutex() { pthread_mutex_destroy(&mMutex); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() PELTEX_ACQUIRE() { pthread_mutex_lock(&mMutex); }
    void unlock() PELTEX_RELEASE() { pthread_mutex_unlock(&mMutex); }

  private:
    friend class Condition;
    pthread_mutex_t mMutex;
};

class PELTEX_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) PELTEX_ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    ~MutexLock() PELTEX_RELEASE() { mMutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mMutex;
};

// Waits can return without a broadcast: callers test what they wait for in a loop.
class Condition {
  public:
    Condition() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&mCondition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~Condition() { pthread_cond_destroy(&mCondition); }
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    void wait(Mutex& mutex) PELTEX_REQUIRES(mutex) {
        pthread_cond_wait(&mCondition, &mutex.mMutex);
    }

    // `deadline` is a point of CLOCK_MONOTONIC.
    void waitUntil(Mutex& mutex, const timespec& deadline) PELTEX_REQUIRES(mutex) {
        pthread_cond_timedwait(&mCondition, &mutex.mMutex, &deadline);
    }

    void broadcast() { pthread_cond_broadcast(&mCondition); }

  private:
    pthread_cond_t mCondition;
};

}  // namespace android::installd
