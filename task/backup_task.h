// One task: what a queued command asks for, how far it has come, what its client is told, and the
// pause of a split backup. Shared by strong pointers.
#pragma once

#include <android/os/IBackupSessionCallback.h>
#include <stddef.h>
#include <stdint.h>
#include <utils/RefBase.h>

#include <atomic>
#include <string>

#include "base/locking.h"

namespace android::installd {

// The kinds of task; the values are part of the log.
enum BackupTaskType : int32_t {
    BACKUP_FILE = 0,
    BACKUP_DIR = 1,
    BACKUP_TAR = 2,
    BACKUP_SPLIT = 3,
    RESTORE_FILE = 4,
    RESTORE_DIR = 5,
    RESTORE_TAR = 6,
    RESTORE_SPLIT = 7,
    MOVE_DIR = 8,
    BACKUP_BY_FILE = 9,
    GET_BRIEFS_BY_DIR = 10,
    GET_BRIEFS_BY_FILE = 11,
};

// What the client's callback is told about a task.
//
// | status                     | message                                                          |
// |----------------------------|------------------------------------------------------------------|
// | TASK_STATUS_STARTED        | "processTask start"                                              |
// | TASK_STATUS_SUCCESS        | "processTask finish"                                             |
// | TASK_STATUS_FAILED         | "processTask finish", or "prepareTask error" for a dropped task  |
// | TASK_STATUS_ABORTED        | empty                                                            |
// | TASK_STATUS_PROGRESS       | bytes done so far, decimal                                       |
// | TASK_STATUS_SLICE_PACKAGED | path of the slice; "|end" behind the last one, or "end" alone    |
// | TASK_STATUS_TIMEOUT        | "timout caused"                                                  |
// | TASK_STATUS_BRIEF_SIZE     | bytes of the files found, decimal                                |
enum TaskStatus : int32_t {
    TASK_STATUS_FAILED = -1,
    TASK_STATUS_SUCCESS = 0,
    TASK_STATUS_STARTED = 1,
    TASK_STATUS_ABORTED = 2,
    TASK_STATUS_PROGRESS = 3,
    TASK_STATUS_SLICE_PACKAGED = 4,
    TASK_STATUS_TIMEOUT = 5,
    TASK_STATUS_BRIEF_SIZE = 6,
};

// How many words of a command a task keeps; later words are only counted.
constexpr size_t kCommandWords = 7;

class BackupTask : public virtual RefBase {
  public:
    // `words` holds the kCommandWords words of the command, empty where it was shorter.
    BackupTask(int32_t session, int32_t id, BackupTaskType type,
               const sp<os::IBackupSessionCallback>& clientCallback, const std::string* words);

    // Counts `bytes` more as done and, each time the total has grown by another 80 KiB or more,
    // tells the callback the new total. Returns false when the total could not be written as text;
    // nothing was told then and the next call tries again. For the task's own worker only.
    bool addProgress(uint64_t bytes);

    // Tells the callback that the task got with its command; nobody when it got none.
    void notify(TaskStatus status, const std::string& message) const;

    // The pause of a split backup between two slices: blocks the worker until resume() or until
    // seven waits of five seconds are over, which aborts the task and tells its callback so. A
    // resume() that comes before the pause is lost: clients continue after they were told of the
    // slice, and again when nothing moves.
    void pause() PELTEX_EXCLUDES(taskLock);
    void resume() PELTEX_EXCLUDES(taskLock);

    // Gives a pause its whole budget of waits again, of which this wake-up takes one.
    void keepAlive() PELTEX_EXCLUDES(taskLock);

    // Constant while the task is queued or running, but for `workerIndex`, which the manager sets
    // under its own lock when a worker takes the task.
    const int32_t sessionId;
    const int32_t taskId;
    size_t workerIndex = 0;
    const BackupTaskType taskType;
    const sp<os::IBackupSessionCallback> callback;
    const std::string cmd;
    const std::string option;
    const std::string taskSrcPath;
    const std::string taskDestPath;
    const std::string se_info;
    const std::string uid_info;
    const std::string taskExtra;

    // For the task's own worker only; in bytes.
    uint64_t task_copy_len = 0;
    uint64_t lastReportedLen = 0;

    // Only ever goes from false to true: by an abort, the session's end, a time-out or the
    // manager's end.
    std::atomic<bool> isAborted{false};

    const int32_t uid;

    // The resolved paths, null where a path does not resolve. They point into the worker's own
    // buffers and are valid while the handler runs.
    char* realSrcPath = nullptr;
    char* realDestPath = nullptr;

  private:
    // How many waits a pause has left behind its first one when it begins. A keep-alive sets it
    // again, and wakes the worker, which takes one.
    static constexpr int32_t kWaitBudget = 6;

    bool waitForResume() PELTEX_REQUIRES(taskLock);

    Mutex taskLock;
    Condition taskCond;
    bool isWaiting PELTEX_GUARDED_BY(taskLock) = false;
    int32_t waitCountdown PELTEX_GUARDED_BY(taskLock) = kWaitBudget;
};

}  // namespace android::installd
