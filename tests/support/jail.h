// The root that a fuzz target has to itself. Who reports a finding leaves it: the symbolizer and
// the directory of the findings are outside.
#pragma once

#include <string>

namespace peltex_test {

// Makes `dir` the root of the calling thread, and of no other that runs already.
void enterJail(const std::string& dir);
void leaveJail();

// Ends the process, outside of the jail.
[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...);

}  // namespace peltex_test
