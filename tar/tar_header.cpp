// Tested by tests/tar/tar_header_test.cpp.
#include "tar/tar_header.h"

namespace android::installd {

namespace {

bool isOctalDigit(char c) {
    return (static_cast<unsigned char>(c) & 0xF8) == 0x30;
}

}  // namespace

uint64_t ParseOctalStr(const char* text, unsigned long length) {
    unsigned long left = length;
    // The count may pass 0 here and wraps then: such a field has no end but the number's own.
    for (; !isOctalDigit(*text); ++text) {
        --left;
    }
    uint64_t value = 0;
    for (; isOctalDigit(*text) && left != 0; ++text, --left) {
        value = value * 8 + static_cast<uint64_t>(*text - '0');
    }
    return value;
}

uint32_t checksumOf(const tar_header& header) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&header);
    constexpr size_t kFieldBegin = offsetof(tar_header, chksum);
    constexpr size_t kFieldEnd = kFieldBegin + sizeof(tar_header::chksum);
    uint32_t sum = 0;
    for (size_t i = 0; i < sizeof(header); ++i) {
        sum += i >= kFieldBegin && i < kFieldEnd ? ' ' : bytes[i];
    }
    return sum;
}

}  // namespace android::installd
