#include "fuzz/support/archive_input.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tar/tar_header.h"

namespace peltex_fuzz {

using namespace android::installd;

namespace {

size_t dataSize(const tar_header& header) {
    char digits[sizeof(header.size) + 1] = {};
    memcpy(digits, header.size, sizeof(header.size));
    const bool hasData = header.typeflag != TYPE_DIRECTORY && header.typeflag != TYPE_SYMLINK;
    return hasData ? static_cast<size_t>(strtoull(digits, nullptr, 8)) : 0;
}

}  // namespace

void sealHeaders(uint8_t* archive, size_t size) {
    for (size_t at = 0; at + kBlockSize <= size; at += kBlockSize) {
        if (archive[at] == 0) {
            continue;
        }
        tar_header header;
        memcpy(&header, archive + at, sizeof(header));
        memcpy(header.magic, "ustar", sizeof(header.magic));
        snprintf(header.chksum, sizeof(header.chksum), "%06o", checksumOf(header));
        header.chksum[sizeof(header.chksum) - 1] = ' ';
        memcpy(archive + at, &header, sizeof(header));
        const size_t blocks = dataSize(header) / kBlockSize + (dataSize(header) % kBlockSize != 0);
        if (blocks < size / kBlockSize) {
            at += blocks * kBlockSize;
        }
    }
}

}  // namespace peltex_fuzz
