// The archive format: ustar header blocks, with departures that every device that restores our
// archives relies on.
//
//   archive = { ['K' record] ['L' record] header data padding } 1024 zero bytes
//
// Writer and reader share this page.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace android::installd {

constexpr size_t kBlockSize = 512;
constexpr size_t kEndBlocksSize = 2 * kBlockSize;

// Contents move in chunks of this size, which is also the unit of the split arithmetic.
constexpr size_t kContentChunk = 0x80000;

// The buffer of an archive's stream.
constexpr size_t kStreamBuffer = 0x10000;

// The longest path, with its NUL, that is packed or unpacked.
constexpr size_t kTarPathSize = 2048;

// Numbers are octal digits; `prefix`, `devmajor` and `devminor` are never used.
struct tar_header {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char mtime[12];
    char chksum[8];
    char typeflag;
    char linkname[100];
    char magic[6];
    char version[2];
    char uname[32];
    char gname[32];
    char devmajor[8];
    char devminor[8];
    char prefix[155];
    char pad[12];
};
static_assert(sizeof(tar_header) == kBlockSize, "a header is one block");
static_assert(offsetof(tar_header, chksum) == 148, "fields lie where ustar has them");
static_assert(offsetof(tar_header, magic) == 257, "fields lie where ustar has them");

// The '8', '9' and 'A' entries are the parts of a file that did not fit into one slice.
enum TypeFlag : char {
    TYPE_REGULAR = '0',
    TYPE_REGULAR_OLD = '\0',
    TYPE_SYMLINK = '2',
    TYPE_DIRECTORY = '5',
    TYPE_FIRST_PART = '8',
    TYPE_MIDDLE_PART = '9',
    TYPE_LAST_PART = 'A',
    TYPE_LONG_LINK = 'K',
    TYPE_LONG_NAME = 'L',
};

inline const char* bytesOf(const tar_header& header) {
    return reinterpret_cast<const char*>(&header);
}

// A block as it is read. What reads a field may run past the field's end, up to an octal digit or a
// NUL; the bytes behind the header stop it inside memory of ours.
struct TarBlock {
    tar_header header;
    char sentinel[3];

    TarBlock() : header{}, sentinel{'\0', '0', '\0'} {}
    const char* bytes() const { return bytesOf(header); }

    // As texts up to a NUL: one that fills its field goes on into the fields behind it.
    const char* name() const { return bytes(); }
    const char* linkName() const { return bytes() + offsetof(tar_header, linkname); }
};

// The value of an octal field. Bytes before the first octal digit are skipped without regard to
// `length`, of which each takes one; the number ends at the first byte that is no octal digit or
// when `length` is used up. Returns 0 when no digit was read. REQUIRES: `text` lies in a TarBlock.
uint64_t ParseOctalStr(const char* text, unsigned long length);

// The counterpart: writes the last `width` octal digits of `value`, or where the first of them is a
// 0, the others and a NUL. REQUIRES: `width` is 1 to 24, and the field has room for it.
void I2Ocs(char* field, int width, long value);

// The sum of all bytes of a header as unsigned values, its own field counted as spaces.
uint32_t checksumOf(const tar_header& header);

// Writes the sum into a header whose other fields are final.
void FillSum(tar_header& hdr);

}  // namespace android::installd
