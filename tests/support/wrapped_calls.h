// The clock of timed waits, for tests of what happens after many seconds. The test program is
// linked with pthread_cond_timedwait wrapped; the product's own calls arrive here.
//
// Waits are real ones unless a test says otherwise. Safe from any thread.
#pragma once

namespace peltex_test {

enum class WaitLength {
    kReal,
    kShort,    // a hundredth of the distance to the deadline
    kEndless,  // an hour more: only a broadcast ends it
};

// Sets the length of the waits that begin during its lifetime.
class ScopedWaits {
  public:
    explicit ScopedWaits(WaitLength length) { set(length); }
    ~ScopedWaits() { set(WaitLength::kReal); }
    ScopedWaits(const ScopedWaits&) = delete;
    ScopedWaits& operator=(const ScopedWaits&) = delete;

    void set(WaitLength length);
};

// Timed waits that have begun in this process, whatever their length. A wait is counted under the
// mutex that it gives up: who holds that mutex and sees the count finds the waiter waiting.
int waitsBegun();

}  // namespace peltex_test
