// Text for people: numbers as they type and read them, bytes that need not be UTF-8, colours, and
// how lines reach a terminal. REQUIRES: the locale's LC_CTYPE is C.UTF-8.
//
// Thread-safe.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace peltexctl {

// The decimal number that is the whole of `word`, with an optional minus where the type has a sign;
// nothing if it is not one or does not fit.
template <typename Number>
std::optional<Number> ParseNumber(std::string_view word) {
    Number value = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    return error == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}
inline std::optional<int> ParseInt(std::string_view word) {
    return ParseNumber<int>(word);
}

// A number of seconds, 0 to a million, with or without a fraction.
std::optional<double> ParseSeconds(std::string_view word);

// The words of `line` between blanks.
std::vector<std::string> SplitWords(const std::string& line);

// `bytes` with each byte that is not part of valid UTF-8 replaced by the code point of the same
// value, so that a reader sees which byte it was. Overlong forms and surrogates are not valid.
std::string BytesToUtf8(std::string_view bytes);

// `bytes` for a terminal, as ls and GNU tar write them: control characters, backslashes and what is
// no UTF-8 as escapes.
std::string EscapeBytes(std::string_view bytes);

std::string Hexadecimal(std::string_view bytes);

// "1 entry", "2 entries".
std::string Counted(uint64_t number, std::string_view one, std::string_view many);

// "512 B", "1.5 MiB".
std::string HumanSize(uint64_t bytes);
uint64_t BytesPerSecond(uint64_t bytes, double seconds);

bool EndsWith(std::string_view text, std::string_view end);

// Whether `stream` is a terminal that can draw over a line: TERM=dumb says that it cannot.
bool CanRedraw(FILE* stream);

// `text` in this colour on such a terminal, unless NO_COLOR is set to anything but the empty text.
enum class Colour { kRed, kGreen, kYellow };
std::string Paint(FILE* stream, Colour colour, const std::string& text);

// Where `stream` cannot be written, nothing comes of it.
void Print(FILE* stream, const std::string& text);

// "peltexctl: MESSAGE" on standard error, as one line whatever bytes are in it.
void PrintError(const std::string& message);

}  // namespace peltexctl
