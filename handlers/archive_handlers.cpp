// Tested by tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include "handlers/archive_handlers.h"

#include <log/log.h>

#include "base/error_text.h"
#include "base/path_rules.h"
#include "base/paths.h"
#include "base/permissions.h"
#include "fileops/create_dir.h"
#include "fileops/relabel.h"
#include "handlers/tar_cb_impl.h"
#include "tar/tar_file.h"
#include "tar/untar_file.h"

namespace android::installd {

namespace {

constexpr int32_t kBackupTarFailed = -13;
constexpr int32_t kBackupSplitFailed = -14;
constexpr int32_t kRestoreTarFailed = -18;

// Works out the base of the slices' names in `archivePath` and makes the directory for them. Cuts a
// trailing slash off `dest` and `src`.
int32_t backupSplitPre(uint32_t uid, std::string& dest, std::string& src,
                       std::string& archivePath) {
    cutTrailingSlash(src);
    cutTrailingSlash(dest);
    if (!exists(src)) {
        ALOGE("backupSplitTarBase: source path %s not exist!", src.c_str());
        return kBackupSplitFailed;
    }
    archivePath = pathInside(dest, src);
    if (archivePath.empty()) {
        ALOGE("backupSplitTarBase: prepare_data_backup_dir failed!");
        return kBackupSplitFailed;
    }
    archivePath += ".tar";
    ALOGD("backupSplitBase: src, %s, destFilePath is %s", src.c_str(), archivePath.c_str());
    const std::string directory = archivePath.substr(0, archivePath.rfind('/'));
    if (!exists(directory) && createDir(directory.c_str(), uid) != 0) {
        ALOGE("backupSplitTarBase: create %s failed, error=%s", directory.c_str(),
              ErrorText().c_str());
        return kBackupSplitFailed;
    }
    return 0;
}

}  // namespace

int32_t backupTarBase(sp<BackupTask>& task) {
    if (task->taskType != BACKUP_TAR) {
        return kBackupTarFailed;
    }
    const auto uid = static_cast<uint32_t>(task->uid);
    const char* source = task->taskSrcPath.c_str();
    const char* destination = task->taskDestPath.c_str();
    if (task->se_info.empty()) {
        ALOGE("backupTarBase prepare_data_backuped_for_task failed, se_info is null!");
        return kBackupTarFailed;
    }
    if (!exists(task->taskSrcPath)) {
        ALOGE("backupTarBase, source path %s not exist!", source);
        return kBackupTarFailed;
    }
    std::string archive = pathInside(task->taskDestPath, task->taskSrcPath);
    if (archive.empty()) {
        ALOGE("backupTarBase failed, prepare_data_backup_dir failed!");
        return kBackupTarFailed;
    }
    archive += ".tar";
    if (!exists(archive) && createDir(destination, uid) != 0) {
        ALOGE("backupTarBase failed,create %s failed, error=%s", destination, ErrorText().c_str());
        return kBackupTarFailed;
    }
    TarCBImpl callback(task);
    TarFile tar(&callback);
    if (!tar.PackDir(source, archive.c_str())) {
        ALOGE("backupTarBase failed to tar, src: %s, dst: %s", source, archive.c_str());
        return kBackupTarFailed;
    }
    if (fixup_permissions_dir_file(archive.c_str(), uid, uid, kArchiveMode) != 0) {
        ALOGE("backupTarBase failed to change attr_file(%s) owner, error=%s", archive.c_str(),
              ErrorText().c_str());
        return kBackupTarFailed;
    }
    if (restorecon_backup_dir(destination, task->se_info.c_str(), uid) != 0) {
        ALOGE("backupTarBase failed, prepare_data_backuped_for_task error!");
        return kBackupTarFailed;
    }
    return 0;
}

int32_t backupSplitBase(sp<BackupTask>& task) {
    if (task->taskType != BACKUP_SPLIT) {
        return kBackupSplitFailed;
    }
    const auto uid = static_cast<uint32_t>(task->uid);
    std::string source = task->taskSrcPath;
    std::string destination = task->taskDestPath;
    std::string archivePath;
    if (const int32_t result = backupSplitPre(uid, destination, source, archivePath); result != 0) {
        return result;
    }
    std::string words[TarFile::kSplitArguments] = {
        task->cmd,     task->option,   task->taskSrcPath, task->taskDestPath,
        task->se_info, task->uid_info, task->taskExtra};
    TarCBImpl callback(task);
    TarFile tar(&callback, task->workerIndex);
    if (!tar.PackSplitDir(source, archivePath, words, uid)) {
        ALOGE("backupSplitTarBase: tar failed, src: %s, dst: %s", source.c_str(),
              archivePath.c_str());
        return -1;
    }
    return 0;
}

int32_t restoreTarBase(sp<BackupTask>& task) {
    if (task->taskType != RESTORE_TAR && task->taskType != RESTORE_SPLIT) {
        return kRestoreTarFailed;
    }
    const auto uid = static_cast<uint32_t>(task->uid);
    const char* destination = task->taskDestPath.c_str();
    if (task->se_info.empty()) {
        ALOGE("restoreTarBase prepare_data_backuped_for_task failed, se_info is null!");
        return kRestoreTarFailed;
    }
    if (!exists(task->taskSrcPath)) {
        ALOGE("restoreTarBase, source path %s not exist!", task->taskSrcPath.c_str());
        return kRestoreTarFailed;
    }
    TarCBImpl callback(task);
    UnTarFile archive(task->taskSrcPath.c_str(), &callback);
    const int32_t result = task->taskType == RESTORE_TAR ? archive.UnPack(destination, uid)
                                                         : archive.UnSplitPack(destination, uid);
    if (result != 0) {
        ALOGE("restoreTarBase, unPack error return %d.", result);
    }
    // Whatever was unpacked needs its labels, all of it or not.
    if (isStoragePath(destination)) {
        ALOGD("StoragePath no need to restorecon:, %s", destination);
    } else if (restorecon_backup_dir(destination, task->se_info.c_str(), uid) != 0) {
        ALOGE("restoreTarBase, restorecon_backup_dir failed, ignore that.");
    }
    return result;
}

}  // namespace android::installd
