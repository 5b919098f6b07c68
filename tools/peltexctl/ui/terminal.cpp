// Tested by tests/peltexctl/test_terminal.py.
#include "ui/terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "ui/text.h"

namespace peltexctl {

namespace {

std::string_view Environment(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this process changes the environment
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

const char* Sequence(Colour colour) {
    switch (colour) {
        case Colour::kBold:
            return "\x1b[1m";
        case Colour::kRed:
            return "\x1b[31m";
        case Colour::kGreen:
            return "\x1b[32m";
        case Colour::kYellow:
            return "\x1b[33m";
    }
    return "";
}

}  // namespace

bool CanRedraw(FILE* stream) {
    const std::string_view term = Environment("TERM");
    return isatty(fileno(stream)) == 1 && !term.empty() && term != "dumb";
}

std::string Paint(FILE* stream, Colour colour, const std::string& text) {
    if (!CanRedraw(stream) || !Environment("NO_COLOR").empty()) {
        return text;
    }
    return Sequence(colour) + text + "\x1b[0m";
}

size_t Columns(FILE* stream) {
    winsize size = {};
    return ioctl(fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void PrintError(const std::string& message) {
    fmt::print(stderr, "{} {}\n", Paint(stderr, Colour::kRed, "peltexctl:"), EscapeBytes(message));
}

}  // namespace peltexctl
