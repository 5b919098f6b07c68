// System calls of the product that come by here, as the test programs are linked with them wrapped.
//
// Timed waits, for tests of what happens after many seconds: real ones unless a test says
// otherwise. Safe from any thread. Streams, of which one below /data that another program would
// inherit ends the test: the daemon starts others. Memory that may be refused.
#pragma once

#include <stddef.h>

namespace peltex_test {

enum class WaitLength {
    kReal,
    kShort,    // a hundredth of the distance to the deadline
    kEndless,  // an hour more: only a broadcast ends it
};

// Of the waits that begin from now on.
void setWaits(WaitLength length);

// Timed waits that have begun in this process, whatever their length. A wait is counted under the
// mutex that it gives up: who holds that mutex and sees the count finds the waiter waiting.
int waitsBegun();

// Refuses `new (std::nothrow)` of arrays of just so many bytes from now on; 0: none.
void refuseMemory(size_t size);

}  // namespace peltex_test
