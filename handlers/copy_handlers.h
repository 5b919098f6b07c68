// The handlers of the copy tasks: back up and restore a file or a directory, move a directory. Each
// returns 0 or its own negative code, which shows only in the log.
//
// A directory backup of a source whose last component is NAME, and a restore to such a destination:
//
//   TDEST/NAME/      the contents of the source
//   TDEST/NAME.txt   the attribute file: the record of everything copied
#pragma once

#include <stdint.h>
#include <utils/StrongPointer.h>

#include "task/backup_task.h"

namespace android::installd {

int32_t backupFileBase(sp<BackupTask>& task);
int32_t backupDirBase(sp<BackupTask>& task);
int32_t restoreFileBase(sp<BackupTask>& task);
int32_t restoreDirBase(sp<BackupTask>& task);
int32_t moveDirBase(sp<BackupTask>& task);

}  // namespace android::installd
