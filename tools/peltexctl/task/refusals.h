// What a task is refused for before anything is changed: each has one line that says why.
//
// Not thread-safe.
#pragma once

#include <string>

#include "task/task_check.h"
#include "task/task_kinds.h"

namespace peltexctl {

// The areas that the library takes paths from, in one line.
std::string Areas();

// Why the library would not take the task's paths: one is in no area, or the source is not there.
// Empty if it does.
std::string RefusePaths(const TaskKind& kind, const TaskRequest& request);

// Why a restore cannot take what it was given. Empty if it can.
std::string RefuseArchive(const TaskKind& kind, const ArchiveSet& set);

// Whether --take names DEST itself, by whatever path.
bool TakesWhereItWrites(const TaskRequest& request);

// Why the task would lose something, as far as a look at its paths tells; --force does without.
// Empty if it would not.
std::string RefuseLoss(const TaskKind& kind, const TaskRequest& request);

// An archive or set of the name that the backup writes; --replace does without.
std::string RefuseReplacing(const TaskKind& kind, const TaskRequest& request);

// Why it would lose something by what was tallied; --force does without.
std::string RefuseByTally(const TaskKind& kind, const TaskRequest& request, TaskCheck* check);

// "; make room" where the file system of `path` has not got so many bytes left, else nothing.
std::string HintAtRoom(const std::string& path, uint64_t bytes);

}  // namespace peltexctl
