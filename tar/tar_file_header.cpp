// Headers, their fields, and the long-name records before them.
// Tested by tests/tar/tar_format_test.cpp.
#include <limits.h>
#include <log/log.h>
#include <string.h>

#include <algorithm>

#include "bounded/bounded.h"
#include "tar/tar_file.h"

namespace android::installd {

namespace {

constexpr char kMagic[] = "ustar";
constexpr char kVersion[] = "00";
constexpr char kLongNameEntry[] = "././@LongLink";
constexpr size_t kScratchSize = 25;
constexpr int kChecksumWidth = 7;
constexpr char kZeroBlock[kBlockSize] = {};

template <size_t size>
bool fillWithZeros(char (&field)[size]) {
    return snprintf_s(field, size, size - 1, "%0*d", static_cast<int>(size - 1), 0) >= 0;
}

// One that does not fit with a NUL leaves the field empty.
template <size_t size>
bool fillName(char (&field)[size], const std::string& name) {
    return memcpy_s(field, size - 1, name.data(), name.size()) == 0;
}

}  // namespace

// Octal digits over the whole width; where the first would be a 0, a NUL takes the last place
// instead. More digits than that lose their high-order ones.
void TarFile::I2Ocs(char* field, int width, long value) {
    char digits[kScratchSize] = {};
    if (width < 1 || width >= static_cast<int>(sizeof(digits))) {
        ALOGE("TarFile::I2Ocs failed");
        return;
    }
    // What "%0*llo" prints, by hand: formatting five numbers took as long as the rest of a header.
    auto rest = static_cast<unsigned long>(value);
    for (int i = width - 1; i >= 0; --i, rest >>= 3) {
        digits[i] = static_cast<char>('0' + (rest & 7));
    }
    const auto count = static_cast<size_t>(width);
    if (memcpy_s(field, count, digits + (digits[0] == '0' ? 1 : 0), count) != 0) {
        ALOGE("I2Ocs failed to get str");
    }
}

void TarFile::FillSum(tar_header& hdr) {
    memset_s(hdr.chksum, sizeof(hdr.chksum), ' ', sizeof(hdr.chksum));
    I2Ocs(hdr.chksum, kChecksumWidth, checksumOf(hdr));
}

void TarFile::FillOwnerName(tar_header& hdr, const struct stat* st) {
    if (!fillName(hdr.uname, m_ownerNames.userName(st->st_uid))) {
        ALOGE("TarFile::FillOwnerName, hdr.uname failed.");
    }
    if (!fillName(hdr.gname, m_ownerNames.groupName(st->st_gid))) {
        ALOGE("TarFile::FillOwnerName, hdr.gname failed.");
    }
}

// The version is cut to its first digit: two digits would leave no room for the NUL.
void TarFile::fillMagic(tar_header& hdr) {
    strncpy_s(hdr.magic, sizeof(hdr.magic), kMagic, sizeof(hdr.magic) - 1);
    strncpy_s(hdr.version, sizeof(hdr.version), kVersion, sizeof(hdr.version) - 1);
}

bool TarFile::FillLongString(char* field, int fieldSize, const char* text, char type) {
    const auto room = static_cast<size_t>(fieldSize);
    if (strncpy_s(field, room, text, room - 1) != 0) {
        ALOGE("TarFile::FillLongString failed");
        return false;
    }
    return strlen(text) < room || WriteLongName(text, type);
}

bool TarFile::FillLinkName(char* field, int fieldSize, const char* path, int linkSize) {
    if (linkSize < 1) {
        ALOGE("TarFile::PackDir, invalid link size: %d", linkSize);
        return false;
    }
    // No file system hands out longer targets, whatever size it states.
    char target[PATH_MAX + 1] = {};
    if (!ReadLink(path, target, std::min(linkSize, static_cast<int>(sizeof(target)))) ||
        !FillLongString(field, fieldSize, target, TYPE_LONG_LINK)) {
        ALOGE("TarFile::PackDir, failed to fill link name of file: %s", path);
        return false;
    }
    return true;
}

// An entry is named by its path below the packed directory, a directory with a '/' behind it.
bool TarFile::FillEntryName(tar_header& hdr, const char* path, bool isDirectory) {
    const char* name = path + strlen(m_rootPath) + 1;
    if (!FillLongString(hdr.name, sizeof(hdr.name),
                        isDirectory ? (std::string(name) + '/').c_str() : name, TYPE_LONG_NAME)) {
        ALOGE("TarFile::PackDir, failed to fill name: %s", path);
        return false;
    }
    return true;
}

bool TarFile::fillLongNameHeader(tar_header& hdr, size_t textSize, char type) {
    strncpy_s(hdr.name, sizeof(hdr.name), kLongNameEntry, sizeof(hdr.name) - 1);
    if (!fillWithZeros(hdr.mode)) {
        ALOGE("TarFile::PackDir, get mode failed");
        return false;
    }
    if (!fillWithZeros(hdr.uid)) {
        ALOGE("TarFile::PackDir, get uid failed");
        return false;
    }
    if (!fillWithZeros(hdr.gid)) {
        ALOGE("TarFile::PackDir, get gid failed");
        return false;
    }
    if (!fillWithZeros(hdr.size)) {
        ALOGE("TarFile::PackDir, get size failed");
        return false;
    }
    I2Ocs(hdr.size, sizeof(hdr.size), static_cast<long>(textSize));
    if (!fillWithZeros(hdr.mtime)) {
        ALOGE("TarFile::PackDir, get mtime failed");
        return false;
    }
    hdr.typeflag = type;
    fillMagic(hdr);
    FillSum(hdr);
    return true;
}

// Written without looking at the slice size: a record is never separated from the header that it
// belongs to.
bool TarFile::WriteLongName(const char* text, char type) {
    tar_header hdr = {};
    const auto textSize = static_cast<int>(strlen(text) + 1);
    if (!fillLongNameHeader(hdr, static_cast<size_t>(textSize), type)) {
        return false;
    }
    constexpr int kHeaderSize = sizeof(hdr);
    if (WriteAll(reinterpret_cast<const char*>(&hdr), kHeaderSize) != kHeaderSize) {
        ALOGE("TarFile::PackDir, failed to write long name head, name: %s, type: %c", text, type);
        return false;
    }
    if (WriteAll(text, textSize) != textSize) {
        ALOGE("TarFile::PackDir, failed to write long name: %s, type: %c", text, type);
        return false;
    }
    return CompleteBlock(textSize);
}

bool TarFile::CompleteBlock(int written) {
    // Of a count below 0 the remainder is not above 0 either: nothing is padded then.
    const int remainder = written % static_cast<int>(kBlockSize);
    if (remainder < 1) {
        return true;
    }
    const int padding = static_cast<int>(kBlockSize) - remainder;
    if (WriteAll(kZeroBlock, padding) != padding) {
        ALOGE("TarFile::PackDir, failed to write append block");
        return false;
    }
    return true;
}

}  // namespace android::installd
