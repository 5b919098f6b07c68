// Reading an archive: blocks, headers, long-name records and the rules of its end.
// Tested by tests/tar/untar_file_test.cpp and, against other programs, tests/tar/test_peers.py.
#include "tar/untar_file.h"

#include <log/log.h>
#include <string.h>

#include <new>

#include "base/owner_mapping.h"
#include "bounded/bounded.h"
#include "tar/untar_entry.h"

namespace android::installd {

namespace {

constexpr size_t kMagicLength = 5;
constexpr uint64_t kLongestLongName = kTarPathSize - 1;
// A slice may claim more than it holds: reading may end this far behind its end.
constexpr int64_t kSliceSlack = kContentChunk;

}  // namespace

UnTarFile::UnTarFile(const char* archivePath, TarCallBack* callback) : m_callBack(callback) {
    ALOGD("untarfile begin..[%s]", archivePath == nullptr ? "(null)" : archivePath);
    if (archivePath != nullptr) {
        m_tarPath = archivePath;
        openStream(archivePath);
    }
}

UnTarFile::~UnTarFile() = default;

int UnTarFile::UnPack(const char* destDir, uint32_t uid) {
    m_uid = uid;
    return ParseTarFile(destDir, PARSE_UNPACK);
}

std::vector<std::string> UnTarFile::GetFileNames() {
    if (m_fileNames.isEmpty()) {
        ParseTarFile("", PARSE_LIST);
    }
    return {m_fileNames.begin(), m_fileNames.end()};
}

int UnTarFile::ParseTarFile(const char* destDir, EParseType type) {
    if (m_tarFp == nullptr) {
        ALOGE("read tar happened error!\n");
        return -1;
    }
    if (destDir == nullptr) {
        return -2;
    }
    measure();
    if (m_tarSize % static_cast<int64_t>(kBlockSize) != 0) {
        ALOGE("tarfile size should be a multiple of 512 bytes: %jd\n",
              static_cast<intmax_t>(m_tarSize));
        return -3;
    }
    const std::unique_ptr<char[]> path(new (std::nothrow) char[kTarPathSize]);
    if (path == nullptr) {
        return -4;
    }
    memset_s(path.get(), kTarPathSize, 0, kTarPathSize);
    return parseEntries(destDir, type, path.get());
}

// A buffer larger than a stream's own brings several small files with one read.
void UnTarFile::openStream(const char* path) {
    m_tarFp.reset(fopen(path, "rbe"));
    if (m_tarBuf == nullptr) {
        m_tarBuf.reset(new (std::nothrow) char[kStreamBuffer]);
    }
    if (m_tarFp != nullptr && m_tarBuf != nullptr) {
        setvbuf(m_tarFp.get(), m_tarBuf.get(), _IOFBF, kStreamBuffer);
    }
}

void UnTarFile::measure() {
    fseeko(m_tarFp.get(), 0, SEEK_END);
    m_tarSize = ftello(m_tarFp.get());
    fseeko(m_tarFp.get(), 0, SEEK_SET);
}

size_t UnTarFile::readBlock(TarBlock& block) {
    return fread(&block.header, 1, sizeof(block.header), m_tarFp.get());
}

int UnTarFile::parseEntries(const char* destDir, EParseType type, char* path) {
    std::optional<std::string> longName;
    std::optional<std::string> longLink;
    Next next = Next::kHeader;
    while (next == Next::kHeader) {
        TarBlock block;
        if (const size_t got = readBlock(block); got < kBlockSize) {
            return endOfHeaders(got);
        }
        if (IsEmptyBlock(block.bytes())) {
            TarBlock second;
            if (readBlock(second) == kBlockSize && IsEmptyBlock(second.bytes())) {
                ALOGD("untarfile is end.Success!");
                return 0;
            }
            // One empty block alone is no end, and no header either.
            ALOGE("Invalid tar format.\n");
            return endAtInvalidBlock(block);
        }
        if (!IsValidTarBlock(&block.header)) {
            return endAtInvalidBlock(block);
        }
        Entry entry = readEntry(block);
        entry.hasLongName = longName.has_value();
        entry.hasLongLink = longLink.has_value();
        entry.name = longName ? longName->c_str() : block.bytes();
        entry.linkName = longLink ? longLink->c_str() : block.header.linkname;
        if (const int refused = GenRealPath(destDir, entry.name, path); refused != 0) {
            return refused;
        }
        if (entry.typeflag == TYPE_LONG_LINK) {
            next = readLongString(entry, longLink);
        } else if (entry.typeflag == TYPE_LONG_NAME) {
            next = readLongString(entry, longName);
        } else {
            next = type == PARSE_UNPACK ? unpackEntry(entry, path) : listEntry(entry, type, path);
            longName.reset();
            longLink.reset();
        }
    }
    return next == Next::kEnd ? 0 : endBehindArchive();
}

// The numbers of the header. Names come from it or from the records before it.
UnTarFile::Entry UnTarFile::readEntry(const TarBlock& block) {
    const tar_header& header = block.header;
    Entry entry;
    entry.mode = static_cast<uint32_t>(ParseOctalStr(header.mode, sizeof(header.mode)));
    const auto uid = static_cast<uint32_t>(ParseOctalStr(header.uid, sizeof(header.uid)));
    const auto gid = static_cast<uint32_t>(ParseOctalStr(header.gid, sizeof(header.gid)));
    entry.owner = fixup_owner_dir_file(uid, gid, m_uid, entry.group);
    entry.size = ParseOctalStr(header.size, sizeof(header.size));
    entry.dataPosition = ftello(m_tarFp.get());
    entry.typeflag = header.typeflag;
    return entry;
}

bool UnTarFile::VerifyChecksum(const tar_header* hdr) {
    return hdr != nullptr && checksumOf(*hdr) == static_cast<uint32_t>(ParseOctalStr(
                                                     hdr->chksum, sizeof(hdr->chksum)));
}

bool UnTarFile::IsValidTarBlock(const tar_header* hdr) {
    if (hdr == nullptr) {
        return false;
    }
    if (strncmp(hdr->magic, "ustar", kMagicLength) != 0 || !VerifyChecksum(hdr)) {
        ALOGE("Invalid tar format.\n");
        return false;
    }
    return true;
}

bool UnTarFile::IsEmptyBlock(const char* block) {
    return block[0] == '\0';
}

// Reads the text of a long-name record, for the next entry. One that is too long, or cut by the
// archive's end, is dropped: the entry's own header then names it.
UnTarFile::Next UnTarFile::readLongString(const Entry& entry, std::optional<std::string>& text) {
    text.reset();
    if (entry.size <= kLongestLongName) {
        char buffer[kTarPathSize] = {};
        const auto size = static_cast<size_t>(entry.size);
        if (fread(buffer, 1, size, m_tarFp.get()) == size) {
            text = buffer;
        }
    }
    return skipData(entry);
}

// Builds the path of an entry below `destDir` in `path`, of kTarPathSize bytes. Returns 0, or -1
// for a path that climbs or is too long.
int UnTarFile::GenRealPath(const char* destDir, const char* name, char* path) {
    if (strstr(name, "../") != nullptr) {
        ALOGE("GenRealPath invalid pathName.");
        return -1;
    }
    const size_t dirLength = strlen(destDir);
    const bool needsSlash = dirLength == 0 || destDir[dirLength - 1] != '/';
    const size_t prefixLength = dirLength + (needsSlash ? 1 : 0);
    const size_t nameLength = strlen(name);
    const size_t length = prefixLength + nameLength;
    if (length < 1 || length > kTarPathSize - 1) {
        return -1;
    }
    if (strncpy_s(path, kTarPathSize, destDir, dirLength) != 0) {
        ALOGE("GenRealPath get realPath error");
        return -1;
    }
    if (needsSlash) {
        path[dirLength] = '/';
    }
    if (strncpy_s(path + prefixLength, kTarPathSize - prefixLength, name, nameLength) != 0) {
        ALOGE("GenRealPath get realPath by curLen error");
        return -1;
    }
    return 0;
}

// Goes to the header behind the entry's data, which may lie behind the end of the archive. A size
// that no file position can hold is where the archive ends.
UnTarFile::Next UnTarFile::skipData(const Entry& entry) {
    constexpr auto kLargestPosition = static_cast<uint64_t>(INT64_MAX);
    const uint64_t blocks = entry.size / kBlockSize + (entry.size % kBlockSize == 0 ? 0 : 1);
    const auto position = static_cast<uint64_t>(entry.dataPosition);
    if (blocks > (kLargestPosition - position) / kBlockSize) {
        return Next::kTruncated;
    }
    const auto next = static_cast<int64_t>(position + blocks * kBlockSize);
    return fseeko(m_tarFp.get(), next, SEEK_SET) == 0 ? Next::kHeader : Next::kTruncated;
}

bool UnTarFile::isWithinSlice() {
    return m_isSplit && ftello(m_tarFp.get()) - kSliceSlack <= m_tarSize;
}

// The archive has no more headers. A whole one should have said so with its two empty blocks.
int UnTarFile::endOfHeaders(size_t got) {
    ALOGE("read short than 512 expected, got %zu, tarSize %jd\n", got,
          static_cast<intmax_t>(m_tarSize));
    return got == 0 && isWithinSlice() ? 0 : -5;
}

// The data of the last entry is said to end where no archive does.
int UnTarFile::endBehindArchive() {
    ALOGE("read short than 512 expected, got %zu, tarSize %jd\n", size_t{0},
          static_cast<intmax_t>(m_tarSize));
    return -5;
}

int UnTarFile::endAtInvalidBlock(const TarBlock& block) {
    ALOGE("isSplit cur size %jd, tarSize %jd", static_cast<intmax_t>(ftello(m_tarFp.get())),
          static_cast<intmax_t>(m_tarSize));
    return isWithinSlice() && IsEmptyBlock(block.bytes()) ? 0 : -3;
}

}  // namespace android::installd
