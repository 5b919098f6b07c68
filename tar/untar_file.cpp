// Tested by tests/unit/archives.md and, against other programs, tests/client/peltexctl.md.
#include "tar/untar_file.h"

#include <log/log.h>
#include <stdio.h>
#include <string.h>
#include <utils/Vector.h>

#include <memory>
#include <new>

#include "bounded/bounded.h"
#include "tar/check_file.h"

namespace android::installd {

namespace {

constexpr int kFailed = -1;
constexpr int kNoDestination = -2;
constexpr int kNoArchive = -3;
constexpr int kNoMemory = -4;
constexpr int kCutArchive = -5;

// Builds the path of an entry below `destDir` in `path`, of kTarPathSize bytes. False for one that
// climbs or is too long.
bool GenRealPath(const char* destDir, const char* name, char* path) {
    if (strstr(name, "../") != nullptr) {
        ALOGE("GenRealPath invalid pathName.");
        return false;
    }
    const size_t dirLength = strlen(destDir);
    const bool needsSlash = dirLength == 0 || destDir[dirLength - 1] != '/';
    const size_t prefixLength = dirLength + (needsSlash ? 1 : 0);
    const size_t nameLength = strlen(name);
    const size_t length = prefixLength + nameLength;
    if (length < 1 || length > kTarPathSize - 1) {
        return false;
    }
    if (strncpy_s(path, kTarPathSize, destDir, dirLength) != 0) {
        ALOGE("GenRealPath get realPath error");
        return false;
    }
    if (needsSlash) {
        path[dirLength] = '/';
    }
    if (strncpy_s(path + prefixLength, kTarPathSize - prefixLength, name, nameLength) != 0) {
        ALOGE("GenRealPath get realPath by curLen error");
        return false;
    }
    return true;
}

int resultOf(TarReader::Found end) {
    switch (end) {
        case TarReader::Found::kInvalid:
            return kNoArchive;
        case TarReader::Found::kTruncated:
            return kCutArchive;
        default:
            return 0;
    }
}

}  // namespace

UnTarFile::UnTarFile(const char* archivePath, TarCallBack* callback)
    : m_callBack(callback == nullptr ? m_noCallBack : *callback) {
    ALOGD("untarfile begin..[%s]", archivePath == nullptr ? "(null)" : archivePath);
    if (archivePath != nullptr) {
        m_tarPath = archivePath;
        m_reader.open(archivePath, false);
    }
}

UnTarFile::~UnTarFile() = default;

int UnTarFile::UnPack(const char* destDir, uint32_t uid) {
    m_uid = uid;
    return ParseTarFile(destDir, PARSE_UNPACK);
}

std::vector<std::string> UnTarFile::GetFileNames() {
    if (m_fileNames.empty()) {
        ParseTarFile("", PARSE_LIST);
    }
    return m_fileNames;
}

bool UnTarFile::FilterDir(const char* path) {
    return isIgnoredPatch(path);
}

int UnTarFile::ParseTarFile(const char* destDir, EParseType type) {
    if (!m_reader.isOpen()) {
        ALOGE("read tar happened error!\n");
        return kFailed;
    }
    if (destDir == nullptr) {
        return kNoDestination;
    }
    if (!m_reader.begin()) {
        return kNoArchive;
    }
    const std::unique_ptr<char[]> path(new (std::nothrow) char[kTarPathSize]);
    if (path == nullptr) {
        return kNoMemory;
    }
    memset_s(path.get(), kTarPathSize, 0, kTarPathSize);
    EntryUnpacker unpacker(m_reader, m_callBack, m_uid);
    TarEntry entry;
    TarReader::Found found = m_reader.next(entry);
    for (; found == TarReader::Found::kEntry; found = m_reader.next(entry)) {
        if (!GenRealPath(destDir, entry.name.c_str(), path.get())) {
            return kFailed;
        }
        if (!handleEntry(entry, type, unpacker, path.get())) {
            return 0;
        }
    }
    return resultOf(found);
}

// False when the task was aborted.
bool UnTarFile::handleEntry(const TarEntry& entry, EParseType type, EntryUnpacker& unpacker,
                            char* path) {
    if (entry.isLongString()) {
        m_reader.keepLongString(entry);
        return true;
    }
    m_reader.dropLongStrings();
    if (type == PARSE_UNPACK) {
        return unpacker.unpack(entry, path);
    }
    // Data of what is no file is not skipped: what is in it is listed like the archive's headers.
    if (type == PARSE_LIST && isRegular(entry.typeflag)) {
        m_fileNames.push_back(entry.name);
        m_reader.skipData(entry);
    }
    if (!entry.hasLongName && !entry.hasLongLink) {
        unpacker.applyOwnerAndMode(entry, path);
    }
    return true;
}

int UnTarFile::UnSplitPack(const char* destDir, uint32_t uid) {
    if (destDir == nullptr) {
        return kNoDestination;
    }
    m_uid = uid;
    Vector<std::string> slices;
    int count = 0;
    const std::string extractionDir = parentOf(destDir);
    if (!HandleCheckFile(m_tarPath.c_str(), slices, count)) {
        ALOGE("UnTarFile::UnSplitPack, handleCheckFile %s, num %d failed!", m_tarPath.c_str(),
              count);
        return kFailed;
    }
    for (const std::string& slice : slices) {
        if (const int result = unpackSlice(slice.c_str(), extractionDir.c_str()); result != 0) {
            return result;
        }
        if (remove(slice.c_str()) != 0) {
            ALOGD("delete failed, split tar path %s", slice.c_str());
        }
    }
    ALOGD("UnTarFile::UnSplitPack, untar split finish!");
    return 0;
}

// A slice that cannot be opened is passed over: it was there when the set was checked.
int UnTarFile::unpackSlice(const char* slicePath, const char* destDir) {
    if (!m_reader.open(slicePath, true)) {
        return 0;
    }
    const int result = ParseTarFile(destDir, PARSE_UNPACK);
    if (result != 0) {
        ALOGE("UnTarFile::UnSplitPack, untar split %s failed!", slicePath);
    } else {
        ALOGD("UnTarFile::UnSplitPack, untar split %s suc!", slicePath);
    }
    m_reader.close();
    return result;
}

}  // namespace android::installd
