// The program's exit statuses, and what ends it early.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

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

inline void Ensure(bool is_so, std::string_view otherwise, ExitCode code = kTaskFailed) {
    if (!is_so) {
        throw Failure(code, std::string(otherwise));
    }
}

// The same with "MESSAGE: what errno says", where a system call has just told whether it is done.
inline void Require(bool is_done, const std::string& message, ExitCode code = kTaskFailed) {
    if (!is_done) {
        throw Failure(code, message + ": " + std::generic_category().message(errno));
    }
}

}  // namespace peltexctl
