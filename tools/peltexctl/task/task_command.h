// The subcommands that carry out one task.
#pragma once

#include "task/library.h"
#include "task/task_kinds.h"

namespace peltexctl {

struct TaskOutput {
    bool json = false;
    bool quiet = false;
    std::string log;  // the lowest priority to show of the library's log; empty: after a failure
};

// Returns the program's exit status.
int RunTask(const Library& library, const TaskKind& kind, const TaskRequest& request,
            const TaskOutput& output);

}  // namespace peltexctl
