// What the task handlers do to files and trees as root: create, copy, delete and relabel.
//
// All return 0, or -1 after logging why (where the comment does not say otherwise). Nothing is
// undone after a failure. What they create belongs to the task's uid as owner and group and has
// mode 0771; what the source's owner and mode were travels in the permission records alone. Paths
// are plain bytes of at most 2047; longer ones are cut silently. No locks, no state: two workers
// may use them at once on different tasks.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <utils/StrongPointer.h>

#include "service/backup_task.h"

namespace android::installd {

// Mode of every directory, copied file and attribute file that the service creates.
constexpr uint32_t kCreatedMode = 0771;

// Makes every missing directory of `path`. Those that are there are left as they are.
int createDir(const char* path, uint32_t uid);

// Copies the content of `from` to `to`, or into `to` under the last component of `from` when `to`
// is a directory, and reports progress to the task's callback. A target made before a failure
// stays.
int copyFile(const char* from, const char* to, const sp<BackupTask>& task);

// Copies what is in `from` into `to`, recursively, in the order of the file system. Links, sockets,
// FIFOs and compiled code are left out, as are files that vanish or resolve outside the task's real
// paths; so is "lib" right under the root of a directory backup. A MOVE_DIR task loses its source
// as the copy goes. With `permFile`, the record of each entry follows it (of a directory: follows
// its contents); `from` itself gets none. `permFile` stays the caller's.
int copyDir(const char* from, const char* to, FILE* permFile, sp<BackupTask>& task);

// Removes a tree. Returns 0 also when there is none, -1 when something stays: symbolic links are
// never removed, and keep the directories above them.
int deleteDir(const char* path);

// Restores the SELinux labels of the tree at `path`.
int restorecon_backup_dir(const char* path, const char* seInfo, uint32_t uid);

// The last step of the backup and move handlers: relabels the task's destination. Fails only
// without a task or its SELinux information; labels that cannot be restored are logged and passed
// over.
int prepare_data_backuped_for_task(const sp<BackupTask>& task);

}  // namespace android::installd
