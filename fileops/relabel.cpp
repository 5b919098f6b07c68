// Tested by tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include "fileops/relabel.h"

#include <log/log.h>
#include <selinux/android.h>

#include "base/error_text.h"
#include "base/paths.h"

namespace android::installd {

int restorecon_backup_dir(const char* path, const char* seInfo, uint32_t uid) {
    if (isEmptyPath(path)) {
        ALOGE("restorecon_backup_dir error, path is NULL or length is 0");
        return -1;
    }
    if (selinux_android_restorecon_pkgdir(path, seInfo, uid, SELINUX_ANDROID_RESTORECON_RECURSE) <
        0) {
        ALOGE("Failed to recursive restorecon for %s , uid(%d), se_info(%s), error [%s]\n", path,
              static_cast<int>(uid), seInfo, ErrorText().c_str());
        return -1;
    }
    return 0;
}

int prepare_data_backuped_for_task(const sp<BackupTask>& task) {
    if (task == nullptr) {
        ALOGE("prepare_data_backuped_for_task failed, task is null!");
        return -1;
    }
    if (task->se_info.empty()) {
        ALOGE("prepare_data_backuped_for_task failed, se_info is null!");
        return -1;
    }
    if (restorecon_backup_dir(task->taskDestPath.c_str(), task->se_info.c_str(),
                              static_cast<uint32_t>(task->uid)) != 0) {
        ALOGE("prepare_data_backuped_for_task failed, restorecon_backup_dir error!  ignore that.");
    }
    return 0;
}

}  // namespace android::installd
