// The manager's half of the hand-off of slices: the client's next command, keep-alive or abort ends
// or prolongs the pause in which a split backup waits (task/backup_task.h).
// Tested by tests/unit/service/sessions_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include <log/log.h>

#include "service/backup_session_manager.h"

namespace android::installd {

namespace {

constexpr int32_t kNoSuchTask = -6;

}  // namespace

int32_t BackupSessionManager::addSplitTaskLocked(const std::string* args) {
    size_t workerIndex = 0;
    const int32_t result = continueSplitTaskLocked(args, workerIndex);
    return result == kNoSuchTask ? 0 : result;
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
    if (checkIsRunning() == 0) {
        ALOGE("wakeUpSplitWorkerThreadLocked: no thread is running");
        return false;
    }
    task->resume();
    return true;
}

}  // namespace android::installd
