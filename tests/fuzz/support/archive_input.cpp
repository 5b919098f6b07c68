#include "tests/fuzz/support/archive_input.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "tar/tar_header.h"

// libFuzzer's own mutations of `data`; returns the new size. NOLINTNEXTLINE
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace peltex_fuzz {

using namespace android::installd;

namespace {

constexpr ArchivePart kFields[] = {
    {offsetof(tar_header, name), sizeof(tar_header::name)},
    {offsetof(tar_header, mode), sizeof(tar_header::mode)},
    {offsetof(tar_header, uid), sizeof(tar_header::uid) + sizeof(tar_header::gid)},
    {offsetof(tar_header, size), sizeof(tar_header::size)},
    {offsetof(tar_header, typeflag), sizeof(tar_header::typeflag)},
    {offsetof(tar_header, linkname), sizeof(tar_header::linkname)},
    {sizeof(tar_header), kBlockSize},  // the beginning of what follows: long names are there
};

size_t dataSize(const tar_header& header) {
    char digits[sizeof(header.size) + 1] = {};
    memcpy(digits, header.size, sizeof(header.size));
    const bool hasData = header.typeflag != TYPE_DIRECTORY && header.typeflag != TYPE_SYMLINK;
    return hasData ? static_cast<size_t>(strtoull(digits, nullptr, 8)) : 0;
}

// Where the headers are, as far as they follow one another.
std::vector<size_t> headersOf(const uint8_t* data, const std::vector<ArchivePart>& parts) {
    std::vector<size_t> headers;
    for (const ArchivePart& part : parts) {
        for (size_t at = 0; at + kBlockSize <= part.size; at += kBlockSize) {
            if (data[part.at + at] == 0) {
                continue;
            }
            headers.push_back(part.at + at);
            tar_header header;
            memcpy(&header, data + part.at + at, sizeof(header));
            const size_t blocks = (dataSize(header) + kBlockSize - 1) / kBlockSize;
            at += blocks < part.size / kBlockSize ? blocks * kBlockSize : 0;
        }
    }
    return headers;
}

void mutateField(uint8_t* data, size_t size, const std::vector<size_t>& headers,
                 unsigned int seed) {
    const size_t header = headers[seed % headers.size()];
    const ArchivePart field = kFields[seed / headers.size() % std::size(kFields)];
    const size_t at = std::min(header + field.at, size);
    const size_t room = std::min(field.size, size - at);
    if (room > 0) {
        const size_t used = strnlen(reinterpret_cast<char*>(data + at), room);
        const size_t newSize = LLVMFuzzerMutate(data + at, used, room);
        memset(data + at + newSize, 0, room - newSize);
    }
}

void seal(uint8_t* block) {
    tar_header header;
    memcpy(&header, block, sizeof(header));
    memcpy(header.magic, "ustar", sizeof(header.magic));
    snprintf(header.chksum, sizeof(header.chksum), "%06o", checksumOf(header));
    header.chksum[sizeof(header.chksum) - 1] = ' ';
    memcpy(block, &header, sizeof(header));
}

}  // namespace

size_t mutateArchives(uint8_t* data, size_t size, size_t maxSize, unsigned int seed,
                      std::vector<ArchivePart> (*partsOf)(const std::string& input)) {
    const auto headers = [&] {
        return headersOf(data, partsOf(std::string(reinterpret_cast<char*>(data), size)));
    };
    const std::vector<size_t> before = headers();
    if (seed % 2 == 0 && !before.empty()) {
        mutateField(data, size, before, seed / 16);
    } else {
        size = LLVMFuzzerMutate(data, size, maxSize);
    }
    if (seed / 2 % 8 != 0) {
        for (const size_t header : headers()) {
            seal(data + header);
        }
    }
    return size;
}

}  // namespace peltex_fuzz
