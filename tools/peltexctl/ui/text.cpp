// Tested by tests/peltexctl/test_shell.py.
#include "ui/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>
#include <system_error>

namespace peltexctl {

namespace {

constexpr double kMaxSeconds = 1e6;

// The first bytes of the characters of one length, and the bounds of the byte that follows, which
// rule out overlong forms, surrogates and values above U+10FFFF.
struct LeadByte {
    size_t length;
    unsigned char first, last;
    unsigned char second_first, second_last;
};

constexpr LeadByte kLeadBytes[] = {
    {1, 0x00, 0x7f, 0x80, 0xbf}, {2, 0xc2, 0xdf, 0x80, 0xbf}, {3, 0xe0, 0xe0, 0xa0, 0xbf},
    {3, 0xe1, 0xec, 0x80, 0xbf}, {3, 0xed, 0xed, 0x80, 0x9f}, {3, 0xee, 0xef, 0x80, 0xbf},
    {4, 0xf0, 0xf0, 0x90, 0xbf}, {4, 0xf1, 0xf3, 0x80, 0xbf}, {4, 0xf4, 0xf4, 0x80, 0x8f},
};

bool InRange(char byte, unsigned char first, unsigned char last) {
    const auto value = static_cast<unsigned char>(byte);
    return value >= first && value <= last;
}

// Bytes of the valid character that `rest` begins with; 0 if it begins with none.
size_t CharacterLength(std::string_view rest) {
    for (const LeadByte& lead : kLeadBytes) {
        if (!InRange(rest[0], lead.first, lead.last)) {
            continue;
        }
        if (rest.size() < lead.length) {
            return 0;
        }
        if (lead.length > 1 && !InRange(rest[1], lead.second_first, lead.second_last)) {
            return 0;
        }
        for (size_t i = 2; i < lead.length; i++) {
            if (!InRange(rest[i], 0x80, 0xbf)) {
                return 0;
            }
        }
        return lead.length;
    }
    return 0;
}

}  // namespace

std::optional<int> ParseInt(std::string_view word) {
    int value = 0;
    const char* end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
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

std::vector<std::string> SplitWords(std::string_view line, std::string_view separators) {
    std::vector<std::string> words;
    size_t begin = line.find_first_not_of(separators);
    while (begin != std::string_view::npos) {
        const size_t end = std::min(line.find_first_of(separators, begin), line.size());
        words.emplace_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(separators, end);
    }
    return words;
}

std::string BytesToUtf8(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        const size_t length = CharacterLength(bytes);
        if (length > 0) {
            text.append(bytes.substr(0, length));
            bytes.remove_prefix(length);
            continue;
        }
        const auto byte = static_cast<unsigned char>(bytes[0]);
        text.push_back(static_cast<char>(0xc0 | byte >> 6));
        text.push_back(static_cast<char>(0x80 | (byte & 0x3f)));
        bytes.remove_prefix(1);
    }
    return text;
}

std::string EscapeBytes(std::string_view bytes) {
    std::string escaped;
    while (!bytes.empty()) {
        const size_t length = CharacterLength(bytes);
        const auto first = static_cast<unsigned char>(bytes[0]);
        // The control characters above ASCII, too: terminals obey them.
        const bool is_control =
            first < 0x20 || first == 0x7f ||
            (length == 2 && first == 0xc2 && static_cast<unsigned char>(bytes[1]) < 0xa0);
        const std::string_view character = bytes.substr(0, length == 0 ? 1 : length);
        if (first == '\n') {
            escaped += "\\n";
        } else if (first == '\\') {
            escaped += "\\\\";
        } else if (length == 0 || is_control) {
            for (const char byte : character) {
                escaped += fmt::format("\\{:03o}", static_cast<unsigned char>(byte));
            }
        } else {
            escaped += character;
        }
        bytes.remove_prefix(character.size());
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

std::string HumanRate(uint64_t bytes, double seconds) {
    constexpr double kShortest = 0.001;
    const double rate = static_cast<double>(bytes) / std::max(seconds, kShortest);
    return HumanSize(static_cast<uint64_t>(rate)) + "/s";
}

std::string HumanTime(double seconds) {
    const auto whole = static_cast<int64_t>(seconds);
    const std::string tail = fmt::format("{:02}", whole % 60);
    return whole < 3600 ? fmt::format("{}:{}", whole / 60, tail)
                        : fmt::format("{}:{:02}:{}", whole / 3600, whole / 60 % 60, tail);
}

std::string ErrorText(int error) {
    return std::generic_category().message(error);
}

}  // namespace peltexctl
