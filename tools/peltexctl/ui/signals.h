// The signals that a user sends, taken by a thread of their own so that no call is cut short by
// them: SIGUSR1 asks where things stand, SIGINT and SIGTERM ask for the end.
#pragma once

#include <functional>

namespace peltexctl {

// What the signals do while this object lives; afterwards they do what they did before. The
// functions are called on the signals' thread, one at a time, and not after the destructor.
class SignalScope {
  public:
    using Handler = std::function<void()>;

    SignalScope(Handler report, Handler end);
    ~SignalScope();

    SignalScope(const SignalScope&) = delete;
    SignalScope& operator=(const SignalScope&) = delete;

  private:
    Handler report_before_;
    Handler end_before_;
};

// From here on the signals are held back from this thread and from those made later. One that was
// ignored at the start stays so. To be called before any other thread is made.
void HoldSignals();

// From here on the signals do what the SignalScope of the moment says. To be called once, when this
// thread sees the files that it will work with: the signals' thread sees what it sees then.
void TakeSignals();

// Ends the signals' thread, if there is one.
void LeaveSignals();

}  // namespace peltexctl
