// Thread: an object with a thread of its own that calls threadLoop() again and again.
//
// Every public operation is safe from any thread. The running thread keeps the object alive while
// it is in threadLoop(); between two passes it lets go, and an object that nobody else holds ends
// there. An object that has ended can be run again.

#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <utils/AndroidThreads.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/ThreadDefs.h>

#include <condition_variable>
#include <mutex>

namespace android {

class Thread : public virtual RefBase {
  public:
    // Whether the thread may call Java makes no difference here: there is none.
    explicit Thread(bool canCallJava = true);
    ~Thread() override;

    // Starts the thread. The kernel takes 15 bytes of the name; `stack` is in bytes, 0 the default.
    // Returns INVALID_OPERATION while it runs, UNKNOWN_ERROR when no thread could be had.
    // REQUIRES: the object is held by an sp.
    virtual status_t run(const char* name, int32_t priority = PRIORITY_DEFAULT, size_t stack = 0);

    // Asks the thread to end after the current pass and does not wait for it.
    virtual void requestExit();

    // Waits until the thread has ended. Returns OK, or WOULD_BLOCK from the thread itself.
    status_t join();

    // True from run() until the loop has decided to end; the thread may have a few steps left then.
    bool isRunning() const;
    // The kernel's thread id while isRunning(), else -1.
    pid_t getTid() const;

  protected:
    bool exitPending() const;

  private:
    struct StartRecord;

    // Called until it returns false or an exit is pending after it returned. Not called at all when
    // the exit was requested before the thread came to it.
    virtual bool threadLoop() = 0;

    static void* threadMain(void* startRecord);
    bool endedAfterPass(bool wantsMore);

    mutable std::mutex mLock;
    std::condition_variable mEnded;

    // Guarded by mLock.
    bool mExitPending = false;
    bool mRunning = false;
    pid_t mTid = -1;
};

}  // namespace android
