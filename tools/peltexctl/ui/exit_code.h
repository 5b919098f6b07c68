// The program's exit statuses, and what ends it early.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>

#include "ui/text.h"

namespace peltexctl {

enum ExitCode : int {
    kDone = 0,
    kTaskFailed = 1,
    kUsage = 2,
    kNoLibraryOrData = 3,
    kInterrupted = 130,
};

// Why the program cannot do what was asked for, in one line.
class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}

    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

// Throws "MESSAGE: what errno says" where `is_done` is false, which a system call has just told.
inline void Require(bool is_done, const std::string& message, ExitCode status = kTaskFailed) {
    if (!is_done) {
        throw Failure(status, message + ": " + ErrorText(errno));
    }
}

}  // namespace peltexctl
