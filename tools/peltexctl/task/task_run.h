// One task from its command to its end: a session, the command, the events, the slices that are
// handed over, the signals that come meanwhile.
#pragma once

#include <cstdint>
#include <string>

#include "task/library.h"
#include "task/task_kinds.h"
#include "ui/events.h"

namespace peltexctl {

// What is to be run, and where it is told: `events` must live as long as the process.
struct TaskJob {
    const TaskKind& kind;
    const TaskRequest& request;
    EventWriter& events;
    bool log_is_shown = false;
    std::string command = {};   // for the library
    uint64_t total = 0;         // bytes to be expected; 0 if that is not known
    std::string left_too = {};  // what else an unfinished task leaves
};

struct TaskResult {
    int task;
    double seconds;
    uint64_t slices;  // that were handed over
};

// Runs the one task of this process, to its good end. Throws Failure.
TaskResult RunJob(const Library& library, const TaskJob& job);

}  // namespace peltexctl
