// The program's exit statuses.
#pragma once

namespace peltexctl {

enum ExitCode : int {
    kDone = 0,
    kTaskFailed = 1,  // failed, refused, aborted by somebody else, or timed out
    kUsage = 2,
    kNoLibraryOrData = 3,  // the library or the data mount could not be had
    kInterrupted = 130,
};

}  // namespace peltexctl
