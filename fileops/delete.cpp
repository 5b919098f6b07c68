// Tested by tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include "fileops/delete.h"

#include <log/log.h>
#include <stdio.h>
#include <unistd.h>

#include "base/path_buffer.h"
#include "base/path_rules.h"
#include "base/paths.h"
#include "base/place.h"
#include "base/walk_level.h"

namespace android::installd {

namespace {

// Returns 0 for an entry that is gone or is left alone, -1 for one that could not be removed.
int deleteEntry(const Place& entry, PathBuffer& path) {
    const int kind = isDir(entry);
    if (kind == 0 && unlinkat(entry.dirFd(), entry.name(), 0) != 0) {
        ALOGE("Failed to deleteDir, remove(%s) error", entry.path());
        return -1;
    }
    // A name that was cut to fit can have become "." or "..".
    if (kind == 1 && !isDotName(entry.name()) && deleteTree(entry, path) != 0) {
        ALOGE("Failed to deleteDir, deleteDir(%s) error", entry.path());
        return -1;
    }
    return 0;
}

// Stops at the first entry that could not be removed. What cannot be read, or has no room in the
// path, shows in that the directory cannot be removed afterwards.
int deleteEntries(WalkLevel& level, PathBuffer& path) {
    int result = 0;
    while (result == 0) {
        const WalkLevel::Found found = level.next();
        if (found == WalkLevel::Found::kEntry) {
            result = deleteEntry(level.entry(), path);
            level.back();
        } else if (found != WalkLevel::Found::kTooLong) {
            break;
        }
    }
    return result;
}

}  // namespace

int deleteDir(const char* path) {
    if (isEmptyPath(path)) {
        ALOGD("BackupSessionManager deleteDir, path is NULL or length of path is 0");
        return 0;
    }
    PathBuffer buffer(path);
    return deleteTree(Place(path), buffer);
}

int deleteTree(const Place& tree, PathBuffer& path) {
    if (!exists(tree.path())) {
        ALOGD("BackupSessionManager deleteDir, %s not exists", tree.path());
        return 0;
    }
    WalkLevel level(tree, path, PathBuffer::Fit::kCut);
    if (!level.isOpen()) {
        return -1;
    }
    const int result = deleteEntries(level, path);
    // Tried after a failure too: with what was left alone in it, it fails and says so.
    const int removed =
        tree.isTop() ? remove(tree.path()) : unlinkat(tree.dirFd(), tree.name(), AT_REMOVEDIR);
    if (removed != 0) {
        ALOGE("Failed to deleteDir, remove(%s) error", tree.path());
        return -1;
    }
    return result;
}

}  // namespace android::installd
