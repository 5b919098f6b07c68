// Tested by tests/unit/platform/platform_test.cpp.

#include <pthread.h>
#include <unistd.h>
#include <utils/Thread.h>

#include <string>
#include <utility>

namespace android {
namespace {

// What the kernel keeps of a thread's name, without the end mark.
constexpr size_t kNameBytes = 15;

class DetachedAttributes {
  public:
    explicit DetachedAttributes(size_t stack) {
        pthread_attr_init(&mAttr);
        pthread_attr_setdetachstate(&mAttr, PTHREAD_CREATE_DETACHED);
        if (stack != 0) {
            // A size below the system's least is refused; the thread then has the default one.
            pthread_attr_setstacksize(&mAttr, stack);
        }
    }
    ~DetachedAttributes() { pthread_attr_destroy(&mAttr); }
    DetachedAttributes(const DetachedAttributes&) = delete;
    DetachedAttributes& operator=(const DetachedAttributes&) = delete;

    const pthread_attr_t* get() const { return &mAttr; }

  private:
    pthread_attr_t mAttr;
};

}  // namespace

// Lives on the stack of run(), which waits in waitForTid() until the new thread has taken from it
// what it needs.
struct Thread::StartRecord {
    sp<Thread> self;
    const char* name = nullptr;
    int32_t priority = PRIORITY_DEFAULT;

    pid_t waitForTid() {
        std::unique_lock<std::mutex> lock(mutex);
        started.wait(lock, [this] { return tid != -1; });
        return tid;
    }
    // The last use of the record by the new thread.
    void tellTid(pid_t own) {
        const std::lock_guard<std::mutex> lock(mutex);
        tid = own;
        started.notify_one();
    }

    std::mutex mutex;
    std::condition_variable started;
    pid_t tid = -1;
};

Thread::Thread(bool /*canCallJava*/) {}

Thread::~Thread() = default;

status_t Thread::run(const char* name, int32_t priority, size_t stack) {
    // Declared before the lock: what it holds of this object is dropped after the unlock, and may
    // be the last reference.
    StartRecord start;
    const std::lock_guard<std::mutex> lock(mLock);
    if (mRunning) {
        return INVALID_OPERATION;
    }
    start.self = this;
    start.name = name;
    start.priority = priority;
    mExitPending = false;

    const DetachedAttributes attributes(stack);
    pthread_t thread;
    if (pthread_create(&thread, attributes.get(), threadMain, &start) != 0) {
        return UNKNOWN_ERROR;
    }
    // The new thread takes mLock only after it has told its id, so nobody sees it running without.
    mTid = start.waitForTid();
    mRunning = true;
    return OK;
}

void* Thread::threadMain(void* startRecord) {
    auto* start = static_cast<StartRecord*>(startRecord);
    pthread_setname_np(pthread_self(), std::string(start->name).substr(0, kNameBytes).c_str());
    androidSetThreadPriority(0, start->priority);
    sp<Thread> self = std::move(start->self);
    start->tellTid(gettid());

    const wp<Thread> weak(self);
    bool wantsMore = !self->exitPending() && self->threadLoop();
    while (!self->endedAfterPass(wantsMore)) {
        // An object that only its own thread holds is not wanted any more, and is deleted here.
        self.clear();
        self = weak.promote();
        if (self == nullptr) {
            break;
        }
        wantsMore = self->threadLoop();
    }
    return nullptr;
}

bool Thread::endedAfterPass(bool wantsMore) {
    const std::lock_guard<std::mutex> lock(mLock);
    if (wantsMore && !mExitPending) {
        return false;
    }
    mExitPending = true;
    mRunning = false;
    mTid = -1;
    mEnded.notify_all();
    return true;
}

void Thread::requestExit() {
    const std::lock_guard<std::mutex> lock(mLock);
    mExitPending = true;
}

status_t Thread::join() {
    std::unique_lock<std::mutex> lock(mLock);
    if (mTid == gettid()) {
        return WOULD_BLOCK;
    }
    mEnded.wait(lock, [this] { return !mRunning; });
    return OK;
}

bool Thread::isRunning() const {
    const std::lock_guard<std::mutex> lock(mLock);
    return mRunning;
}

pid_t Thread::getTid() const {
    const std::lock_guard<std::mutex> lock(mLock);
    return mTid;
}

bool Thread::exitPending() const {
    const std::lock_guard<std::mutex> lock(mLock);
    return mExitPending;
}

}  // namespace android
