// The subcommands that carry out one task: one session, one command, its events to the end.
#pragma once

#include "task/library.h"
#include "task/task_kinds.h"

namespace peltexctl {

// Carries out a request that CheckRequest() has passed and returns the program's exit status. What
// it writes as an archive is verified afterwards, unless the request says not to.
int RunTask(const Library& library, const TaskKind& kind, const TaskRequest& request, bool json);

}  // namespace peltexctl
