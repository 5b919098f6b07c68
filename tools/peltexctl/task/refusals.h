// What a task is refused for before anything is changed: each throws a Failure with one line that
// says why.
//
// Not thread-safe.
#pragma once

#include <string>

#include "task/task_check.h"
#include "task/task_kinds.h"

namespace peltexctl {

// Paths that the library would not take: one is in no area, or the source is not there.
void RefusePaths(const TaskKind& kind, const TaskRequest& request);

// A restore that cannot take what it was given.
void RefuseArchive(const TaskKind& kind, const ArchiveSet& set);

// A --take that names DEST itself, by whatever path.
void RefuseTake(const TaskRequest& request);

// What would lose something, as far as a look at the paths tells; --force does without.
void RefuseLoss(const TaskKind& kind, const TaskRequest& request);

// An archive or set of the name that the backup writes; --replace does without.
void RefuseReplacing(const TaskKind& kind, const TaskRequest& request);

// What would lose something by what was tallied; --force does without.
void RefuseByTally(const TaskKind& kind, const TaskRequest& request, TaskCheck* check);

// "; make room" where the file system of `path` has not got so many bytes left, else nothing.
std::string HintAtRoom(const std::string& path, uint64_t bytes);

}  // namespace peltexctl
