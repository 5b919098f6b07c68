// The handlers of briefs: of a directory, and of what a client's search file asks for. Each returns
// 0 or its own negative code, which shows only in the log.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <utils/StrongPointer.h>

#include <functional>
#include <string>

#include "brief/search_rules.h"
#include "task/backup_task.h"

namespace android::installd {

// Tells the client the bytes of the files that a brief has found, in decimal digits.
using TellBriefSize = std::function<void(const std::string& total)>;

int GetFileBriefsByDir(const sp<BackupTask>& task, const TellBriefSize& tell);
int GetFileBriefsByFile(const sp<BackupTask>& task, const TellBriefSize& tell);

// Makes or empties the brief file that the task's destination names, and its directory where that
// is missing; gives it to the task's uid. Returns 0, or -1 after logging why.
int CreateAndFixupBriefFile(const sp<BackupTask>& task);

// Writes a brief of `dir` to `attrFp`, as writeBrief() does (brief/brief_walk.h). `excludes` are
// those of a brief by file list; others leave nothing out. Returns 0, or -1 after logging why.
int WriteBriefUnderDir(const char* dir, FILE* attrFp, const sp<BackupTask>& task, int64_t& total,
                       const ExcludeRules& excludes);

}  // namespace android::installd
