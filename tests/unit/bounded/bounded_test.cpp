#include "bounded/bounded.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>

namespace {

constexpr size_t kTooLarge = BOUNDED_MAX_SIZE + 1;
const char* const kNoFormat = nullptr;

// Eight bytes that a call may write and a byte behind them that none may touch.
struct Room {
    char bytes[9] = {'#', '#', '#', '#', '#', '#', '#', '#', '!'};
    std::string text() const { return std::string(bytes, 8); }
    bool guarded() const { return bytes[8] == '!'; }
};

const std::string kUntouched(8, '#');
const std::string kCleared(8, '\0');

TEST(MemcpyS, RefusalsInTheirOrder) {
    static const struct {
        const char* name;
        bool dest;
        size_t destMax;
        const char* src;
        size_t count;
        int result;
        std::string after;
    } kRows[] = {
        {"fits exactly", true, 8, "abcdefgh", 8, BOUNDED_OK, "abcdefgh"},
        {"nothing", true, 8, "abc", 0, BOUNDED_OK, kUntouched},
        {"no room beats no source", true, 0, nullptr, 1, BOUNDED_BAD_SIZE, kUntouched},
        {"room too large beats no destination", false, kTooLarge, "a", 1, BOUNDED_BAD_SIZE,
         kUntouched},
        {"no destination beats no source", false, 8, nullptr, 1, BOUNDED_NULL_DEST, kUntouched},
        {"no source beats too much", true, 8, nullptr, 9, 150, kCleared},
        {"no source, nothing to copy", true, 8, nullptr, 0, 150, kCleared},
        {"one byte too much", true, 8, "abcdefghi", 9, 162, kCleared},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Room room;
        EXPECT_EQ(memcpy_s(row.dest ? room.bytes : nullptr, row.destMax, row.src, row.count),
                  row.result);
        EXPECT_EQ(room.text(), row.after);
        EXPECT_TRUE(room.guarded());
    }
}

TEST(MemcpyS, OverlapIsFoundInBothDirectionsAndNeighboursAreNot) {
    char bytes[8] = "abcdefg";
    EXPECT_EQ(memcpy_s(bytes, 4, bytes + 4, 4), 0);
    EXPECT_EQ(memcpy_s(bytes + 4, 4, bytes, 4), 0);
    EXPECT_EQ(memcpy_s(bytes, 5, bytes + 4, 4), 0);
    EXPECT_EQ(memcpy_s(bytes + 3, 5, bytes, 4), 182);
    EXPECT_EQ(memcpy_s(bytes, 4, bytes + 3, 4), 182);
    EXPECT_EQ(memcpy_s(bytes, 4, bytes, 4), 182);
}

TEST(MemsetS, FillsWhatFitsAndTellsOfTheRest) {
    Room room;
    EXPECT_EQ(memset_s(room.bytes, 8, 'x', 3), 0);
    EXPECT_EQ(room.text(), "xxx#####");
    EXPECT_EQ(memset_s(room.bytes, 8, 'y', 9), 162);
    EXPECT_EQ(room.text(), "yyyyyyyy");
    EXPECT_TRUE(room.guarded());
    EXPECT_EQ(memset_s(nullptr, 0, 'x', 1), 34);
    EXPECT_EQ(memset_s(nullptr, 8, 'x', 1), 22);
    EXPECT_EQ(memset_s(room.bytes, kTooLarge, 'x', 1), 34);
}

TEST(StrncpyS, KeepsTheTerminatorInsideTheRoom) {
    static const struct {
        const char* name;
        size_t destMax;
        const char* src;
        size_t count;
        int result;
        const char* after;
    } kRows[] = {
        {"text and NUL fit", 5, "abcd", 4, 0, "abcd"},
        {"no room for the NUL", 4, "abcd", 4, 162, ""},
        {"cut by the count", 4, "abcdefgh", 3, 0, "abc"},
        {"count beyond the text", 8, "ab", 100, 0, "ab"},
        {"nothing", 8, "ab", 0, 0, ""},
        {"largest count", 8, "ab", 0x7FFFFFFF, 0, "ab"},
        {"count too large", 8, "ab", 0x80000000u, 162, ""},
        {"no source", 8, nullptr, 0, 150, ""},
        {"no room", 0, "ab", 2, 34, "########!"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Room room;
        EXPECT_EQ(strncpy_s(room.bytes, row.destMax, row.src, row.count), row.result);
        EXPECT_EQ(std::string(room.bytes, strnlen(room.bytes, sizeof(room.bytes))), row.after);
        EXPECT_TRUE(room.guarded());
    }
    char bytes[8] = "abcdef";
    EXPECT_EQ(strncpy_s(bytes + 2, 6, bytes, 3), 182);
    EXPECT_STREQ(bytes, "ab");
}

TEST(FormatFunctions, NeverWritePastTheRoom) {
    Room room;
    EXPECT_EQ(sprintf_s(room.bytes, 4, "%d", 123), 3);
    EXPECT_STREQ(room.bytes, "123");
    EXPECT_EQ(sprintf_s(room.bytes, 4, "%d", 1234), -1);
    EXPECT_STREQ(room.bytes, "");
    EXPECT_EQ(snprintf_s(room.bytes, 8, 3, "%s", "abc"), 3);
    EXPECT_EQ(snprintf_s(room.bytes, 8, 3, "%s", "abcd"), -1);
    EXPECT_STREQ(room.bytes, "");
    EXPECT_EQ(snprintf_s(room.bytes, 8, 8, "%s", "abcdefgh"), -1);
    EXPECT_EQ(snprintf_truncated_s(room.bytes, 8, "%s", "abcdefghij"), 7);
    EXPECT_STREQ(room.bytes, "abcdefg");
    EXPECT_TRUE(room.guarded());
}

TEST(FormatFunctions, RefuseUnusableArguments) {
    Room room;
    EXPECT_EQ(snprintf_s(room.bytes, 0, 3, "%d", 1), -1);
    EXPECT_EQ(sprintf_s(room.bytes, kTooLarge, "%d", 1), -1);
    EXPECT_EQ(sprintf_s(nullptr, 8, "%d", 1), -1);
    EXPECT_EQ(room.text(), kUntouched);
    EXPECT_EQ(snprintf_s(room.bytes, 8, 0x7FFFFFFF, "%d", 1), -1);
    EXPECT_STREQ(room.bytes, "");
    Room other;
    EXPECT_EQ(sprintf_s(other.bytes, 8, kNoFormat), -1);
    EXPECT_STREQ(other.bytes, "");
}

}  // namespace
