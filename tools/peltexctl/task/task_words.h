// What is said of a task that was refused by the library, failed or was interrupted.
//
// Thread-safe.
#pragma once

#include <string>

#include "task/task_kinds.h"

namespace peltexctl {

// Why the library answered a command with `result`, which is no task's id.
std::string ExplainRefusal(int result);

// What to do about a task that began and failed.
std::string ExplainFailure(int task, const TaskKind& kind, const TaskRequest& request,
                           bool log_is_shown);

enum class Ending {
    kSucceeded,  // in spite of the abort
    kFailed,
    kUnfinished,  // it was not waited for
};

// What an interrupted task leaves behind, but for slices that a backup hands over.
std::string DescribeLeft(const TaskKind& kind, const TaskRequest& request, Ending ending);

// How the library brings the task to an end that it is asked to abort.
std::string DescribeStop(const TaskKind& kind);

}  // namespace peltexctl
