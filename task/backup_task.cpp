// Tested by tests/unit/service/commands_test.cpp, tests/unit/service/sessions_test.cpp (the pause)
// and tests/unit/tasks.md (progress).
#define LOG_TAG "BackupSessionManager"

#include "task/backup_task.h"

#include <log/log.h>
#include <time.h>

#include <limits>

#include "base/numbers.h"
#include "bounded/bounded.h"

namespace android::installd {

namespace {

constexpr uint64_t kProgressStep = 81920;
constexpr size_t kProgressTextSize = 72;
constexpr time_t kWaitSeconds = 5;

// A split backup carries the slice size and the SELinux information where the others have the
// SELinux information and the uid; its uid comes last.
int32_t parseUid(BackupTaskType type, const std::string* words) {
    const std::string& text = type == BACKUP_SPLIT ? words[6] : words[5];
    return static_cast<int32_t>(parseNumber(text.c_str()));
}

timespec waitDeadline() {
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const time_t latest = std::numeric_limits<time_t>::max();
    deadline.tv_sec =
        deadline.tv_sec > latest - kWaitSeconds ? latest : deadline.tv_sec + kWaitSeconds;
    return deadline;
}

}  // namespace

BackupTask::BackupTask(int32_t session, int32_t id, BackupTaskType type,
                       const sp<os::IBackupSessionCallback>& clientCallback,
                       const std::string* words)
    : sessionId(session),
      taskId(id),
      taskType(type),
      callback(clientCallback),
      cmd(words[0]),
      option(words[1]),
      taskSrcPath(words[2]),
      taskDestPath(words[3]),
      se_info(words[4]),
      uid_info(words[5]),
      taskExtra(words[6]),
      uid(parseUid(type, words)) {}

bool BackupTask::addProgress(uint64_t bytes) {
    task_copy_len += bytes;
    if (callback == nullptr || task_copy_len - lastReportedLen < kProgressStep) {
        return true;
    }
    char text[kProgressTextSize] = {};
    if (snprintf_s(text, sizeof(text), sizeof(text) - 1, "%ld", static_cast<long>(task_copy_len)) <
        0) {
        return false;
    }
    notify(TASK_STATUS_PROGRESS, text);
    lastReportedLen = task_copy_len;
    return true;
}

void BackupTask::notify(TaskStatus status, const std::string& message) const {
    if (callback != nullptr) {
        callback->onTaskStatusChanged(sessionId, taskId, status, message);
    }
}

void BackupTask::pause() {
    MutexLock lock(taskLock);
    if (waitForResume()) {
        return;
    }
    isAborted = true;
    notify(TASK_STATUS_TIMEOUT, "timout caused");
    ALOGI("timeout abort task %d", taskId);
}

// Every return from a wait takes one from the budget, also one that a keep-alive caused. Returns
// false when the budget is used up.
bool BackupTask::waitForResume() {
    isWaiting = true;
    waitCountdown = kWaitBudget;
    do {
        if (!isWaiting) {
            return true;
        }
        taskCond.waitUntil(taskLock, waitDeadline());
        if (!isWaiting) {
            return true;
        }
    } while (waitCountdown-- > 0);
    return false;
}

void BackupTask::resume() {
    MutexLock lock(taskLock);
    isWaiting = false;
    taskCond.broadcast();
}

void BackupTask::keepAlive() {
    MutexLock lock(taskLock);
    waitCountdown = kWaitBudget;
    taskCond.broadcast();
}

}  // namespace android::installd
