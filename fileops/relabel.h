// SELinux labels of what was written.
#pragma once

#include <stdint.h>
#include <utils/StrongPointer.h>

#include "task/backup_task.h"

namespace android::installd {

// Restores the labels of the tree at `path`. Returns 0, or -1 after logging why.
int restorecon_backup_dir(const char* path, const char* seInfo, uint32_t uid);

// The last step of the backup and move handlers: relabels the task's destination. Returns -1 only
// without a task or its SELinux information; labels that cannot be restored are logged and passed
// over.
int prepare_data_backuped_for_task(const sp<BackupTask>& task);

}  // namespace android::installd
