// Tested by tests/tar/tar_header_test.cpp.
#include "tar/tar_header.h"

#include <numeric>

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
    const auto sumOf = [](const void* data, size_t size) {
        const auto* bytes = static_cast<const unsigned char*>(data);
        return std::accumulate(bytes, bytes + size, uint32_t{0});
    };
    // Without a branch in it, the loop over the header is one that a compiler vectorizes.
    return sumOf(&header, sizeof(header)) - sumOf(header.chksum, sizeof(header.chksum)) +
           sizeof(header.chksum) * ' ';
}

}  // namespace android::installd
