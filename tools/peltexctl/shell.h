// The shell: commands from standard input to the library, events to standard output.
#pragma once

#include <string>

#include "events.h"
#include "library.h"

namespace peltexctl {

// Runs to the end of standard input and returns the program's exit status.
int RunShell(const Library& library, EventWriter* events);

// The dot lines with what they do, one per line.
std::string ShellHelp();

}  // namespace peltexctl
