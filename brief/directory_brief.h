// Briefs: files that list what a directory holds, one permission record per line
// (brief/permission_record.h), so that a client sees what a backup would hold and how large it is.
//
// Functions that return a result return 0, or -1 after logging why. What was written before a
// failure stays.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <utils/StrongPointer.h>
#include <utils/Vector.h>

#include <string>

#include "service/backup_task.h"

namespace android::installd {

// Makes or empties the brief file that the task's destination names, and its directory where that
// is missing; gives it to the task's uid.
int CreateAndFixupBriefFile(const sp<BackupTask>& task);

// Writes the records of everything below `dir` to `attrFp`, which stays the caller's, in the order
// of the file system, a directory's before those of its contents. Links are neither listed nor
// followed. Adds the bytes of all other files to `total`, also of those that are not listed because
// no backup takes them. For a brief by file list, what `excludes` covers is left out among the
// entries of `dir` itself; below them nothing is.
int WriteBriefUnderDir(const char* dir, FILE* attrFp, const sp<BackupTask>& task, int64_t& total,
                       const Vector<std::string>& excludes);

// Adds a file's bytes to `total`.
void addSize(const struct stat& status, int64_t& total);

// Adds the size of what `path` leads to, following links; nothing when it cannot be looked at.
void addSizeOf(const char* path, int64_t& total);

}  // namespace android::installd
