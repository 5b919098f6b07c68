// Tested by tests/unit/archives.md.
#include "tar/content_reader.h"

#include <log/log.h>
#include <unistd.h>

#include <algorithm>

#include "base/error_text.h"
#include "tar/tar_header.h"

namespace android::installd {

bool ContentReader::open(const Place& file, long size) {
    if (m_ioBuf == nullptr) {
        m_ioBuf = allocatePages(kContentChunk);
    }
    if (m_ioBuf == nullptr) {
        ALOGE("TarFile::PackDir, failed to alloc io buffer, size: %d",
              static_cast<int>(kContentChunk));
        return false;
    }
    m_fd = openRegular(file);
    if (!m_fd.isOpen()) {
        ALOGE("TarFile::PackDir, failed to open src file: %s", file.path());
        return false;
    }
    m_fileRemainSize = size;
    m_cursorFileSize = 0;
    return true;
}

void ContentReader::close() {
    m_fd = UniqueFd();
    m_fileRemainSize = 0;
    m_cursorFileSize = 0;
}

bool ContentReader::readChunk(const Place& file) {
    m_chunkSize = static_cast<int>(std::min(m_fileRemainSize, static_cast<long>(kContentChunk)));
    if (ReadAll(m_fd.get(), m_ioBuf.get(), m_chunkSize) != m_chunkSize) {
        ALOGE("TarFile::PackDir, failed to read src file: %s", file.path());
        return false;
    }
    m_cursorFileSize += m_chunkSize;
    m_fileRemainSize -= m_chunkSize;
    return true;
}

// Returns `len`, less at the end of the file, or -1 when a read fails.
int ContentReader::ReadAll(int fd, char* buf, int len) {
    if (len < 1) {
        return 0;
    }
    int done = 0;
    while (done < len) {
        const auto count = static_cast<int>(read(fd, buf + done, static_cast<size_t>(len - done)));
        if (count == 0) {
            ALOGE("TarFile::PackDir, failed to read data, size: %d, real: %d", len, done);
            return done;
        }
        if (count < 0) {
            ALOGE("TarFile::PackDir, failed to read data, size: %d, err: %s", len,
                  ErrorText().c_str());
            return -1;
        }
        done += count;
    }
    return done;
}

}  // namespace android::installd
