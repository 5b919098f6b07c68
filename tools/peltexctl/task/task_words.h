// What is said of a task that was refused, failed or was interrupted: the path, the reason, and
// what to do about it or what is left.
//
// Thread-safe.
#pragma once

#include <string>

#include "task/task_kinds.h"

namespace peltexctl {

// The areas that the library takes paths from, in one line.
std::string Areas();

// Whether a task may name the path at all.
bool LibraryTakes(const std::string& path);

// Why the library answered a command with `result`, which is no task's id.
std::string ExplainRefusal(int result, const TaskRequest& request);

// Why a task never began: one of its paths.
std::string ExplainPathRefusal(const TaskRequest& request);

// What to do about a task that began and failed.
std::string ExplainFailure(int task, const TaskKind& kind, const TaskRequest& request);

enum class Ending {
    kSucceeded,  // in spite of the abort
    kFailed,
    kUnfinished,  // it was not waited for
};

// What an interrupted task leaves behind. `slices` says it of its slices, if it has any.
std::string DescribeLeft(const TaskKind& kind, const TaskRequest& request, Ending ending,
                         const std::string& slices);

}  // namespace peltexctl
