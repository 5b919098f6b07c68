// The program's exit statuses, and what ends it early: failures, and the signals that ask for the
// end - SIGINT, SIGTERM, SIGHUP -, taken by a thread of their own, so that no call is cut short.
#pragma once

#include <cerrno>
#include <functional>
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
struct Failure : std::runtime_error {
    Failure(ExitCode with, const std::string& message) : std::runtime_error(message), code(with) {}

    ExitCode code;
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

// Ends the program as interrupted with "peltexctl: MESSAGE", from any thread: takes no lock and
// waits for nobody. What a full pipe does not take is not told.
[[noreturn]] void EndInterrupted(const std::string& message);

// What a signal does while this object lives; afterwards it does what it did before. The handler is
// called on the signals' thread, one at a time and not after the destructor. It must not wait, so
// that the next signal finds it free.
class SignalScope {
  public:
    using Handler = std::function<void()>;

    explicit SignalScope(Handler handler);
    ~SignalScope();

    SignalScope(const SignalScope&) = delete;
    SignalScope& operator=(const SignalScope&) = delete;

  private:
    Handler before_;
};

// From here on the signals are held back from this thread and from those made later. One that was
// ignored at the start stays so. To be called before any other thread is made.
void HoldSignals();

// From here on the signals do what the SignalScope of the moment says. To be called once, when this
// thread sees the files that it will work with: the signals' thread sees what it sees then.
void TakeSignals();

}  // namespace peltexctl
