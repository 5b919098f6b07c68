// The streams that the library has open. Targets that use it are linked with fopen() and fclose()
// wrapped. Safe from any thread.
#pragma once

#include <stddef.h>

namespace peltex_fuzz {

// Closes those that are still open; returns how many there were.
size_t closeOpenStreams();

}  // namespace peltex_fuzz
