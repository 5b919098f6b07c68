// Tested by tests/brief/directory_brief_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include "brief/directory_brief.h"

#include <errno.h>
#include <log/log.h>
#include <string.h>

#include <utility>

#include "bounded/bounded.h"
#include "brief/exclude_rules.h"
#include "brief/permission_record.h"
#include "fileops/error_text.h"
#include "fileops/file_handles.h"
#include "fileops/file_operations.h"
#include "fileops/path_buffer.h"
#include "fileops/path_rules.h"
#include "fileops/paths.h"
#include "fileops/permissions.h"
#include "service/backup_session_manager.h"

namespace android::installd {

namespace {

constexpr int32_t kBriefByDirFailed = -20;
constexpr size_t kSizeTextSize = 72;

// One walk: the path, extended and cut back as it goes down and up, and what it adds to.
class BriefWalk {
  public:
    BriefWalk(const char* dir, FILE* attrFp, BackupTaskType type, int64_t& total)
        : mPath(dir), mAttrFp(attrFp), mType(type), mTotal(total) {}

    // `dir` is read before the walk changes the path, which it may point into.
    int write(const char* dir, const Vector<std::string>& excludes);

  private:
    int writeEntries(const UniqueDir& dir, const Vector<std::string>& excludes);
    int writeEntry(const Vector<std::string>& excludes);
    int writeDirectory(const struct stat& status);
    int writeFile(const struct stat& status);

    PathBuffer mPath;
    int mDirFd = AT_FDCWD;  // the directory that the walk is in
    FILE* const mAttrFp;
    const BackupTaskType mType;
    int64_t& mTotal;
};

int BriefWalk::write(const char* dir, const Vector<std::string>& excludes) {
    if (isEmptyPath(dir)) {
        ALOGE("Failed to PreCheckForWriteBrief,path is NULL or length of path is 0");
        return -1;
    }
    // Of the included directory's own path alone a link is followed: the application goes on
    // running, and what was a directory when it was looked at may be one by now.
    const UniqueDir stream = openDirectory(mDirFd, dir, mDirFd == AT_FDCWD ? 0 : O_NOFOLLOW);
    if (stream == nullptr && !exists(dir)) {
        ALOGE("Failed to PreCheckForWriteBrief,%s not exists", dir);
        return -1;
    }
    if (mAttrFp == nullptr) {
        ALOGE("attrFp is null");
        return -1;
    }
    if (stream == nullptr) {
        ALOGE("Failed to WriteBriefUnderDir, opendir(%s) error", dir);
        return -1;
    }
    const int parentFd = std::exchange(mDirFd, dirfd(stream.get()));
    const int result = writeEntries(stream, excludes);
    mDirFd = parentFd;
    return result;
}

int BriefWalk::writeEntries(const UniqueDir& dir, const Vector<std::string>& excludes) {
    const size_t length = mPath.length();
    int result = 0;
    while (const dirent* entry = result == 0 ? nextEntry(dir) : nullptr) {
        if (isDotName(entry->d_name)) {
            continue;
        }
        if (!mPath.appendEntry(entry->d_name)) {
            ALOGE("Failed to WriteBriefUnderDir, opendir(%s) error", mPath.c_str());
            return -1;
        }
        result = writeEntry(excludes);
        mPath.cut(length);
    }
    if (result == 0 && isReadBroken()) {
        ALOGE("Failed to WriteBriefUnderDir, readdir(%s) error", mPath.c_str());
        return -1;
    }
    return result;
}

int BriefWalk::writeEntry(const Vector<std::string>& excludes) {
    if (mType == GET_BRIEFS_BY_FILE && NeedFilterWithExclude(mPath.c_str(), excludes)) {
        return 0;
    }
    struct stat status = {};
    switch (isDirAt(mDirFd, mPath.c_str(), status)) {
        case 0:
            return writeFile(status);
        case 1:
            return writeDirectory(status);
        default:
            return 0;
    }
}

int BriefWalk::writeDirectory(const struct stat& status) {
    // A name that was cut to fit can have become one of these.
    if (isDotName(lastComponent(mPath.c_str()))) {
        return 0;
    }
    if (do_backup_perm(mPath.c_str(), status, mAttrFp) != 0) {
        return -1;
    }
    if (write(mPath.c_str(), Vector<std::string>()) != 0) {
        ALOGE("Failed to WriteBriefUnderDir, WriteBriefUnderDir(%s) error", mPath.c_str());
        return -1;
    }
    return 0;
}

int BriefWalk::writeFile(const struct stat& status) {
    if (filterFile(mPath.c_str(), status) == 0 &&
        do_backup_perm(mPath.c_str(), status, mAttrFp) != 0) {
        return -1;
    }
    addSize(status, mTotal);
    return 0;
}

}  // namespace

int CreateAndFixupBriefFile(const sp<BackupTask>& task) {
    const std::string& path = task->taskDestPath;
    const auto uid = static_cast<uint32_t>(task->uid);
    if (path.empty()) {
        ALOGE("CreateAndFixupBriefFile error,brief path is null\n");
    }
    if (const size_t slash = path.rfind('/'); slash != std::string::npos) {
        const std::string parent = path.substr(0, slash);
        if (!exists(parent) && createDir(parent.c_str(), uid) != 0) {
            ALOGE("CreateAndFixupBriefFile failed, createDir error");
            return -1;
        }
    }
    UniqueFile file(fopen(path.c_str(), "we"));
    if (file == nullptr) {
        ALOGE("CreateAndFixupBriefFile:fopen [%s] error\n", path.c_str());
        return -1;
    }
    if (fflush(file.get()) != 0) {
        ALOGE("CreateAndFixupBriefFile failed, save attr file error!");
    }
    file.reset();
    if (fixup_permissions_dir_file(path.c_str(), uid, uid, kCreatedMode) != 0) {
        ALOGE("Failed to change attr_file(%s) owner, error=%s", path.c_str(), ErrorText().c_str());
        return -1;
    }
    return 0;
}

int WriteBriefUnderDir(const char* dir, FILE* attrFp, const sp<BackupTask>& task, int64_t& total,
                       const Vector<std::string>& excludes) {
    return BriefWalk(dir == nullptr ? "" : dir, attrFp, task->taskType, total).write(dir, excludes);
}

void addSize(const struct stat& status, int64_t& total) {
    // Sparse files can state any size: the total wraps rather than overflows.
    total =
        static_cast<int64_t>(static_cast<uint64_t>(total) + static_cast<uint64_t>(status.st_size));
}

void addSizeOf(const char* path, int64_t& total) {
    struct stat status = {};
    if (stat(path, &status) != 0) {
        ALOGE("stat [%s] error [%d]\n", path, errno);
        return;
    }
    addSize(status, total);
}

void BackupSessionManager::tellBriefSize(const sp<BackupTask>& task, int64_t total) const {
    char text[kSizeTextSize] = {};
    if (snprintf_s(text, sizeof(text), sizeof(text) - 1, "%ld", static_cast<long>(total)) < 0) {
        return;
    }
    if (const sp<os::IBackupSessionCallback> callback = currentCallback(); callback != nullptr) {
        callback->onTaskStatusChanged(task->sessionId, task->taskId, TASK_STATUS_BRIEF_SIZE, text);
    }
}

int BackupSessionManager::GetFileBriefsByDir(const sp<BackupTask>& task) const {
    ALOGD("Call GetFileBriefsByDir method");
    if (task->taskType != GET_BRIEFS_BY_DIR) {
        ALOGE("GetFileBriefsByDir:taskType error!");
        return kBriefByDirFailed;
    }
    const char* source = task->taskSrcPath.c_str();
    const char* brief = task->taskDestPath.c_str();
    if (isEmptyPath(source) || isEmptyPath(brief)) {
        ALOGE("GetFileBriefsByDir:src_path or brief_path is null");
        return kBriefByDirFailed;
    }
    ALOGD("taskSrcPath:%s", source);
    ALOGD("taskBriefPath:%s", brief);
    if (CreateAndFixupBriefFile(task) != 0) {
        return kBriefByDirFailed;
    }
    if (!exists(source)) {
        ALOGE("GetFileBriefsByDir: %s not exists", source);
        return 0;
    }
    // Flushed at the end and deliberately never closed; only a failed flush closes it.
    FILE* stream = fopen(brief, "we");
    if (stream == nullptr) {
        ALOGE("GetFileBriefsByDir:fopen [%s] error\n", brief);
        return kBriefByDirFailed;
    }
    int64_t total = 0;
    if (WriteBriefUnderDir(source, stream, task, total, Vector<std::string>()) != 0) {
        ALOGE("GetFileBriefsByDir:WriteBriefUnderDir [%s] error\n", source);
        return kBriefByDirFailed;
    }
    if (fflush(stream) != 0) {
        ALOGE("GetFileBriefsByDir:save attr file error!");
        fclose(stream);
        return kBriefByDirFailed;
    }
    tellBriefSize(task, total);
    return 0;
}

}  // namespace android::installd
