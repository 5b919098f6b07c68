// Tested by tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include "base/permissions.h"

#include <log/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/error_text.h"
#include "base/paths.h"

namespace android::installd {

int fixup_permissions_dir_file(const char* path, uint32_t owner, uint32_t group, uint32_t mode) {
    if (isEmptyPath(path)) {
        ALOGE("fixup_backup_dir_file, path is NULL or length of path is 0");
        return -1;
    }
    if (chmod(path, mode) != 0) {
        const KeepErrno error;
        ALOGE("Failed to chmod (%s), error=%s", path, ErrorText().c_str());
        return -1;
    }
    // A chown takes the set-id bits of a file away again; the modes that are set here have none.
    if (chown(path, owner, group) != 0) {
        const KeepErrno error;
        ALOGE("Failed to chown (%s), error=%s", path, ErrorText().c_str());
        return -1;
    }
    return 0;
}

}  // namespace android::installd
