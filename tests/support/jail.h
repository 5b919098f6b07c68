// The root that a fuzz target's threads have to themselves, and the way out of it for who reports a
// finding: the symbolizer and the directory of the findings are outside.
#pragma once

#include <string>

namespace peltex_test {

// Makes `dir` the root of the calling thread, of those that it starts, and of no other.
void enterJail(const std::string& dir);

// Ends the process, outside of the jail.
[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...);

}  // namespace peltex_test
