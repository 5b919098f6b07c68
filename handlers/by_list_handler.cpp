// Tested by tests/unit/briefs.md.
#define LOG_TAG "BackupSessionManager"

#include "handlers/by_list_handler.h"

#include <log/log.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/path_rules.h"
#include "base/paths.h"
#include "base/permissions.h"
#include "brief/permission_record.h"
#include "fileops/copy.h"
#include "fileops/create_dir.h"
#include "fileops/relabel.h"

namespace android::installd {

namespace {

constexpr int32_t kBackupByFileFailed = -15;
constexpr int32_t kDirectoryType = 1;

// What follows the first occurrence of the application's name in `path`; empty without one.
std::string GetRelativePath(const char* path, const std::string& appName) {
    const char* name = strstr(path, appName.c_str());
    return name == nullptr ? "" : name + appName.size();
}

// A file that vanished since it was listed, or whose target cannot be reached, is passed over.
int handleFailedCopy(const char* source, const char* target) {
    for (const char* path : {source, target}) {
        if (!exists(path)) {
            ALOGW("Skip inaccessible file %s, error=%s", path, ErrorText().c_str());
            return 0;
        }
    }
    ALOGE("Failed to BackupFile, copyFile(%s) error", source);
    return -1;
}

int BackupFile(const char* source, const std::string& target, FILE* attrFp,
               const sp<BackupTask>& task) {
    if (filterFile(source) != 0) {
        return 0;
    }
    const size_t slash = target.rfind('/');
    if (slash == std::string::npos) {
        return -1;
    }
    const std::string parent = target.substr(0, slash);
    if (createDir(parent.c_str(), static_cast<uint32_t>(task->uid)) != 0) {
        ALOGE("Failed to BackupFile, createDir(%s) error", parent.c_str());
        return -1;
    }
    if (copyFile(source, target.c_str(), task) != 0) {
        return handleFailedCopy(source, target.c_str());
    }
    if (do_backup_perm(source, attrFp) != 0) {
        ALOGE("Failed to BackupFile, write file attr: %s, error=%s", source, ErrorText().c_str());
        return -1;
    }
    return 0;
}

// The contents of a directory come from lines of their own.
int BackupDir(const char* source, const std::string& target, FILE* attrFp,
              const sp<BackupTask>& task) {
    if (createDir(target.c_str(), static_cast<uint32_t>(task->uid)) != 0) {
        ALOGE("Failed to BackupDir, createDir(%s) error", target.c_str());
        return -1;
    }
    if (do_backup_perm(source, attrFp) != 0) {
        ALOGE("Failed to BackupDir, write file attr: %s, error=%s", source, ErrorText().c_str());
        return -1;
    }
    return 0;
}

int GetBackupFileAndProcess(const sp<BackupTask>& task, FILE* attrFp) {
    ALOGD("Begin GetBackupFileAndProcess");
    const UniqueFile brief(fopen(task->taskSrcPath.c_str(), "re"));
    struct stat status = {};
    if (brief == nullptr || fstat(fileno(brief.get()), &status) != 0) {
        ALOGE("srcBriefFp or attrFp is nullptr");
        return -1;
    }
    const std::string appName = GetAppNameByFullPath(task->taskDestPath.c_str());
    ALOGD("Backup-app name:%s", appName.c_str());
    const std::string base = task->taskDestPath + "/" + appName;
    ALOGD("Backup-app des path:%s", base.c_str());

    char line[kRecordSize];
    int result = 0;
    // A brief that names itself, or what is copied over it, grows while it is read: what it had
    // when it was opened is all that is followed, to the byte.
    const auto getLine = [&] {
        const off_t left =
            S_ISREG(status.st_mode) ? status.st_size - ftello(brief.get()) : off_t{kRecordSize};
        return left > 0 && fgets(line, static_cast<int>(std::min(left + 1, off_t{kRecordSize})),
                                 brief.get()) != nullptr;
    };
    while (result == 0 && getLine()) {
        File_info info;
        if (parse_line_info(line, info) < kRecordFields) {
            ALOGE("miss info from this line(%s), skip it", line);
            continue;
        }
        const std::string target = base + GetRelativePath(info.path, appName);
        result = info.type == kDirectoryType ? BackupDir(info.path, target, attrFp, task)
                                             : BackupFile(info.path, target, attrFp, task);
    }
    if (ferror(brief.get()) != 0) {
        ALOGE("Failed to read brief: %s, error=%s", task->taskSrcPath.c_str(), ErrorText().c_str());
        return -1;
    }
    return result;
}

}  // namespace

int BackupByFileBase(const sp<BackupTask>& task) {
    ALOGD("Begin BackupByFileBase");
    if (task->taskType != BACKUP_BY_FILE) {
        ALOGE("backup failed,task type is invalid");
        return kBackupByFileFailed;
    }
    if (task->taskDestPath.empty()) {
        ALOGE("backup failed,dest path is null");
        return kBackupByFileFailed;
    }
    const auto uid = static_cast<uint32_t>(task->uid);
    const std::string appName = GetAppNameByFullPath(task->taskDestPath.c_str());
    ALOGD("App name:%s", appName.c_str());
    const std::string folder = task->taskDestPath + "/" + appName;
    ALOGD("Dest path:%s", folder.c_str());
    if (createDir(folder.c_str(), uid) != 0) {
        ALOGE("backup failed,create %s failed, error=%s", folder.c_str(), ErrorText().c_str());
        return kBackupByFileFailed;
    }
    const std::string attrPath = folder + ".txt";
    ALOGD("Dest brief file path:%s", attrPath.c_str());
    UniqueFile attrFp(fopen(attrPath.c_str(), "we"));
    if (attrFp == nullptr) {
        ALOGE("backup failed,fopen [%s] error\n", attrPath.c_str());
        return kBackupByFileFailed;
    }
    if (fixup_permissions_dir_file(attrPath.c_str(), uid, uid, kCreatedMode) != 0) {
        ALOGE("Failed to change attr_file(%s) owner, error=%s", attrPath.c_str(),
              ErrorText().c_str());
        return kBackupByFileFailed;
    }
    if (GetBackupFileAndProcess(task, attrFp.get()) != 0) {
        ALOGE("backup failed,GetBackupFileAndProcess error\n");
        return kBackupByFileFailed;
    }
    if (fflush(attrFp.get()) != 0) {
        ALOGE("backup failed, save attr file error!");
        return kBackupByFileFailed;
    }
    attrFp.reset();
    if (prepare_data_backuped_for_task(task) != 0) {
        ALOGE("backup failed, prepare_data_backuped_for_task error!");
        return kBackupByFileFailed;
    }
    return 0;
}

}  // namespace android::installd
