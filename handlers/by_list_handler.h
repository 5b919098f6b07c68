// The handler of a backup by file list: copies what a brief names into a folder of the
// application's own, with a record of each entry beside it.
//
//   TDEST/APP/APP/        the copies, by what follows APP in their paths
//   TDEST/APP/APP.txt     the attribute file        (for a destination TDEST/APP)
#pragma once

#include <utils/StrongPointer.h>

#include "task/backup_task.h"

namespace android::installd {

// Returns 0 or its own negative code, which shows only in the log.
int BackupByFileBase(const sp<BackupTask>& task);

}  // namespace android::installd
