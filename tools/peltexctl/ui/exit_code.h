// The program's exit statuses.
#pragma once

namespace peltexctl {

enum ExitCode : int {
    kDone = 0,
    kTaskFailed = 1,
    kUsage = 2,
    kNoLibraryOrData = 3,
    kInterrupted = 130,
};

struct ExitCodeText {
    ExitCode code;
    const char* text;
};

inline constexpr ExitCodeText kExitCodeTexts[] = {
    {kDone, "What was asked for is done; of a shell: no task failed."},
    {kTaskFailed,
     "A task failed, was refused, was aborted by somebody else or timed out; an archive is not "
     "whole or cannot be read; output could not be written."},
    {kUsage, "The command line is wrong."},
    {kNoLibraryOrData, "The library could not be loaded, or --data could not be mounted."},
    {kInterrupted, "SIGINT or SIGTERM ended it; standard error tells what is left."},
};

}  // namespace peltexctl
