// Tested by tests/unit/archives.md.
#include "tar/entry_headers.h"

#include <limits.h>
#include <log/log.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "base/error_text.h"
#include "bounded/bounded.h"

namespace android::installd {

namespace {

constexpr long kLargestFile = 0xFFFFFFFFF;  // what twelve octal digits hold
constexpr mode_t kModeBits = 0xFFF;
constexpr char kMagic[] = "ustar";
constexpr char kVersion[] = "00";
constexpr char kLongNameEntry[] = "././@LongLink";

// One that does not fit with a NUL leaves the field empty.
template <size_t size>
bool fillName(char (&field)[size], const std::string& name) {
    return memcpy_s(field, size - 1, name.data(), name.size()) == 0;
}

// The version is cut to its first digit: two digits would leave no room for the NUL.
void fillMagic(tar_header& hdr) {
    strncpy_s(hdr.magic, sizeof(hdr.magic), kMagic, sizeof(hdr.magic) - 1);
    strncpy_s(hdr.version, sizeof(hdr.version), kVersion, sizeof(hdr.version) - 1);
}

}  // namespace

bool EntryHeaders::fillDirectory(const Place& entry, const struct stat& st, tar_header& hdr) {
    fillNumbers(st, hdr);
    hdr.typeflag = TYPE_DIRECTORY;
    return fillTexts(entry, st, (std::string(nameOf(entry)) + '/').c_str(), hdr);
}

bool EntryHeaders::fillLink(const Place& entry, const struct stat& st, tar_header& hdr) {
    fillNumbers(st, hdr);
    hdr.typeflag = TYPE_SYMLINK;
    // In 32 bits and wrapping: a size that does not fit is refused as one below 1.
    const auto linkSize = static_cast<int>(static_cast<uint32_t>(st.st_size) + 1);
    if (!FillLinkName(hdr.linkname, sizeof(hdr.linkname), entry, linkSize)) {
        ALOGE("TarFile::PackDir, failed to fill long name");
        return false;
    }
    return fillTexts(entry, st, nameOf(entry), hdr);
}

bool EntryHeaders::fillFile(const Place& entry, const struct stat& st, char typeflag, long size,
                            tar_header& hdr) {
    if (st.st_size > kLargestFile) {
        ALOGE("TarFile::PackDir, can't store file '%s' of size: %lld", entry.path(),
              static_cast<long long>(st.st_size));
        return false;
    }
    fillNumbers(st, hdr);
    hdr.typeflag = typeflag;
    I2Ocs(hdr.size, sizeof(hdr.size), size);
    return fillTexts(entry, st, nameOf(entry), hdr);
}

void EntryHeaders::fillNumbers(const struct stat& st, tar_header& hdr) {
    I2Ocs(hdr.mode, sizeof(hdr.mode), st.st_mode & kModeBits);
    I2Ocs(hdr.uid, sizeof(hdr.uid), st.st_uid);
    I2Ocs(hdr.gid, sizeof(hdr.gid), st.st_gid);
    I2Ocs(hdr.size, sizeof(hdr.size), 0);
    I2Ocs(hdr.mtime, sizeof(hdr.mtime), st.st_mtime);
}

// The last step: the sum is over all fields.
bool EntryHeaders::fillTexts(const Place& entry, const struct stat& st, const char* name,
                             tar_header& hdr) {
    if (!FillLongString(hdr.name, sizeof(hdr.name), name, TYPE_LONG_NAME)) {
        ALOGE("TarFile::PackDir, failed to fill name: %s", entry.path());
        return false;
    }
    fillMagic(hdr);
    FillOwnerName(hdr, &st);
    FillSum(hdr);
    return true;
}

void EntryHeaders::FillOwnerName(tar_header& hdr, const struct stat* st) {
    if (!fillName(hdr.uname, m_ownerNames.userName(st->st_uid))) {
        ALOGE("TarFile::FillOwnerName, hdr.uname failed.");
    }
    if (!fillName(hdr.gname, m_ownerNames.groupName(st->st_gid))) {
        ALOGE("TarFile::FillOwnerName, hdr.gname failed.");
    }
}

// What does not fit with a NUL is cut, and goes into a record whole.
bool EntryHeaders::FillLongString(char* field, int fieldSize, const char* text, char type) {
    const auto room = static_cast<size_t>(fieldSize);
    if (strncpy_s(field, room, text, room - 1) != 0) {
        ALOGE("TarFile::FillLongString failed");
        return false;
    }
    return strlen(text) < room || WriteLongName(text, type);
}

bool EntryHeaders::FillLinkName(char* field, int fieldSize, const Place& link, int linkSize) {
    if (linkSize < 1) {
        ALOGE("TarFile::PackDir, invalid link size: %d", linkSize);
        return false;
    }
    // No file system hands out longer targets, whatever size it states.
    char target[PATH_MAX + 1] = {};
    if (!ReadLink(link, target, std::min(linkSize, static_cast<int>(sizeof(target)))) ||
        !FillLongString(field, fieldSize, target, TYPE_LONG_LINK)) {
        ALOGE("TarFile::PackDir, failed to fill link name of file: %s", link.path());
        return false;
    }
    return true;
}

bool EntryHeaders::ReadLink(const Place& link, char* buf, int len) {
    const auto length =
        static_cast<int>(readlinkat(link.dirFd(), link.name(), buf, static_cast<size_t>(len)));
    if (length >= len) {
        ALOGE("TarFile::PackDir, symlink size increased, name: %s, [%d, %d]", link.path(), len,
              length);
        return false;
    }
    if (length == -1) {
        ALOGE("TarFile::PackDir, failed to readlink: %s, error: %s", link.path(),
              ErrorText().c_str());
        return false;
    }
    buf[length] = '\0';
    return true;
}

// Written without looking at the slice size: a record is never separated from the header that it
// belongs to.
bool EntryHeaders::WriteLongName(const char* text, char type) {
    tar_header hdr = {};
    const auto textSize = static_cast<int>(strlen(text) + 1);
    strncpy_s(hdr.name, sizeof(hdr.name), kLongNameEntry, sizeof(hdr.name) - 1);
    I2Ocs(hdr.mode, sizeof(hdr.mode), 0);
    I2Ocs(hdr.uid, sizeof(hdr.uid), 0);
    I2Ocs(hdr.gid, sizeof(hdr.gid), 0);
    I2Ocs(hdr.size, sizeof(hdr.size), textSize);
    I2Ocs(hdr.mtime, sizeof(hdr.mtime), 0);
    hdr.typeflag = type;
    fillMagic(hdr);
    FillSum(hdr);
    if (!m_stream.writeHeader(hdr)) {
        ALOGE("TarFile::PackDir, failed to write long name head, name: %s, type: %c", text, type);
        return false;
    }
    if (m_stream.WriteAll(text, textSize) != textSize) {
        ALOGE("TarFile::PackDir, failed to write long name: %s, type: %c", text, type);
        return false;
    }
    return m_stream.CompleteBlock(textSize);
}

}  // namespace android::installd
