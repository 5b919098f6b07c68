// Tested by tests/unit/briefs.md.
#define LOG_TAG "BackupSessionManager"

#include "brief/brief_walk.h"

#include <errno.h>
#include <log/log.h>
#include <sys/stat.h>

#include "base/path_buffer.h"
#include "base/path_rules.h"
#include "base/paths.h"
#include "base/place.h"
#include "base/walk_level.h"
#include "brief/permission_record.h"

namespace android::installd {

namespace {

// Sparse files can state any size: the total wraps rather than overflows.
void addSize(const struct stat& status, int64_t& total) {
    total =
        static_cast<int64_t>(static_cast<uint64_t>(total) + static_cast<uint64_t>(status.st_size));
}

// One walk: the path, extended and cut back as it goes down and up, and what it adds to.
class BriefWalk {
  public:
    BriefWalk(const char* dir, FILE* attrFp, int64_t& total)
        : mPath(dir), mAttrFp(attrFp), mTotal(total) {}

    int write(const Place& dir, const ExcludeRules& excludes);

  private:
    int writeEntries(WalkLevel& level, const ExcludeRules& excludes);
    int writeEntry(const Place& entry);
    int writeDirectory(const Place& directory);
    int writeFile(const Place& file);

    PathBuffer mPath;
    struct stat mStatus = {};     // of the entry looked at last: one for all levels of a deep tree
    const ExcludeRules mNoRules;  // those of all levels but the first
    FILE* const mAttrFp;
    int64_t& mTotal;
};

int BriefWalk::write(const Place& dir, const ExcludeRules& excludes) {
    WalkLevel level(dir, mPath, PathBuffer::Fit::kCut);
    if (!level.isOpen() && !exists(dir.path())) {
        ALOGE("Failed to PreCheckForWriteBrief,%s not exists", dir.path());
        return -1;
    }
    if (mAttrFp == nullptr) {
        ALOGE("attrFp is null");
        return -1;
    }
    if (!level.isOpen()) {
        ALOGE("Failed to WriteBriefUnderDir, opendir(%s) error", dir.path());
        return -1;
    }
    return writeEntries(level, excludes);
}

int BriefWalk::writeEntries(WalkLevel& level, const ExcludeRules& excludes) {
    WalkLevel::Found found = level.next();
    for (; found == WalkLevel::Found::kEntry; found = level.next()) {
        const bool isLeftOut = NeedFilterWithExclude(mPath.c_str(), excludes);
        const int result = isLeftOut ? 0 : writeEntry(level.entry());
        level.back();
        if (result != 0) {
            return result;
        }
    }
    if (found == WalkLevel::Found::kTooLong) {
        ALOGE("Failed to WriteBriefUnderDir, opendir(%s) error", mPath.c_str());
        return -1;
    }
    if (found == WalkLevel::Found::kBroken) {
        ALOGE("Failed to WriteBriefUnderDir, readdir(%s) error", mPath.c_str());
        return -1;
    }
    return 0;
}

int BriefWalk::writeEntry(const Place& entry) {
    switch (isDir(entry, mStatus)) {
        case 0:
            return writeFile(entry);
        case 1:
            return writeDirectory(entry);
        default:
            return 0;
    }
}

int BriefWalk::writeDirectory(const Place& directory) {
    // A name that was cut to fit can have become one of these.
    if (isDotName(directory.name())) {
        return 0;
    }
    if (do_backup_perm(directory.path(), mStatus, mAttrFp) != 0) {
        return -1;
    }
    if (write(directory, mNoRules) != 0) {
        ALOGE("Failed to WriteBriefUnderDir, WriteBriefUnderDir(%s) error", directory.path());
        return -1;
    }
    return 0;
}

int BriefWalk::writeFile(const Place& file) {
    if (filterFile(file.path(), mStatus) == 0 &&
        do_backup_perm(file.path(), mStatus, mAttrFp) != 0) {
        return -1;
    }
    addSize(mStatus, mTotal);
    return 0;
}

}  // namespace

int writeBrief(const char* dir, FILE* attrFp, const ExcludeRules& excludes, int64_t& total) {
    if (isEmptyPath(dir)) {
        ALOGE("Failed to PreCheckForWriteBrief,path is NULL or length of path is 0");
        return -1;
    }
    return BriefWalk(dir, attrFp, total).write(Place(dir), excludes);
}

void addSizeOf(const char* path, int64_t& total) {
    struct stat status = {};
    if (stat(path, &status) != 0) {
        ALOGE("stat [%s] error [%d]\n", path, errno);
        return;
    }
    addSize(status, total);
}

}  // namespace android::installd
