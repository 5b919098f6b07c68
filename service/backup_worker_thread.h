// A thread that runs the manager's tasks, one after another. What it does is the manager's loop:
// service/task_loop.cpp has both.
#pragma once

#include <stddef.h>
#include <utils/Thread.h>

namespace android::installd {

class BackupSessionManager;

class BackupWorkerThread : public Thread {
  public:
    // `manager` must outlive the thread; it is not counted, because the manager owns its workers.
    BackupWorkerThread(BackupSessionManager* manager, size_t index);
    ~BackupWorkerThread() override;

    // The manager asks this of its workers from other threads.
    using Thread::exitPending;

  private:
    bool threadLoop() override;

    const size_t workerIndex;
    BackupSessionManager* const mManager;
};

}  // namespace android::installd
