// Tested by tests/peltexctl/test_shell.py.
#include "ui/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cwchar>
#include <iterator>
#include <sstream>
#include <system_error>

namespace peltexctl {

namespace {

constexpr double kMaxSeconds = 1e6;

// Bytes of the valid character that `rest` begins with, which is `character` then; 0 if it begins
// with none.
size_t CharacterLength(std::string_view rest, wchar_t* character) {
    std::mbstate_t state{};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only without a state of one's own
    const size_t length = std::mbrtowc(character, rest.data(), rest.size(), &state);
    // The C library takes longer forms, too. Of a NUL the length is 0.
    return length > rest.size() || *character > 0x10ffff ? 0 : std::max<size_t>(length, 1);
}

}  // namespace

std::optional<int> ParseInt(std::string_view word) {
    int value = 0;
    const char* end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

std::optional<double> ParseSeconds(std::string_view word) {
    // Not from_chars: the platform's C++ library has it for whole numbers only.
    std::istringstream stream{std::string(word)};
    double seconds = 0;
    stream >> std::noskipws >> seconds;
    // Written so that "nan" is refused by whoever reads it.
    if (!stream || !stream.eof() || !(seconds >= 0 && seconds <= kMaxSeconds)) {
        return std::nullopt;
    }
    return seconds;
}

std::vector<std::string> SplitWords(const std::string& line) {
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::string BytesToUtf8(std::string_view bytes) {
    std::string text;
    wchar_t character = 0;
    while (!bytes.empty()) {
        const size_t length = CharacterLength(bytes, &character);
        if (length > 0) {
            text.append(bytes.substr(0, length));
        } else {
            const auto byte = static_cast<unsigned char>(bytes[0]);
            text.push_back(static_cast<char>(0xc0 | byte >> 6));
            text.push_back(static_cast<char>(0x80 | (byte & 0x3f)));
        }
        bytes.remove_prefix(std::max<size_t>(length, 1));
    }
    return text;
}

std::string EscapeBytes(std::string_view bytes) {
    std::string escaped;
    wchar_t character = 0;
    while (!bytes.empty()) {
        const size_t length = CharacterLength(bytes, &character);
        const std::string_view taken = bytes.substr(0, std::max<size_t>(length, 1));
        // The control characters above ASCII, too: terminals obey them.
        const bool is_control = character < 0x20 || (character >= 0x7f && character < 0xa0);
        if (taken == "\n") {
            escaped += "\\n";
        } else if (taken == "\\") {
            escaped += "\\\\";
        } else if (length == 0 || is_control) {
            for (const char byte : taken) {
                escaped += fmt::format("\\{:03o}", static_cast<unsigned char>(byte));
            }
        } else {
            escaped += taken;
        }
        bytes.remove_prefix(taken.size());
    }
    return escaped;
}

std::string Hexadecimal(std::string_view bytes) {
    std::string digits;
    for (const char byte : bytes) {
        digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    }
    return digits;
}

std::string Counted(uint64_t number, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", number, number == 1 ? one : many);
}

std::string HumanSize(uint64_t bytes) {
    constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return fmt::format("{} B", bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < kUnits.size()) {
        value /= 1024;
        unit++;
    }
    return fmt::format("{:.1f} {}", value, kUnits.at(unit));
}

uint64_t BytesPerSecond(uint64_t bytes, double seconds) {
    constexpr double kShortest = 0.001;
    return static_cast<uint64_t>(static_cast<double>(bytes) / std::max(seconds, kShortest));
}

std::string HumanRate(uint64_t bytes, double seconds) {
    return HumanSize(BytesPerSecond(bytes, seconds)) + "/s";
}

std::string HumanTime(double seconds) {
    const auto whole = static_cast<int64_t>(seconds);
    const std::string tail = fmt::format("{:02}", whole % 60);
    return whole < 3600 ? fmt::format("{}:{}", whole / 60, tail)
                        : fmt::format("{}:{:02}:{}", whole / 3600, whole / 60 % 60, tail);
}

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

std::string ErrorText(int error) {
    return std::generic_category().message(error);
}

}  // namespace peltexctl
