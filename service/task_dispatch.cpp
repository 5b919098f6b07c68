// Which handler carries out which kind of task. The members forward to the handlers: those know the
// task and nothing of the manager.
// Tested by tests/unit/service/sessions_test.cpp, tests/unit/briefs.md and tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include <log/log.h>
#include <utils/AndroidThreads.h>

#include "base/path_rules.h"
#include "handlers/archive_handlers.h"
#include "handlers/brief_handlers.h"
#include "handlers/by_list_handler.h"
#include "handlers/copy_handlers.h"
#include "service/backup_session_manager.h"

namespace android::installd {

int32_t BackupSessionManager::runHandler(sp<BackupTask>& task) {
    int32_t weight = 0;
    switch (task->taskType) {
        case BACKUP_FILE:
            return backupFileBase(task);
        case BACKUP_DIR:
            return backupDirBase(task);
        case BACKUP_TAR:
            weight = applyWeight();
            ALOGD("BackupSessionManager tarTask, weight:%d, pri:%d", weight,
                  androidGetThreadPriority(0));
            return backupTarBase(task);
        case BACKUP_SPLIT:
            weight = applyWeight();
            ALOGD("BackupSessionManager SplitTask, weight:%d, pri:%d", weight,
                  androidGetThreadPriority(0));
            return backupSplitBase(task);
        case RESTORE_FILE:
            return restoreFileBase(task);
        case RESTORE_DIR:
            return restoreDirBase(task);
        case MOVE_DIR:
            return moveDirBase(task);
        case RESTORE_TAR:
        case RESTORE_SPLIT:
            return restoreTarBase(task);
        case BACKUP_BY_FILE:
            return BackupByFileBase(task);
        case GET_BRIEFS_BY_DIR:
            return GetFileBriefsByDir(task);
        case GET_BRIEFS_BY_FILE:
            return GetFileBriefsByFile(task);
    }
    ALOGE("processTask error, task type %d is not existed", task->taskType);
    return -1;
}

int32_t BackupSessionManager::backupFileBase(sp<BackupTask>& task) {
    return installd::backupFileBase(task);
}

int32_t BackupSessionManager::backupDirBase(sp<BackupTask>& task) {
    return installd::backupDirBase(task);
}

int32_t BackupSessionManager::restoreFileBase(sp<BackupTask>& task) {
    return installd::restoreFileBase(task);
}

int32_t BackupSessionManager::restoreDirBase(sp<BackupTask>& task) {
    return installd::restoreDirBase(task);
}

int32_t BackupSessionManager::moveDirBase(sp<BackupTask>& task) {
    return installd::moveDirBase(task);
}

int32_t BackupSessionManager::backupTarBase(sp<BackupTask>& task) {
    return installd::backupTarBase(task);
}

int32_t BackupSessionManager::backupSplitBase(sp<BackupTask>& task) {
    return installd::backupSplitBase(task);
}

int32_t BackupSessionManager::restoreTarBase(sp<BackupTask>& task) {
    return installd::restoreTarBase(task);
}

int BackupSessionManager::GetFileBriefsByDir(const sp<BackupTask>& task) const {
    return installd::GetFileBriefsByDir(task, [this, &task](const std::string& total) {
        tellClient(task, TASK_STATUS_BRIEF_SIZE, total);
    });
}

int BackupSessionManager::GetFileBriefsByFile(const sp<BackupTask>& task) const {
    return installd::GetFileBriefsByFile(task, [this, &task](const std::string& total) {
        tellClient(task, TASK_STATUS_BRIEF_SIZE, total);
    });
}

int BackupSessionManager::BackupByFileBase(const sp<BackupTask>& task) const {
    return installd::BackupByFileBase(task);
}

bool BackupSessionManager::isStoragePath(const char* path) const {
    return installd::isStoragePath(path);
}

}  // namespace android::installd
