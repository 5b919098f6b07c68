// The hand-off of a split backup's slices, from both sides: the worker reports a slice and pauses,
// the client's next command, keep-alive or abort wakes it.
//
// A continuation that comes before the worker pauses is lost: the pause begins afresh. Clients
// continue after they were told of the slice, and again when nothing moves.
// Tested by tests/service/split_hand_off_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include <log/log.h>
#include <time.h>

#include <limits>

#include "service/backup_session_manager.h"
#include "service/tar_cb_impl.h"

namespace android::installd {

namespace {

constexpr int32_t kNoSuchTask = -6;
constexpr time_t kWaitSeconds = 5;

timespec waitDeadline() {
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const time_t latest = std::numeric_limits<time_t>::max();
    deadline.tv_sec =
        deadline.tv_sec > latest - kWaitSeconds ? latest : deadline.tv_sec + kWaitSeconds;
    return deadline;
}

// Waits until the task is continued. Every return from a wait takes one from the budget, also one
// that a keep-alive caused. Returns false when the budget is used up.
bool waitForContinuation(BackupTask& task) PELTEX_REQUIRES(task.taskLock) {
    task.isWaiting = true;
    task.waitCountdown = kWaitBudget;
    do {
        if (!task.isWaiting) {
            return true;
        }
        task.taskCond.waitUntil(task.taskLock, waitDeadline());
        if (!task.isWaiting) {
            return true;
        }
    } while (task.waitCountdown-- > 0);
    return false;
}

}  // namespace

bool TarCBImpl::IsAborted() {
    return (*mTask)->isAborted;
}

void TarCBImpl::OnTaskProgress(unsigned long bytes) {
    const sp<BackupTask>& task = *mTask;
    if (task->isAborted || task->callback == nullptr) {
        return;
    }
    if (!task->addProgress(bytes)) {
        ALOGE("OnTaskProgress, get task_copy_len error");
    }
}

void TarCBImpl::OnPackagedOneSplitTar(const char* sliceInfo) {
    ALOGD("call OnSplitTarPackaged method");
    (*mTask)->notify(TASK_STATUS_SLICE_PACKAGED, sliceInfo);
}

void TarCBImpl::WaitTaskLocked() {
    BackupTask& task = **mTask;
    MutexLock lock(task.taskLock);
    if (waitForContinuation(task)) {
        return;
    }
    task.isAborted = true;
    task.notify(TASK_STATUS_TIMEOUT, "timout caused");
    ALOGI("timeout abort task %d", task.taskId);
}

int32_t BackupSessionManager::addSplitTaskLocked(const std::string* args) {
    size_t workerIndex = 0;
    const int32_t result = continueSplitTaskLocked(args, workerIndex);
    if (result == kNoSuchTask) {
        return 0;
    }
    return result == COMMAND_NOT_WOKEN || workerIndex >= kWorkers ? COMMAND_NOT_WOKEN : result;
}

int32_t BackupSessionManager::continueSplitTaskLocked(const std::string* args,
                                                      size_t& workerIndex) {
    for (const sp<BackupTask>& task : mProcessingTasks) {
        if (task->taskType != BACKUP_SPLIT || task->taskSrcPath != args[2] ||
            task->taskDestPath != args[3]) {
            continue;
        }
        ALOGD("continueSplitTaskLocked: a backup split task exists,wake up processing thread");
        if (!wakeUpSplitWorkerThreadLocked(task)) {
            return COMMAND_NOT_WOKEN;
        }
        workerIndex = task->workerIndex;
        return task->taskId;
    }
    return kNoSuchTask;
}

bool BackupSessionManager::wakeUpSplitWorkerThreadLocked(const sp<BackupTask>& task) {
    MutexLock lock(task->taskLock);
    if (checkIsRunning() == 0) {
        ALOGE("wakeUpSplitWorkerThreadLocked: no thread is running");
        return false;
    }
    task->isWaiting = false;
    task->taskCond.broadcast();
    return true;
}

}  // namespace android::installd
