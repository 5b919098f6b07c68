// The priority of one thread, as the nice value that the kernel keeps for it.
//
// Safe from any thread. `tid` is the kernel's thread id, 0 the calling thread.

#pragma once

#include <sys/types.h>

extern "C" {

// Returns 0, or INVALID_OPERATION with errno set when the kernel refuses.
int androidSetThreadPriority(pid_t tid, int prio);

// Returns the nice value, -20 to 19. -1 is a nice value too: a thread that is not there cannot be
// told from it by the result.
int androidGetThreadPriority(pid_t tid);

}  // extern "C"
