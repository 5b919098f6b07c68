// The shell: commands from standard input to the library, events to standard output.
#pragma once

#include <vector>

#include "ui/events.h"
#include "task/library.h"
#include "ui/manual_text.h"

namespace peltexctl {

// Runs to the end of standard input and returns the program's exit status.
int RunShell(const Library& library, EventWriter* events);

// The lines of the shell itself, with what they do.
std::vector<Definition> ShellLines();

}  // namespace peltexctl
