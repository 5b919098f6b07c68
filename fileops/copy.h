// Copies of files and trees. Owner and mode of a source travel in its permission record alone: what
// is made here belongs to the task's uid and has kCreatedMode.
//
// Both return 0, or -1 after logging why, and undo nothing then. Paths are plain bytes of at most
// 2047. A longer destination is cut silently; a name that has no room fails. Two workers may copy
// at once for different tasks.
#pragma once

#include <stdio.h>
#include <utils/StrongPointer.h>

#include "task/backup_task.h"

namespace android::installd {

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

}  // namespace android::installd
