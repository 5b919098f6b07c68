#include "tar/tar_header.h"

#include <gtest/gtest.h>
#include <string.h>

#include <memory>

#include "tests/support/tar_builder.h"

namespace peltex_test {
namespace {

using android::installd::checksumOf;
using android::installd::ParseOctalStr;
using android::installd::TarBlock;
using namespace std::string_literals;

// Alone on the heap, so that a read behind it shows.
std::unique_ptr<TarBlock> blockWith(char fill, size_t offset = 0, const std::string& text = "") {
    auto block = std::make_unique<TarBlock>();
    memset(&block->header, fill, sizeof(block->header));
    memcpy(reinterpret_cast<char*>(&block->header) + offset, text.data(), text.size());
    return block;
}

TEST(ParseOctalStr, ReadsDigitsWhereverTheyBeginAndSkipsWhatIsNone) {
    constexpr size_t kMode = 100;
    const struct {
        const char* name;
        char fill;
        size_t offset;
        std::string text;
        uint64_t value;
    } rows[] = {
        {"digits and NUL", 'x', kMode, "0000755\0"s, 0755},
        {"digits and space", 'x', kMode, "000755 7", 0755},
        {"all eight are digits", '5', kMode, "76543210", 076543210},
        {"8 ends it", 'x', kMode, "1284", 012},
        {"9 ends it", 'x', kMode, "1294", 012},
        {"a slash ends it", 'x', kMode, "12/4", 012},
        {"a colon ends it", 'x', kMode, "12:4", 012},
        {"a byte above 127 ends it", 'x', kMode, "12\xb4\x34", 012},
        {"blanks before it count", '7', kMode, "    ", 07777},
        {"a sign is skipped", 'x', kMode, "-17 ", 017},
        {"8 and 9 are skipped", 'x', kMode, "8917 ", 017},
        {"bytes above 127 are skipped", 'x', kMode, "\xb1\xff\x31\x37 ", 017},
        {"one place left", '7', kMode, "       ", 07},
        {"no place left", '7', kMode, "        ", 0},
        {"the count wraps", '\0', kMode, "         123456701234", 0123456701234},
        {"the count wraps, to the block's end", '1', 480, "         ", 01111111111111111111111},
        {"64 bits keep the low ones", '7', 480, "         ", ~0ull},
        {"digits up to the block's end", '7', 504, "", 077777777},
        {"digits in the last byte", ' ', 511, "7", 07},
        {"a digit in the last byte, far away", ' ', kMode, std::string(411, ' ') + "7", 07},
        {"NULs alone", '\0', kMode, "", 0},
        {"blanks alone, from the last byte", ' ', 511, "", 0},
        {"all bytes 255", '\xff', kMode, "", 0},
        {"no octal digit from the first byte", '9', 0, "", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto block = blockWith(row.fill, row.offset, row.text);
        EXPECT_EQ(ParseOctalStr(block->bytes() + row.offset, 8), row.value);
    }
}

TEST(ChecksumOf, AddsUnsignedBytesWithItsOwnFieldAsSpaces) {
    EXPECT_EQ(checksumOf(blockWith('\0')->header), 8u * ' ');
    EXPECT_EQ(checksumOf(blockWith('\xff')->header), 504u * 255 + 8 * ' ');
    EXPECT_EQ(checksumOf(blockWith('\0', 148, "12345678")->header), 8u * ' ');
    EXPECT_EQ(checksumOf(blockWith('\0', 147, "\x01")->header), 8u * ' ' + 1);
    EXPECT_EQ(checksumOf(blockWith('\0', 156, "\x80")->header), 8u * ' ' + 128);
}

}  // namespace
}  // namespace peltex_test
