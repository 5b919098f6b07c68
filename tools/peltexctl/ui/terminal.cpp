// Tested by tests/client/test_running.py.
#include "ui/terminal.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "ui/exit_code.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

std::string_view Environment(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this process changes the environment
    const char* value = getenv(name);
    return value != nullptr ? value : "";
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
    return fmt::format("\x1b[{}m{}\x1b[0m", 31 + static_cast<int>(colour), text);
}

size_t Columns(FILE* stream) {
    winsize size = {};
    return ioctl(fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

void Print(FILE* stream, const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream);
}

void PrintError(const std::string& message) {
    Print(stderr,
          fmt::format("{} {}\n", Paint(stderr, Colour::kRed, "peltexctl:"), EscapeBytes(message)));
}

void EndInterrupted(const std::string& message) {
    const std::string line = fmt::format("peltexctl: {}\n", EscapeBytes(message));
    pollfd ready = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0) {
        [[maybe_unused]] const ssize_t told = write(STDERR_FILENO, line.data(), line.size());
    }
    // Past those who would flush streams, which may wait for a reader.
    syscall(SYS_exit_group, kInterrupted);
    __builtin_unreachable();
}

}  // namespace peltexctl
