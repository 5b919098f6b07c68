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
    {kDone, "done, and all of it is there"},
    {kTaskFailed, "refused, failed or incomplete; an archive is not whole"},
    {kUsage, "the command line is wrong"},
    {kNoLibraryOrData, "no library, or --data could not be mounted"},
    {kInterrupted, "ended by SIGINT, SIGTERM or SIGHUP"},
};

}  // namespace peltexctl
