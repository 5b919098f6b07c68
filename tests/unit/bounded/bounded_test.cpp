#include "bounded/bounded.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

constexpr size_t kTooLarge = BOUNDED_MAX_SIZE + 1;
const char* const kNone = nullptr;
const std::string kAsItWas = "########";
const std::string kCleared(8, '\0');

// Eight bytes of '#' that a call may write, and one behind them that none may touch.
TEST(Bounded, ResultsAndWhatIsLeftBehind) {
    const struct {
        const char* name;
        std::function<int(char* room)> call;
        int result;
        std::string after;  // from the room's beginning
    } rows[] = {
        {"copy", [](char* r) { return memcpy_s(r, 8, "abcdefgh", 8); }, 0, "abcdefgh"},
        {"copy nothing", [](char* r) { return memcpy_s(r, 8, "a", 0); }, 0, kAsItWas},
        {"copy, no room", [](char* r) { return memcpy_s(r, 0, kNone, 1); }, 34, kAsItWas},
        {"copy, huge", [](char*) { return memcpy_s(nullptr, kTooLarge, "a", 1); }, 34, kAsItWas},
        {"copy, largest room", [](char* r) { return memcpy_s(r, BOUNDED_MAX_SIZE, "a", 1); }, 0,
         "a#"},
        {"copy to nowhere", [](char*) { return memcpy_s(nullptr, 8, kNone, 1); }, 22, kAsItWas},
        {"copy from nowhere", [](char* r) { return memcpy_s(r, 8, kNone, 9); }, 150, kCleared},
        {"nothing from nowhere", [](char* r) { return memcpy_s(r, 8, kNone, 0); }, 150, kCleared},
        {"copy, too much", [](char* r) { return memcpy_s(r, 8, "abcdefghi", 9); }, 162, kCleared},
        {"neighbour behind", [](char* r) { return memcpy_s(r, 5, r + 4, 4); }, 0, kAsItWas},
        {"neighbour before", [](char* r) { return memcpy_s(r + 4, 4, r, 4); }, 0, kAsItWas},
        {"overlap behind", [](char* r) { return memcpy_s(r, 4, r + 3, 4); }, 182,
         kCleared.substr(4) + "####"},
        {"overlap before", [](char* r) { return memcpy_s(r + 3, 5, r, 4); }, 182,
         "###" + kCleared.substr(3)},
        {"on itself", [](char* r) { return memcpy_s(r, 4, r, 4); }, 182,
         kCleared.substr(4) + "####"},
        {"fill", [](char* r) { return memset_s(r, 8, 'x', 3); }, 0, "xxx#####"},
        {"fill all", [](char* r) { return memset_s(r, 8, 'x', 8); }, 0, "xxxxxxxx"},
        {"fill too much", [](char* r) { return memset_s(r, 8, 'y', 9); }, 162, "yyyyyyyy"},
        {"fill no room", [](char*) { return memset_s(nullptr, 0, 'x', 1); }, 34, kAsItWas},
        {"fill nowhere", [](char*) { return memset_s(nullptr, 8, 'x', 1); }, 22, kAsItWas},
        {"fill, huge", [](char* r) { return memset_s(r, kTooLarge, 'x', 1); }, 34, kAsItWas},
        {"text", [](char* r) { return strncpy_s(r, 5, "abcd", 4); }, 0,
         std::string("abcd\0###", 8)},
        {"text without its NUL", [](char* r) { return strncpy_s(r, 4, "abcd", 4); }, 162,
         std::string("\0###", 4)},
        {"text, cut by the count", [](char* r) { return strncpy_s(r, 4, "abcdefgh", 3); }, 0,
         std::string("abc\0#", 5)},
        {"text, largest count", [](char* r) { return strncpy_s(r, 8, "ab", 0x7FFFFFFF); }, 0,
         std::string("ab\0#", 4)},
        {"text, count too large", [](char* r) { return strncpy_s(r, 8, "ab", 0x80000000u); }, 162,
         std::string("\0#", 2)},
        {"text, nothing of it", [](char* r) { return strncpy_s(r, 8, "ab", 0); }, 0,
         std::string("\0#", 2)},
        {"text from nowhere", [](char* r) { return strncpy_s(r, 8, kNone, 0); }, 150,
         std::string("\0#", 2)},
        {"text, no room", [](char* r) { return strncpy_s(r, 0, "ab", 2); }, 34, kAsItWas},
        {"text to nowhere", [](char*) { return strncpy_s(nullptr, 8, "ab", 2); }, 22, kAsItWas},
        {"text over itself", [](char* r) { return strncpy_s(r + 2, 6, r, 3); }, 182,
         std::string("##\0#", 4)},
        {"format", [](char* r) { return sprintf_s(r, 4, "%d", 123); }, 3,
         std::string("123\0####", 8)},
        {"format too long", [](char* r) { return sprintf_s(r, 4, "%d", 1234); }, -1,
         std::string("\0", 1)},
        {"format nothing", [](char* r) { return sprintf_s(r, 8, kNone); }, -1,
         std::string("\0#", 2)},
        {"format, huge", [](char* r) { return sprintf_s(r, kTooLarge, "%d", 1); }, -1, kAsItWas},
        {"format nowhere", [](char*) { return sprintf_s(nullptr, 8, "%d", 1); }, -1, kAsItWas},
        {"format, counted", [](char* r) { return snprintf_s(r, 8, 3, "%s", "abc"); }, 3,
         std::string("abc\0#", 5)},
        {"format beyond the count", [](char* r) { return snprintf_s(r, 8, 3, "%s", "abcd"); }, -1,
         std::string("\0", 1)},
        {"format beyond the room", [](char* r) { return snprintf_s(r, 8, 8, "%s", "abcdefgh"); },
         -1, std::string("\0", 1)},
        {"format, no room", [](char* r) { return snprintf_s(r, 0, 3, "%d", 1); }, -1, kAsItWas},
        {"format, count too large", [](char* r) { return snprintf_s(r, 8, 0x7FFFFFFF, "%d", 1); },
         -1, std::string("\0#", 2)},
        {"format, largest count", [](char* r) { return snprintf_s(r, 8, 0x7FFFFFFE, "%d", 1); }, 1,
         std::string("1\0#", 3)},
        {"format, cut", [](char* r) { return snprintf_truncated_s(r, 8, "%s", "abcdefghij"); }, 7,
         std::string("abcdefg\0", 8)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        char room[] = "########!";
        EXPECT_EQ(row.call(room), row.result);
        EXPECT_EQ(std::string(room, row.after.size()), row.after);
        EXPECT_EQ(room[8], '!');
    }
}

}  // namespace
