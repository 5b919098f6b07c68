// Tested by tests/unit/archives.md and, against other programs, tests/client/peltexctl.md.
#include "tar/tar_reader.h"

#include <log/log.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <new>

namespace android::installd {

namespace {

constexpr size_t kMagicLength = 5;
constexpr uint64_t kLongestLongName = kTarPathSize - 1;
// A slice may claim more than it holds: reading may end this far behind its end.
constexpr int64_t kSliceSlack = kContentChunk;

// Returns how much there is, `size` at most.
size_t readAt(int fd, char* buffer, size_t size, int64_t position) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count =
            pread(fd, buffer + done, size - done, position + static_cast<int64_t>(done));
        if (count <= 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    return done;
}

// The stream's buffer brings several small files with one read, and would only copy the beginning
// and the end of a large one.
bool isWorthReadsOfItsOwn(const TarEntry& entry) {
    return entry.size >= kStreamBuffer;
}

}  // namespace

bool TarReader::open(const char* path, bool isSlice) {
    m_isSlice = isSlice;
    m_tarFp.reset(fopen(path, "rbe"));
    if (m_tarBuf == nullptr) {
        m_tarBuf.reset(new (std::nothrow) char[kStreamBuffer]);
    }
    if (m_tarFp != nullptr && m_tarBuf != nullptr) {
        setvbuf(m_tarFp.get(), m_tarBuf.get(), _IOFBF, kStreamBuffer);
    }
    return isOpen();
}

bool TarReader::begin() {
    fseeko(m_tarFp.get(), 0, SEEK_END);
    m_tarSize = ftello(m_tarFp.get());
    fseeko(m_tarFp.get(), 0, SEEK_SET);
    m_isBehindAll = false;
    dropLongStrings();
    if (m_tarSize % static_cast<int64_t>(kBlockSize) != 0) {
        ALOGE("tarfile size should be a multiple of 512 bytes: %jd\n",
              static_cast<intmax_t>(m_tarSize));
        return false;
    }
    return true;
}

size_t TarReader::readBlock(TarBlock& block) {
    return fread(&block.header, 1, sizeof(block.header), m_tarFp.get());
}

TarReader::Found TarReader::next(TarEntry& entry) {
    TarBlock block;
    if (const size_t got = m_isBehindAll ? 0 : readBlock(block); got < kBlockSize) {
        return foundShortRead(got);
    }
    if (IsEmptyBlock(block.bytes())) {
        TarBlock second;
        if (readBlock(second) == kBlockSize && IsEmptyBlock(second.bytes())) {
            ALOGD("untarfile is end.Success!");
            return Found::kEnd;
        }
        // One empty block alone is no end, and no header either.
        ALOGE("Invalid tar format.\n");
        return foundInvalidBlock(block);
    }
    if (!IsValidTarBlock(&block.header)) {
        return foundInvalidBlock(block);
    }
    const tar_header& header = block.header;
    entry.mode = static_cast<uint32_t>(ParseOctalStr(header.mode, sizeof(header.mode)));
    entry.uid = static_cast<uint32_t>(ParseOctalStr(header.uid, sizeof(header.uid)));
    entry.gid = static_cast<uint32_t>(ParseOctalStr(header.gid, sizeof(header.gid)));
    entry.size = ParseOctalStr(header.size, sizeof(header.size));
    entry.dataPosition = ftello(m_tarFp.get());
    entry.typeflag = header.typeflag;
    entry.hasLongName = m_longName.has_value();
    entry.hasLongLink = m_longLink.has_value();
    entry.name = m_longName ? m_longName->c_str() : block.name();
    entry.linkName = m_longLink ? m_longLink->c_str() : block.linkName();
    return Found::kEntry;
}

bool TarReader::VerifyChecksum(const tar_header* hdr) {
    return hdr != nullptr && checksumOf(*hdr) == static_cast<uint32_t>(ParseOctalStr(
                                                     hdr->chksum, sizeof(hdr->chksum)));
}

bool TarReader::IsValidTarBlock(const tar_header* hdr) {
    if (hdr == nullptr) {
        return false;
    }
    if (strncmp(hdr->magic, "ustar", kMagicLength) != 0 || !VerifyChecksum(hdr)) {
        ALOGE("Invalid tar format.\n");
        return false;
    }
    return true;
}

bool TarReader::IsEmptyBlock(const char* block) {
    return block[0] == '\0';
}

void TarReader::keepLongString(const TarEntry& entry) {
    std::optional<std::string>& text = entry.typeflag == TYPE_LONG_LINK ? m_longLink : m_longName;
    text.reset();
    if (entry.size <= kLongestLongName) {
        char buffer[kTarPathSize] = {};
        const auto size = static_cast<size_t>(entry.size);
        if (fread(buffer, 1, size, m_tarFp.get()) == size) {
            text = buffer;
        }
    }
    skipData(entry);
}

void TarReader::dropLongStrings() {
    m_longName.reset();
    m_longLink.reset();
}

size_t TarReader::readData(const TarEntry& entry, uint64_t done, char* buffer, size_t size) {
    if (isWorthReadsOfItsOwn(entry)) {
        return readAt(fileno(m_tarFp.get()), buffer, size,
                      entry.dataPosition + static_cast<int64_t>(done));
    }
    return fread(buffer, 1, size, m_tarFp.get());
}

// A size that no file position can hold is where the archive ends.
void TarReader::skipData(const TarEntry& entry) {
    constexpr auto kLargestPosition = static_cast<uint64_t>(INT64_MAX);
    const uint64_t blocks = entry.size / kBlockSize + (entry.size % kBlockSize == 0 ? 0 : 1);
    const auto position = static_cast<uint64_t>(entry.dataPosition);
    if (blocks > (kLargestPosition - position) / kBlockSize) {
        m_isBehindAll = true;
        return;
    }
    const auto next = static_cast<int64_t>(position + blocks * kBlockSize);
    m_isBehindAll = fseeko(m_tarFp.get(), next, SEEK_SET) != 0;
}

bool TarReader::isWithinSlice() {
    return m_isSlice && !m_isBehindAll && ftello(m_tarFp.get()) - kSliceSlack <= m_tarSize;
}

// The archive has no more headers. A whole one should have said so with its two empty blocks.
TarReader::Found TarReader::foundShortRead(size_t got) {
    ALOGE("read short than 512 expected, got %zu, tarSize %jd\n", got,
          static_cast<intmax_t>(m_tarSize));
    return got == 0 && isWithinSlice() ? Found::kEnd : Found::kTruncated;
}

TarReader::Found TarReader::foundInvalidBlock(const TarBlock& block) {
    ALOGE("isSplit cur size %jd, tarSize %jd", static_cast<intmax_t>(ftello(m_tarFp.get())),
          static_cast<intmax_t>(m_tarSize));
    return isWithinSlice() && IsEmptyBlock(block.bytes()) ? Found::kEnd : Found::kInvalid;
}

}  // namespace android::installd
