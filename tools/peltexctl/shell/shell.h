// The shell: commands from standard input to the library, events to standard output.
#pragma once

#include <string>

#include "task/library.h"
#include "ui/events.h"

namespace peltexctl {

// Runs to the end of standard input and returns the program's exit status.
int RunShell(const Library& library, EventWriter* events);

// The lines of the shell itself and the commands that it sends, as --help shows them.
std::string ShellHelp();

}  // namespace peltexctl
