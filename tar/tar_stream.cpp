// Tested by tests/unit/archives.md.
#include "tar/tar_stream.h"

#include <log/log.h>

#include "base/error_text.h"

namespace android::installd {

namespace {

constexpr char kZeroBlocks[kEndBlocksSize] = {};

}  // namespace

// A larger buffer than a stream's own makes fewer writes of headers and small files; a still larger
// one only adds a copy of what is written whole anyway.
bool TarStream::open(const char* path) {
    if (m_buffer == nullptr) {
        m_buffer = allocatePages(kStreamBuffer);
    }
    m_fileStart = m_tarFileSize;
    m_tarFp.reset();
    m_tarFp.reset(fopen(path, "wb+e"));
    if (m_tarFp == nullptr) {
        return false;
    }
    if (m_buffer != nullptr) {
        setvbuf(m_tarFp.get(), m_buffer.get(), _IOFBF, kStreamBuffer);
    }
    return true;
}

bool TarStream::write(const char* bytes, int size) {
    fwrite(bytes, 1, static_cast<size_t>(size), m_tarFp.get());
    if (ferror(m_tarFp.get()) != 0) {
        return false;
    }
    m_tarFileSize += size;
    return true;
}

int TarStream::WriteAll(const char* buf, int len) {
    if (len < 1) {
        return 0;
    }
    if (!write(buf, len)) {
        ALOGE("TarFile::PackDir, failed to write data, size: %d, real: %d, error: %s", len, 0,
              ErrorText().c_str());
        return 0;
    }
    return len;
}

bool TarStream::writeHeader(const tar_header& header) {
    constexpr int kSize = sizeof(header);
    return WriteAll(bytesOf(header), kSize) == kSize;
}

bool TarStream::CompleteBlock(int written) {
    // Of a count below 0 the remainder is not above 0 either: nothing is padded then.
    const int remainder = written % static_cast<int>(kBlockSize);
    if (remainder < 1) {
        return true;
    }
    const int padding = static_cast<int>(kBlockSize) - remainder;
    if (WriteAll(kZeroBlocks, padding) != padding) {
        ALOGE("TarFile::PackDir, failed to write append block");
        return false;
    }
    return true;
}

bool TarStream::writeEndBlocks() {
    constexpr int kSize = sizeof(kZeroBlocks);
    return WriteAll(kZeroBlocks, kSize) == kSize && fflush(m_tarFp.get()) == 0;
}

}  // namespace android::installd
