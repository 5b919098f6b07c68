// Tested by tests/client/peltexctl.md and test_running.py.
#include "ui/text.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <sstream>

namespace peltexctl {

namespace {

constexpr double kMaxSeconds = 1e6;

// Gives each character of `bytes` to `take`, and each byte that is part of none as invalid.
template <typename Take>
void ForEachCharacter(std::string_view bytes, const Take& take) {
    while (!bytes.empty()) {
        std::mbstate_t state{};
        wchar_t character = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only without a state of one's own
        size_t length = std::mbrtowc(&character, bytes.data(), bytes.size(), &state);
        // The C library takes longer forms, too. Of a NUL the length is 0.
        const bool is_valid = length <= bytes.size() && character <= 0x10ffff;
        length = is_valid ? std::max<size_t>(length, 1) : 1;
        take(bytes.substr(0, length), is_valid, character);
        bytes.remove_prefix(length);
    }
}

std::string_view Environment(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this process changes the environment
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace

std::optional<double> ParseSeconds(std::string_view word) {
    // Not from_chars: the platform's C++ library has it for whole numbers only.
    std::istringstream stream{std::string(word)};
    double seconds = 0;
    stream >> std::noskipws >> seconds;
    const bool is_right = stream && stream.eof() && seconds >= 0 && seconds <= kMaxSeconds;
    return is_right ? std::optional(seconds) : std::nullopt;
}

std::vector<std::string> SplitWords(const std::string& line) {
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::string BytesToUtf8(std::string_view bytes) {
    std::string text;
    ForEachCharacter(bytes, [&text](std::string_view taken, bool is_valid, wchar_t /*character*/) {
        const auto byte = static_cast<unsigned char>(taken[0]);
        if (is_valid) {
            text += taken;
        } else {
            text += {static_cast<char>(0xc0 | byte >> 6), static_cast<char>(0x80 | (byte & 0x3f))};
        }
    });
    return text;
}

std::string EscapeBytes(std::string_view bytes) {
    std::string escaped;
    ForEachCharacter(bytes, [&escaped](std::string_view taken, bool is_valid, wchar_t character) {
        // The control characters above ASCII, too: terminals obey them.
        const bool is_control = character < 0x20 || (character >= 0x7f && character < 0xa0);
        if (taken == "\n") {
            escaped += "\\n";
        } else if (taken == "\\") {
            escaped += "\\\\";
        } else if (is_valid && !is_control) {
            escaped += taken;
        } else {
            for (const char byte : taken) {
                escaped += fmt::format("\\{:03o}", static_cast<unsigned char>(byte));
            }
        }
    });
    return escaped;
}

std::string Hexadecimal(std::string_view bytes) {
    const auto* const begin = reinterpret_cast<const unsigned char*>(bytes.data());
    return fmt::format("{:02x}", fmt::join(begin, begin + bytes.size(), ""));
}

std::string Counted(uint64_t number, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", number, number == 1 ? one : many);
}

std::string HumanSize(uint64_t bytes) {
    if (bytes < 1024) {
        return fmt::format("{} B", bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    const char* unit = "KMGTPE";
    while (value >= 1024) {
        value /= 1024;
        unit++;
    }
    return fmt::format("{:.1f} {}iB", value, *unit);
}

uint64_t BytesPerSecond(uint64_t bytes, double seconds) {
    constexpr double kShortest = 0.001;
    return static_cast<uint64_t>(static_cast<double>(bytes) / std::max(seconds, kShortest));
}

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

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

void Print(FILE* stream, const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream);
}

void PrintError(const std::string& message) {
    Print(stderr,
          fmt::format("{} {}\n", Paint(stderr, Colour::kRed, "peltexctl:"), EscapeBytes(message)));
}

}  // namespace peltexctl
