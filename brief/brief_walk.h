// Briefs: files that list what a directory holds, one permission record per line
// (brief/permission_record.h), so that a client sees what a backup would hold and how large it is.
// What was written before a failure stays.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include "brief/search_rules.h"

namespace android::installd {

// Writes the records of everything below `dir` to `attrFp`, which stays the caller's, in the order
// of the file system, a directory's before those of its contents. Links are neither listed nor
// followed, but for `dir` itself. Adds the bytes of all other files to `total`, also of those that
// are not listed because no backup takes them. What `excludes` covers is left out among the entries
// of `dir` itself; below them nothing is. Returns 0, or -1 after logging why.
int writeBrief(const char* dir, FILE* attrFp, const ExcludeRules& excludes, int64_t& total);

// Adds the size of what `path` leads to, following links; nothing when it cannot be looked at.
void addSizeOf(const char* path, int64_t& total);

}  // namespace android::installd
