// Tested by tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include "handlers/copy_handlers.h"

#include <log/log.h>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/path_rules.h"
#include "base/paths.h"
#include "base/permissions.h"
#include "brief/permission_record.h"
#include "fileops/copy.h"
#include "fileops/create_dir.h"
#include "fileops/delete.h"
#include "fileops/relabel.h"

namespace android::installd {

namespace {

constexpr int32_t kBackupFileFailed = -11;
constexpr int32_t kBackupDirFailed = -12;
constexpr int32_t kRestoreFileFailed = -16;
constexpr int32_t kRestoreDirFailed = -17;
constexpr int32_t kMoveFailed = -19;

}  // namespace

int32_t backupFileBase(sp<BackupTask>& task) {
    if (task->taskType != BACKUP_FILE) {
        return kBackupFileFailed;
    }
    const char* destination = task->taskDestPath.c_str();
    if (!exists(task->taskDestPath) &&
        createDir(destination, static_cast<uint32_t>(task->uid)) != 0) {
        ALOGE("backup failed, createDir error");
        return kBackupFileFailed;
    }
    if (copyFile(task->taskSrcPath.c_str(), destination, task) != 0) {
        ALOGE("backup failed, copyFile error");
        return kBackupFileFailed;
    }
    if (prepare_data_backuped_for_task(task) != 0) {
        ALOGE("backup failed, prepare_data_backuped_for_task error!");
        return kBackupFileFailed;
    }
    return 0;
}

int32_t backupDirBase(sp<BackupTask>& task) {
    if (task->taskType != BACKUP_DIR) {
        return kBackupDirFailed;
    }
    const auto uid = static_cast<uint32_t>(task->uid);
    const std::string backupDir = pathInside(task->taskDestPath, task->taskSrcPath);
    if (backupDir.empty()) {
        ALOGE("backup failed,prepare_data_backup_dir failed!");
        return kBackupDirFailed;
    }
    const std::string attrFile = backupDir + ".txt";
    if (createDir(backupDir.c_str(), uid) != 0) {
        ALOGE("backup failed,create %s failed, error=%s", backupDir.c_str(), ErrorText().c_str());
        return -1;
    }
    UniqueFile records(fopen(attrFile.c_str(), "we"));
    if (records == nullptr) {
        ALOGE("backup failed,fopen [%s] error\n", attrFile.c_str());
        return kBackupDirFailed;
    }
    if (fixup_permissions_dir_file(attrFile.c_str(), uid, uid, kCreatedMode) != 0) {
        ALOGE("Failed to change attr_file(%s) owner, error=%s", attrFile.c_str(),
              ErrorText().c_str());
        return kBackupDirFailed;
    }
    if (copyDir(task->taskSrcPath.c_str(), backupDir.c_str(), records.get(), task) != 0) {
        ALOGE("backup failed, copyDir error!");
        return kBackupDirFailed;
    }
    if (fflush(records.get()) != 0) {
        ALOGE("backup failed, save attr file error!");
        return kBackupDirFailed;
    }
    records.reset();
    if (prepare_data_backuped_for_task(task) != 0) {
        ALOGE("backup failed, prepare_data_backuped_for_task error!");
        return kBackupDirFailed;
    }
    return 0;
}

int32_t restoreFileBase(sp<BackupTask>& task) {
    if (task->taskType != RESTORE_FILE) {
        return kRestoreFileFailed;
    }
    const char* destination = task->taskDestPath.c_str();
    if (!exists(task->taskDestPath) &&
        createDir(destination, static_cast<uint32_t>(task->uid)) != 0) {
        ALOGE("restore failed, createDir error");
        return kRestoreFileFailed;
    }
    if (copyFile(task->taskSrcPath.c_str(), destination, task) != 0) {
        ALOGE("restore failed, copyFile error");
        return kRestoreFileFailed;
    }
    return 0;
}

int32_t restoreDirBase(sp<BackupTask>& task) {
    if (task->taskType != RESTORE_DIR) {
        return kRestoreDirFailed;
    }
    const std::string& destination = task->taskDestPath;
    const std::string backupDir = pathInside(task->taskSrcPath, destination);
    if (backupDir.empty()) {
        ALOGE("restore failed,prepare_data_backup_dir failed!");
        return kRestoreDirFailed;
    }
    const std::string attrFile = backupDir + ".txt";
    if (copyDir(backupDir.c_str(), destination.c_str(), nullptr, task) != 0) {
        ALOGE("restore failed, copyDir error!");
        return kRestoreDirFailed;
    }
    // Shared storage has one owner and one label for all: the copy keeps what it got.
    if (isStoragePath(destination.c_str())) {
        ALOGD("StoragePath no need to restorecon:, %s", destination.c_str());
        return 0;
    }
    if (restore_application_from_infofile(destination.c_str(), attrFile.c_str(),
                                          task->se_info.c_str()) != 0) {
        ALOGE("restore failed, restore file info from %s error, ignore that.", attrFile.c_str());
    }
    return 0;
}

int32_t moveDirBase(sp<BackupTask>& task) {
    if (task->taskType != MOVE_DIR) {
        return kMoveFailed;
    }
    const char* destination = task->taskDestPath.c_str();
    if (createDir(destination, static_cast<uint32_t>(task->uid)) != 0) {
        ALOGE("move failed,create %s failed, error=%s", destination, ErrorText().c_str());
        return kMoveFailed;
    }
    if (copyDir(task->taskSrcPath.c_str(), destination, nullptr, task) != 0) {
        ALOGE("move failed, copyDir error!");
        return kMoveFailed;
    }
    if (prepare_data_backuped_for_task(task) != 0) {
        ALOGE("move failed, prepare_data_backuped_for_task error!");
        return kMoveFailed;
    }
    // Takes what the copy left: the root itself and whatever was skipped, links excepted.
    if (deleteDir(task->taskSrcPath.c_str()) != 0) {
        ALOGE("move failed, deleteDir error!");
        return kMoveFailed;
    }
    return 0;
}

}  // namespace android::installd
