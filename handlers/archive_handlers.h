// The handlers of the archive tasks: pack a directory into one archive or into slices, and unpack
// either. Each returns 0 or a negative code, which shows only in the log.
//
// An archive of a source whose last component is NAME is TDEST/NAME.tar; slices are
// TDEST/NAME.tar.0 and on, their check file TDEST/NAME.tar.txt.
#pragma once

#include <stdint.h>
#include <utils/StrongPointer.h>

#include "task/backup_task.h"

namespace android::installd {

int32_t backupTarBase(sp<BackupTask>& task);
int32_t backupSplitBase(sp<BackupTask>& task);

// Of whole archives and of slices.
int32_t restoreTarBase(sp<BackupTask>& task);

}  // namespace android::installd
