// Tested by tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include "fileops/copy.h"

#include <fcntl.h>
#include <log/log.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/path_buffer.h"
#include "base/path_rules.h"
#include "base/paths.h"
#include "base/permissions.h"
#include "base/place.h"
#include "base/walk_level.h"
#include "brief/permission_record.h"
#include "fileops/create_dir.h"
#include "fileops/delete.h"

namespace android::installd {

namespace {

constexpr size_t kCopyBufferSize = 8192;
constexpr mode_t kTargetCreationMode = 0660;

// The name of the copy: `to`, or in the directory `to` the source's own. Returns false, after
// logging it, for one that is too long: a file under a shortened name could replace another one.
bool nameTarget(const char* from, const char* to, PathBuffer& target) {
    if (!exists(to) || isDir(to) != 1) {
        return true;
    }
    target.append("/");
    target.append(lastComponent(from));
    if (target.length() == strlen(to) + 1 + strlen(lastComponent(from))) {
        return true;
    }
    ALOGE("Failed to open file: %s, error=%s", target.c_str(), ErrorText(ENAMETOOLONG).c_str());
    return false;
}

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

// How a source is opened: as its path says, or as what a walk has found it to be.
using Opener = UniqueFd (*)(const Place& place);

UniqueFd openNamed(const Place& place) {
    return UniqueFd(openat(place.dirFd(), place.name(), O_RDONLY | O_CLOEXEC));
}

UniqueFd openDevice(const Place& place) {
    return UniqueFd(openat(place.dirFd(), place.name(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
}

int copyOpened(const Place& from, Opener openSource, const char* to, const sp<BackupTask>& task) {
    if (faccessat(from.dirFd(), from.name(), R_OK, 0) != 0) {
        ALOGE("Failed to copyFile file: %s, error=%s", from.path(), ErrorText().c_str());
        return -1;
    }
    PathBuffer target(to);
    if (!nameTarget(from.path(), to, target)) {
        return -1;
    }
    const UniqueFd sourceFd = openSource(from);
    if (!sourceFd.isOpen()) {
        ALOGE("Failed to open file: %s, error=%s", from.path(), ErrorText().c_str());
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
    if (copyContent(sourceFd.get(), targetFd.get(), from.path(), task) != 0) {
        return -1;
    }
    fsync(targetFd.get());
    return 0;
}

// Whether a directory that could not be opened has become a link since it was looked at. Logs it as
// for a link that was there before.
bool isLinkByNow(const Place& place) {
    struct stat status = {};
    return !place.isTop() &&
           fstatat(place.dirFd(), place.name(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(status.st_mode) && isDir(place, status) == -1;
}

// One copy of a tree: the two paths, extended and cut back together as the walk goes down and up.
class TreeCopier {
  public:
    TreeCopier(const char* from, const char* to, FILE* permFile, sp<BackupTask>& task)
        : mFrom(from), mTo(to), mPermFile(permFile), mTask(task) {}

    enum class Copied { kDone, kLeftOut, kFailed };

    // What `from` and `to` point to is read before the walk changes the paths, which it may lie in.
    Copied copyTree(const Place& from, const char* to);

  private:
    int copyEntries(WalkLevel& level, bool filterLibrary);
    int copyEntry(const WalkLevel& level, bool filterLibrary);
    int copyDirectory(const WalkLevel& level, bool filterLibrary);
    int copyRegular(const Place& from);
    int handleFailedCopy();
    int writeRecord(const Place& from);
    bool isMove() const { return mTask->taskType == MOVE_DIR; }

    PathBuffer mFrom;
    PathBuffer mTo;
    struct stat mStatus = {};  // of the entry looked at last: one for all levels of a deep tree
    FILE* const mPermFile;
    sp<BackupTask>& mTask;
};

TreeCopier::Copied TreeCopier::copyTree(const Place& from, const char* to) {
    WalkLevel level(from, mFrom, PathBuffer::Fit::kCut);
    if (!level.isOpen() && isLinkByNow(from)) {
        return Copied::kLeftOut;
    }
    if (!level.isOpen() && !exists(from.path())) {
        ALOGE("Failed to copyDir, %s not exists", from.path());
        return Copied::kFailed;
    }
    if (createDir(to, static_cast<uint32_t>(mTask->uid)) != 0) {
        ALOGE("Failed to copyDir, createDir(%s) error", to);
        return Copied::kFailed;
    }
    if (!level.isOpen()) {
        ALOGE("Failed to copyDir, opendir(%s) error", from.path());
        return Copied::kFailed;
    }
    const bool filterLibrary = mTask->taskType == BACKUP_DIR && mTask->taskSrcPath == from.path();
    return copyEntries(level, filterLibrary) == 0 ? Copied::kDone : Copied::kFailed;
}

int TreeCopier::copyEntries(WalkLevel& level, bool filterLibrary) {
    const size_t toLength = mTo.length();
    WalkLevel::Found found = level.next();
    for (; found == WalkLevel::Found::kEntry; found = level.next()) {
        // Where the copy's path is full, what is below goes where the path was cut.
        [[maybe_unused]] const bool fits = mTo.appendEntry(level.name(), PathBuffer::Fit::kCut);
        const int result = copyEntry(level, filterLibrary);
        level.back();
        mTo.cut(toLength);
        if (result != 0) {
            return result;
        }
    }
    if (found == WalkLevel::Found::kTooLong) {
        ALOGE("Failed to copyDir, opendir(%s) error", mFrom.c_str());
        return -1;
    }
    if (found == WalkLevel::Found::kBroken) {
        ALOGE("Failed to copyDir, readdir(%s) error", mFrom.c_str());
        return -1;
    }
    return 0;
}

int TreeCopier::copyEntry(const WalkLevel& level, bool filterLibrary) {
    switch (isDir(level.entry(), mStatus)) {
        case 0:
            return copyRegular(level.entry());
        case 1:
            return copyDirectory(level, filterLibrary);
        default:
            return 0;  // links are never followed or copied
    }
}

int TreeCopier::copyDirectory(const WalkLevel& level, bool filterLibrary) {
    const Place from = level.entry();
    // A name that was cut to fit can have become one of these.
    if (isDotName(from.name())) {
        return 0;
    }
    if (filterLibrary && filterDir(level.name()) == 1) {
        return 0;
    }
    switch (copyTree(from, mTo.c_str())) {
        case Copied::kDone:
            break;
        case Copied::kLeftOut:
            return 0;
        case Copied::kFailed:
            ALOGE("Failed to copyDir, copyDir(%s) error", from.path());
            return -1;
    }
    if (writeRecord(from) != 0) {
        return -1;
    }
    if (isMove() && deleteTree(from, mFrom) != 0) {
        ALOGD("Failed to delete the Dir after copydir, deleteDir(%s)", from.path());
    }
    return 0;
}

int TreeCopier::copyRegular(const Place& from) {
    if (filterFile(from.path(), mStatus) != 0) {
        return 0;
    }
    // A target that is not there yet leads nowhere.
    if (CheckFilePath(from.path(), mTask->realSrcPath) != 0 ||
        (exists(mTo.c_str()) && CheckFilePath(mTo.c_str(), mTask->realDestPath) != 0)) {
        ALOGW("Skip copy file because path is invalid, frompath: %s, topath: %s", from.path(),
              mTo.c_str());
        return 0;
    }
    const Opener opener = S_ISREG(mStatus.st_mode) ? openRegular : openDevice;
    if (copyOpened(from, opener, mTo.c_str(), mTask) != 0) {
        return handleFailedCopy();
    }
    if (writeRecord(from) != 0) {
        return -1;
    }
    if (isMove() && unlinkat(from.dirFd(), from.name(), 0) != 0) {
        ALOGD("Failed to removefile after copyFile, remove(%s)", from.path());
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

int TreeCopier::writeRecord(const Place& from) {
    if (mPermFile == nullptr || do_backup_perm(from, mPermFile) == 0) {
        return 0;
    }
    ALOGE("Failed to copyDir, write file attr: %s, error=%s", from.path(), ErrorText().c_str());
    return -1;
}

}  // namespace

int copyFile(const char* from, const char* to, const sp<BackupTask>& task) {
    if (isEmptyPath(from) || isEmptyPath(to)) {
        ALOGE("Failed to copyFile file:path is NULL or length of path is 0");
        return -1;
    }
    return copyOpened(Place(from), openNamed, to, task);
}

int copyDir(const char* from, const char* to, FILE* permFile, sp<BackupTask>& task) {
    if (isEmptyPath(from) || isEmptyPath(to)) {
        ALOGE("Failed to copyDir, path is NULL or length of path is 0");
        return -1;
    }
    TreeCopier copier(from, to, permFile, task);
    return copier.copyTree(Place(from), to) == TreeCopier::Copied::kDone ? 0 : -1;
}

}  // namespace android::installd
