// Where every thread of this process is, for a soak that no longer moves.
#pragma once

namespace peltex_soak {

// Prints the calls of every thread to standard output. Stops each for a moment, by SIGUSR2.
void printStacks();

}  // namespace peltex_soak
