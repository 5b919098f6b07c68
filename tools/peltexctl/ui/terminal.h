// What standard output and standard error can show: colours and lines that are drawn over on a
// terminal, plain lines elsewhere.
//
// Thread-safe: the environment is read only.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace peltexctl {

enum class Colour { kRed, kGreen, kYellow };

// Whether `stream` is a terminal that can draw over a line: TERM=dumb says that it cannot.
bool CanRedraw(FILE* stream);

// `text` in this colour where `stream` shows colours: on such a terminal, unless NO_COLOR is set to
// anything but the empty text.
std::string Paint(FILE* stream, Colour colour, const std::string& text);

// The width of the terminal behind `stream`; 80 where it tells none.
size_t Columns(FILE* stream);

// Where `stream` cannot be written, nothing comes of it.
void Print(FILE* stream, const std::string& text);

// "peltexctl: MESSAGE" on standard error, as one line whatever bytes are in it.
void PrintError(const std::string& message);

// Ends the program as interrupted with the same, from any thread: takes no lock and waits for
// nobody. What a full pipe does not take is not told.
[[noreturn]] void EndInterrupted(const std::string& message);

}  // namespace peltexctl
