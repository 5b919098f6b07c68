// Reads the content of one file after the other, by chunks.
#pragma once

#include "base/file_handles.h"
#include "base/place.h"
#include "tar/page_buffer.h"

namespace android::installd {

class ContentReader {
  public:
    // Opens a regular file, of which `size` bytes are to be read.
    bool open(const Place& file, long size);
    void close();

    // Reads the next kContentChunk bytes, or the fewer that are left of `size`. False when the file
    // has no more, or cannot be read. REQUIRES: open, remaining() is not 0.
    bool readChunk(const Place& file);
    const char* chunk() const { return m_ioBuf.get(); }
    int chunkSize() const { return m_chunkSize; }

    // Bytes that are not yet, and already, read of the file that is open.
    long remaining() const { return m_fileRemainSize; }
    long done() const { return m_cursorFileSize; }

  private:
    int ReadAll(int fd, char* buf, int len);

    PageBuffer m_ioBuf;  // kContentChunk bytes, from the first content on
    UniqueFd m_fd;
    int m_chunkSize = 0;
    long m_fileRemainSize = 0;
    long m_cursorFileSize = 0;
};

}  // namespace android::installd
