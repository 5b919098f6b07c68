// Tested by tests/fileops/file_operations_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include "fileops/file_operations.h"

#include <dirent.h>
#include <fcntl.h>
#include <log/log.h>
#include <selinux/android.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "brief/permission_record.h"
#include "fileops/error_text.h"
#include "fileops/file_handles.h"
#include "fileops/path_buffer.h"
#include "fileops/path_rules.h"
#include "fileops/paths.h"
#include "fileops/permissions.h"

namespace android::installd {

namespace {

constexpr size_t kCopyBufferSize = 8192;
constexpr mode_t kTargetCreationMode = 0660;
constexpr int kWatchedDepth = 10;
constexpr int kDeepestDepth = 2048;

// Gives a copy its owner and mode. A target on descriptor 0 is refused: it can only mean that the
// process lost its standard input, and whatever takes that number next would share it.
bool fixupTarget(int fd, uint32_t uid) {
    if (fd == 0) {
        ALOGE("fd_fixup_permissions error, fd is 0 !");
        return false;
    }
    if (fchown(fd, uid, uid) != 0) {
        ALOGE("Failed to change owner, error=%s", ErrorText().c_str());
        return false;
    }
    if (fchmod(fd, kCreatedMode) != 0) {
        ALOGE("Failed to change mod, error=%s", ErrorText().c_str());
        return false;
    }
    return true;
}

int copyContent(int source, int target, const char* from, const sp<BackupTask>& task) {
    char buffer[kCopyBufferSize];
    while (true) {
        const ssize_t length = read(source, buffer, sizeof(buffer));
        if (length < 0) {
            ALOGE("Failed to read file: %s, error=%s", from, ErrorText().c_str());
            return -1;
        }
        if (length == 0) {
            return 0;
        }
        // Not examined: a short write goes unnoticed here.
        [[maybe_unused]] const ssize_t written = write(target, buffer, static_cast<size_t>(length));
        if (!task->addProgress(static_cast<uint64_t>(length))) {
            ALOGE("Failed to read task");
            return -1;
        }
    }
}

// The application goes on running: what was a directory when it was looked at may be a link by now,
// and root must not follow it out of the tree. The tree's own path may be one.
int noFollowBelowTop(int parentFd) {
    return parentFd == AT_FDCWD ? 0 : O_NOFOLLOW;
}

int removeDirectory(int parentFd, const char* path) {
    return parentFd == AT_FDCWD ? remove(path)
                                : unlinkat(parentFd, lastComponent(path), AT_REMOVEDIR);
}

int copyFileAt(int dirFd, const char* from, mode_t mode, const char* to,
               const sp<BackupTask>& task);

// `directory` is the tree's own name, in the directory `parentFd`; `path` is the buffer that holds
// it and that the walk extends.
int deleteTree(int parentFd, const char* directory, PathBuffer& path);

// One copy of a tree: the two paths, extended and cut back together as the walk goes down and up.
class TreeCopier {
  public:
    TreeCopier(const char* from, const char* to, FILE* permFile, sp<BackupTask>& task)
        : mFrom(from), mTo(to), mPermFile(permFile), mTask(task) {}

    // `from` and `to` are read before the walk changes the paths, which they may point into.
    int copyTree(const char* from, const char* to);

  private:
    int copyEntries(const UniqueDir& dir, bool filterLibrary);
    int copyEntry(const char* name, bool filterLibrary);
    int copyDirectory(const char* name, bool filterLibrary);
    int copyRegular(const struct stat& status);
    int handleFailedCopy();
    int writeRecord();
    bool isMove() const { return mTask->taskType == MOVE_DIR; }

    PathBuffer mFrom;
    PathBuffer mTo;
    int mDirFd = AT_FDCWD;  // the directory of the source that the walk is in
    FILE* const mPermFile;
    sp<BackupTask>& mTask;
};

int TreeCopier::copyTree(const char* from, const char* to) {
    if (!exists(from)) {
        ALOGE("Failed to copyDir, %s not exists", from);
        return -1;
    }
    if (createDir(to, static_cast<uint32_t>(mTask->uid)) != 0) {
        ALOGE("Failed to copyDir, createDir(%s) error", to);
        return -1;
    }
    const bool filterLibrary = mTask->taskType == BACKUP_DIR && mTask->taskSrcPath == from;
    const UniqueDir dir = openDirectory(mDirFd, from, noFollowBelowTop(mDirFd));
    if (dir == nullptr) {
        ALOGE("Failed to copyDir, opendir(%s) error", from);
        return -1;
    }
    const int parentFd = std::exchange(mDirFd, dirfd(dir.get()));
    const int result = copyEntries(dir, filterLibrary);
    mDirFd = parentFd;
    return result;
}

int TreeCopier::copyEntries(const UniqueDir& dir, bool filterLibrary) {
    const size_t fromLength = mFrom.length();
    const size_t toLength = mTo.length();
    int result = 0;
    while (const dirent* entry = result == 0 ? nextEntry(dir) : nullptr) {
        if (isDotName(entry->d_name)) {
            continue;
        }
        if (!mFrom.appendEntry(entry->d_name)) {
            ALOGE("Failed to copyDir, opendir(%s) error", mFrom.c_str());
            return -1;
        }
        // Where the copy's path is full, what is below goes where the path was cut.
        [[maybe_unused]] const bool fits = mTo.appendEntry(entry->d_name);
        result = copyEntry(entry->d_name, filterLibrary);
        mFrom.cut(fromLength);
        mTo.cut(toLength);
    }
    if (result == 0 && isReadBroken()) {
        ALOGE("Failed to copyDir, readdir(%s) error", mFrom.c_str());
        return -1;
    }
    return result;
}

int TreeCopier::copyEntry(const char* name, bool filterLibrary) {
    struct stat status = {};
    switch (isDirAt(mDirFd, mFrom.c_str(), status)) {
        case 0:
            return copyRegular(status);
        case 1:
            return copyDirectory(name, filterLibrary);
        default:
            return 0;  // links are never followed or copied
    }
}

int TreeCopier::copyDirectory(const char* name, bool filterLibrary) {
    // A name that was cut to fit can have become one of these.
    if (isDotName(lastComponent(mFrom.c_str()))) {
        return 0;
    }
    if (filterLibrary && filterDir(name) == 1) {
        return 0;
    }
    if (copyTree(mFrom.c_str(), mTo.c_str()) != 0) {
        ALOGE("Failed to copyDir, copyDir(%s) error", mFrom.c_str());
        return -1;
    }
    if (writeRecord() != 0) {
        return -1;
    }
    if (isMove() && deleteTree(mDirFd, mFrom.c_str(), mFrom) != 0) {
        ALOGD("Failed to delete the Dir after copydir, deleteDir(%s)", mFrom.c_str());
    }
    return 0;
}

int TreeCopier::copyRegular(const struct stat& status) {
    if (filterFile(mFrom.c_str(), status) != 0) {
        return 0;
    }
    // A target that is not there yet leads nowhere.
    if (CheckFilePath(mFrom.c_str(), mTask->realSrcPath) != 0 ||
        (exists(mTo.c_str()) && CheckFilePath(mTo.c_str(), mTask->realDestPath) != 0)) {
        ALOGW("Skip copy file because path is invalid, frompath: %s, topath: %s", mFrom.c_str(),
              mTo.c_str());
        return 0;
    }
    if (copyFileAt(mDirFd, mFrom.c_str(), status.st_mode, mTo.c_str(), mTask) != 0) {
        return handleFailedCopy();
    }
    if (writeRecord() != 0) {
        return -1;
    }
    if (isMove() && unlinkat(mDirFd, lastComponent(mFrom.c_str()), 0) != 0) {
        ALOGD("Failed to removefile after copyFile, remove(%s)", mFrom.c_str());
    }
    return 0;
}

// Applications run while they are backed up: a file that vanished, or whose target could not even
// be made, is passed over. A target that was made and not filled ends the copy.
int TreeCopier::handleFailedCopy() {
    if (!exists(mFrom.c_str())) {
        ALOGW("Skip inaccessible file %s, error=%s", mFrom.c_str(), ErrorText().c_str());
        return 0;
    }
    if (exists(mTo.c_str())) {
        ALOGE("Failed to copyDir, copyFile(%s) error", mFrom.c_str());
        return -1;
    }
    ALOGW("Skip inaccessible file %s, error=%s", mTo.c_str(), ErrorText().c_str());
    return 0;
}

int TreeCopier::writeRecord() {
    if (mPermFile == nullptr || do_backup_perm(mDirFd, mFrom.c_str(), mPermFile) == 0) {
        return 0;
    }
    ALOGE("Failed to copyDir, write file attr: %s, error=%s", mFrom.c_str(), ErrorText().c_str());
    return -1;
}

// The slash behind the deepest directory of `path` that is there: in a tree, all but the last one.
// The path's begin when none is. `path` ends in a slash and is left as it was.
const char* deepestExisting(PathBuffer& path) {
    for (char* slash = path.data() + path.length() - 1; slash > path.data(); --slash) {
        if (*slash != '/') {
            continue;
        }
        *slash = '\0';
        const bool isThere = exists(path.c_str());
        *slash = '/';
        if (isThere) {
            return slash;
        }
    }
    return path.data();
}

// Returns 0 for an entry that is gone or is left alone, -1 for one that could not be removed.
int deleteEntry(int dirFd, PathBuffer& path) {
    struct stat status = {};
    const int kind = isDirAt(dirFd, path.c_str(), status);
    if (kind == 0 && unlinkat(dirFd, lastComponent(path.c_str()), 0) != 0) {
        ALOGE("Failed to deleteDir, remove(%s) error", path.c_str());
        return -1;
    }
    if (kind == 1 && !isDotName(lastComponent(path.c_str())) &&
        deleteTree(dirFd, path.c_str(), path) != 0) {
        ALOGE("Failed to deleteDir, deleteDir(%s) error", path.c_str());
        return -1;
    }
    return 0;
}

int deleteTree(int parentFd, const char* directory, PathBuffer& path) {
    if (!exists(directory)) {
        ALOGD("BackupSessionManager deleteDir, %s not exists", directory);
        return 0;
    }
    const UniqueDir dir = openDirectory(parentFd, directory, noFollowBelowTop(parentFd));
    if (dir == nullptr) {
        return -1;
    }
    const size_t length = path.length();
    int result = 0;
    while (const dirent* entry = result == 0 ? nextEntry(dir) : nullptr) {
        if (path.appendEntry(entry->d_name)) {
            result = deleteEntry(dirfd(dir.get()), path);
            path.cut(length);
        }
    }
    // Tried after a failure too: with what was left alone in it, it fails and says so.
    if (removeDirectory(parentFd, directory) != 0) {
        ALOGE("Failed to deleteDir, remove(%s) error", directory);
        return -1;
    }
    return result;
}

// The steps of copyFile() and of a tree's copy, which opens a file in its directory `dirFd`
// (AT_FDCWD: by its path), and as what it has been found to be: no link that took its place is
// followed. `mode` is 0 when nobody has looked.
int copyFileAt(int dirFd, const char* from, mode_t mode, const char* to,
               const sp<BackupTask>& task) {
    const char* name = dirFd == AT_FDCWD ? from : lastComponent(from);
    if (faccessat(dirFd, name, R_OK, 0) != 0) {
        ALOGE("Failed to copyFile file: %s, error=%s", from, ErrorText().c_str());
        return -1;
    }
    PathBuffer target(to);
    if (exists(to) && isDir(to) == 1) {
        target.append("/");
        target.append(lastComponent(from));
        // A file under a shortened name could replace another one.
        if (target.length() != strlen(to) + 1 + strlen(lastComponent(from))) {
            ALOGE("Failed to open file: %s, error=%s", target.c_str(),
                  ErrorText(ENAMETOOLONG).c_str());
            return -1;
        }
    }
    const int flags = O_RDONLY | O_CLOEXEC | (mode == 0 ? 0 : O_NOFOLLOW);
    const UniqueFd sourceFd =
        S_ISREG(mode) ? openRegular(dirFd, name) : UniqueFd(openat(dirFd, name, flags));
    if (!sourceFd.isOpen()) {
        ALOGE("Failed to open file: %s, error=%s", from, ErrorText().c_str());
        return -1;
    }
    const UniqueFd targetFd(
        open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kTargetCreationMode));
    if (!targetFd.isOpen()) {
        ALOGE("Failed to open file: %s, error=%s", target.c_str(), ErrorText().c_str());
        return -1;
    }
    if (!fixupTarget(targetFd.get(), static_cast<uint32_t>(task->uid))) {
        ALOGE("Failed to copy file(%s): fixup permissions error!", target.c_str());
        return -1;
    }
    if (copyContent(sourceFd.get(), targetFd.get(), from, task) != 0) {
        return -1;
    }
    fsync(targetFd.get());
    return 0;
}

}  // namespace

int createDir(const char* path, uint32_t uid) {
    if (isEmptyPath(path)) {
        ALOGE("Failed to createDir:path is NULL or length of path is 0");
        return -1;
    }
    PathBuffer prefix(path);
    if (!prefix.endsInSlash()) {
        prefix.append("/");
    }
    if (prefix.length() < 2) {
        return 0;
    }
    const char* existing = deepestExisting(prefix);
    int depth = 0;
    int watchedDepth = kWatchedDepth;
    for (char* slash = strchr(prefix.data() + 1, '/'); slash != nullptr;
         slash = strchr(slash + 1, '/'), ++depth) {
        if (depth >= watchedDepth) {
            ALOGW("monitor dir(%s) depth longer than %d.", path, kWatchedDepth);
            watchedDepth = kDeepestDepth;
        }
        *slash = '\0';
        if (slash > existing && !exists(prefix.c_str())) {
            if (mkdir(prefix.c_str(), kCreatedMode) != 0) {
                ALOGE("Failed to mkdir(%s), error=%s", prefix.c_str(), ErrorText().c_str());
                return -1;
            }
            if (fixup_permissions_dir_file(prefix.c_str(), uid, uid, kCreatedMode) != 0) {
                ALOGE("Failed to createDir: fixup permissions error!");
                return -1;
            }
        }
        *slash = '/';
    }
    return 0;
}

int copyFile(const char* from, const char* to, const sp<BackupTask>& task) {
    if (isEmptyPath(from) || isEmptyPath(to)) {
        ALOGE("Failed to copyFile file:path is NULL or length of path is 0");
        return -1;
    }
    return copyFileAt(AT_FDCWD, from, 0, to, task);
}

int copyDir(const char* from, const char* to, FILE* permFile, sp<BackupTask>& task) {
    if (isEmptyPath(from) || isEmptyPath(to)) {
        ALOGE("Failed to copyDir, path is NULL or length of path is 0");
        return -1;
    }
    return TreeCopier(from, to, permFile, task).copyTree(from, to);
}

int deleteDir(const char* path) {
    if (isEmptyPath(path)) {
        ALOGD("BackupSessionManager deleteDir, path is NULL or length of path is 0");
        return 0;
    }
    PathBuffer buffer(path);
    return deleteTree(AT_FDCWD, path, buffer);
}

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
