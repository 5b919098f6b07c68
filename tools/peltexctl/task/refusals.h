// What a task is refused for before anything is changed: each throws a Failure with one line that
// says why.
//
// Not thread-safe.
#pragma once

#include <string>
#include <vector>

#include "task/task_check.h"
#include "task/task_kinds.h"

namespace peltexctl {

// By its words and paths: a --take that names DEST, what the library would not take or what is not
// there, what would lose something without --force, and what is there already without --replace.
void RefuseRequest(const TaskKind& kind, const TaskRequest& request);

// A restore that cannot take what it was given.
void RefuseArchive(const TaskKind& kind, const ArchiveSet& set);

// What would lose something by what was tallied; --force does without.
void RefuseByTally(const TaskKind& kind, const TaskRequest& request, const TaskCheck& check);

// The files in `directory` of the archive or set that the task writes, its sums among them. Of a
// set first what says that it is one.
std::vector<std::string> FilesThere(const TaskKind& kind, const TaskRequest& request,
                                    const UniqueFd& directory);

// "; make room" where the file system of `path` has not got so many bytes left, else nothing.
std::string HintAtRoom(const std::string& path, uint64_t bytes);

}  // namespace peltexctl
