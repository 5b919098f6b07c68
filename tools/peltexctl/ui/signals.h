// The signals that ask for the end - SIGINT, SIGTERM, SIGHUP - taken by a thread of their own, so
// that no call is cut short by them.
#pragma once

#include <functional>

namespace peltexctl {

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
