// Tested by tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include "fileops/create_dir.h"

#include <log/log.h>
#include <string.h>
#include <sys/stat.h>

#include "base/error_text.h"
#include "base/path_buffer.h"
#include "base/paths.h"
#include "base/permissions.h"

namespace android::installd {

namespace {

constexpr int kWatchedDepth = 10;

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

int makeDirectory(const char* path, uint32_t uid) {
    if (mkdir(path, kCreatedMode) != 0) {
        const KeepErrno error;
        ALOGE("Failed to mkdir(%s), error=%s", path, ErrorText().c_str());
        return -1;
    }
    if (fixup_permissions_dir_file(path, uid, uid, kCreatedMode) != 0) {
        const KeepErrno error;
        ALOGE("Failed to createDir: fixup permissions error!");
        return -1;
    }
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
    for (char* slash = strchr(prefix.data() + 1, '/'); slash != nullptr;
         slash = strchr(slash + 1, '/'), ++depth) {
        if (depth == kWatchedDepth) {
            ALOGW("monitor dir(%s) depth longer than %d.", path, kWatchedDepth);
        }
        *slash = '\0';
        if (slash > existing && !exists(prefix.c_str()) &&
            makeDirectory(prefix.c_str(), uid) != 0) {
            return -1;
        }
        *slash = '/';
    }
    return 0;
}

}  // namespace android::installd
