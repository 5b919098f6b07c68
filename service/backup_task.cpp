// Tested by tests/service/commands_test.cpp and tests/fileops/file_operations_test.cpp.
#include "service/backup_task.h"

#include <stdlib.h>

#include "bounded/bounded.h"

namespace android::installd {

namespace {

constexpr uint64_t kProgressStep = 81920;
constexpr size_t kProgressTextSize = 72;

// A split backup carries the slice size and the SELinux information where the others have the
// SELinux information and the uid; its uid comes last.
int32_t parseUid(BackupTaskType type, const std::string* words) {
    const std::string& text = type == BACKUP_SPLIT ? words[6] : words[5];
    return static_cast<int32_t>(strtol(text.c_str(), nullptr, 0));
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

}  // namespace android::installd
