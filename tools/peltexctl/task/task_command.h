// The subcommands that carry out one task.
#pragma once

#include "task/library.h"
#include "task/task_run.h"

namespace peltexctl {

// Returns the program's exit status. Throws Failure.
int RunTask(const Library& library, const TaskJob& job);

}  // namespace peltexctl
