// The waits of the workers: whether all have come to rest, and the end of timed waits without the
// seconds that they take. Targets that use it are linked with the functions of condition variables
// wrapped, so what the library calls arrives here. Safe from any thread.
#pragma once

#include <stddef.h>

namespace peltex_fuzz {

// Threads that wait and that nobody has woken.
size_t waitingThreads();

// Whether one of them is in a timed wait. Such a wait lasts until it is woken or lapses.
bool isTimedWaiting();

// Lets all present timed waits run out, and the later ones on the same conditions at once.
void lapseTimedWaits();

// Forgets the conditions whose waits have lapsed.
void resetWaits();

}  // namespace peltex_fuzz
