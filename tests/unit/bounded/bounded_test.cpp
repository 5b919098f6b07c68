#include "bounded/bounded.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

namespace {

constexpr size_t kTooLarge = BOUNDED_MAX_SIZE + 1;
const char* const kNone = nullptr;

// Eight bytes of '#' that a call may write, and one behind them that none may touch.
TEST(Bounded, ResultsAndWhatIsLeftBehind) {
    const struct {
        const char* name;
        std::function<int(char* room)> call;
        int result;
        std::string after;  // from the room's beginning, "." for a NUL
    } rows[] = {
        {"copy", [](char* r) { return memcpy_s(r, 8, "abcdefgh", 8); }, 0, "abcdefgh"},
        {"copy nothing", [](char* r) { return memcpy_s(r, 8, "a", 0); }, 0, "########"},
        {"copy, no room", [](char* r) { return memcpy_s(r, 0, kNone, 1); }, 34, "########"},
        {"copy, huge", [](char*) { return memcpy_s(nullptr, kTooLarge, "a", 1); }, 34, "########"},
        {"copy, largest room", [](char* r) { return memcpy_s(r, BOUNDED_MAX_SIZE, "a", 1); }, 0,
         "a#"},
        {"copy to nowhere", [](char*) { return memcpy_s(nullptr, 8, kNone, 1); }, 22, "########"},
        {"copy from nowhere", [](char* r) { return memcpy_s(r, 8, kNone, 9); }, 150, "........"},
        {"nothing from nowhere", [](char* r) { return memcpy_s(r, 8, kNone, 0); }, 150, "........"},
        {"copy, too much", [](char* r) { return memcpy_s(r, 8, "abcdefghi", 9); }, 162, "........"},
        {"neighbour behind", [](char* r) { return memcpy_s(r, 5, r + 4, 4); }, 0, "########"},
        {"neighbour before", [](char* r) { return memcpy_s(r + 4, 4, r, 4); }, 0, "########"},
        {"overlap behind", [](char* r) { return memcpy_s(r, 4, r + 3, 4); }, 182, "....####"},
        {"overlap before", [](char* r) { return memcpy_s(r + 3, 5, r, 4); }, 182, "###....."},
        {"on itself", [](char* r) { return memcpy_s(r, 4, r, 4); }, 182, "....####"},
        {"fill", [](char* r) { return memset_s(r, 8, 'x', 3); }, 0, "xxx#####"},
        {"fill all", [](char* r) { return memset_s(r, 8, 'x', 8); }, 0, "xxxxxxxx"},
        {"fill too much", [](char* r) { return memset_s(r, 8, 'y', 9); }, 162, "yyyyyyyy"},
        {"fill no room", [](char*) { return memset_s(nullptr, 0, 'x', 1); }, 34, "########"},
        {"fill nowhere", [](char*) { return memset_s(nullptr, 8, 'x', 1); }, 22, "########"},
        {"fill, huge", [](char* r) { return memset_s(r, kTooLarge, 'x', 1); }, 34, "########"},
        {"text", [](char* r) { return strncpy_s(r, 5, "abcd", 4); }, 0, "abcd.###"},
        {"text without its NUL", [](char* r) { return strncpy_s(r, 4, "abcd", 4); }, 162, ".###"},
        {"text, cut by the count", [](char* r) { return strncpy_s(r, 4, "abcdefgh", 3); }, 0,
         "abc.#"},
        {"text, largest count", [](char* r) { return strncpy_s(r, 8, "ab", 0x7FFFFFFF); }, 0,
         "ab.#"},
        {"text, count too large", [](char* r) { return strncpy_s(r, 8, "ab", 0x80000000u); }, 162,
         ".#"},
        {"text, nothing of it", [](char* r) { return strncpy_s(r, 8, "ab", 0); }, 0, ".#"},
        {"text from nowhere", [](char* r) { return strncpy_s(r, 8, kNone, 0); }, 150, ".#"},
        {"text, no room", [](char* r) { return strncpy_s(r, 0, "ab", 2); }, 34, "########"},
        {"text to nowhere", [](char*) { return strncpy_s(nullptr, 8, "ab", 2); }, 22, "########"},
        {"text over itself", [](char* r) { return strncpy_s(r + 2, 6, r, 3); }, 182, "##.#"},
        {"format", [](char* r) { return sprintf_s(r, 4, "%d", 123); }, 3, "123.####"},
        {"format too long", [](char* r) { return sprintf_s(r, 4, "%d", 1234); }, -1, "."},
        {"format nothing", [](char* r) { return sprintf_s(r, 8, kNone); }, -1, ".#"},
        {"format, huge", [](char* r) { return sprintf_s(r, kTooLarge, "%d", 1); }, -1, "########"},
        {"format nowhere", [](char*) { return sprintf_s(nullptr, 8, "%d", 1); }, -1, "########"},
        {"format, counted", [](char* r) { return snprintf_s(r, 8, 3, "%s", "abc"); }, 3, "abc.#"},
        {"format beyond the count", [](char* r) { return snprintf_s(r, 8, 3, "%s", "abcd"); }, -1,
         "."},
        {"format beyond the room", [](char* r) { return snprintf_s(r, 8, 8, "%s", "abcdefgh"); },
         -1, "."},
        {"format, no room", [](char* r) { return snprintf_s(r, 0, 3, "%d", 1); }, -1, "########"},
        {"format, count too large", [](char* r) { return snprintf_s(r, 8, 0x7FFFFFFF, "%d", 1); },
         -1, ".#"},
        {"format, largest count", [](char* r) { return snprintf_s(r, 8, 0x7FFFFFFE, "%d", 1); }, 1,
         "1.#"},
        {"format, cut", [](char* r) { return snprintf_truncated_s(r, 8, "%s", "abcdefghij"); }, 7,
         "abcdefg."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        char room[] = "########!";
        EXPECT_EQ(row.call(room), row.result);
        std::replace(room, room + 8, '\0', '.');
        EXPECT_EQ(std::string(room, row.after.size()), row.after);
        EXPECT_EQ(room[8], '!');
    }
}

}  // namespace
