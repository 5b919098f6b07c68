// The file that is packed into, a whole archive or a slice: its stream, how many bytes were written
// to it, and which file it is.
#pragma once

#include <sys/stat.h>

#include "base/file_handles.h"
#include "tar/page_buffer.h"
#include "tar/tar_header.h"

namespace android::installd {

class TarStream {
  public:
    TarStream() = default;
    TarStream(const TarStream&) = delete;
    TarStream& operator=(const TarStream&) = delete;

    // Makes a new file, or empties the one that is there. The file before is closed. On failure
    // errno tells why.
    bool open(const char* path);
    void close() { m_tarFp.reset(); }

    // Looks at the file, whose path this is. On failure errno tells why.
    bool look(const char* path) { return stat(path, &m_tarStat) == 0; }
    const struct stat& status() const { return m_tarStat; }

    // Whether `status` is of the file that look() saw last.
    bool isItself(const struct stat& status) const {
        return status.st_dev == m_tarStat.st_dev && status.st_ino == m_tarStat.st_ino;
    }

    // Writes all `size` bytes. False when the stream has failed, now or before: what it took into
    // its buffer since is lost.
    bool write(const char* bytes, int size);

    // The same with a log line for a failure. Returns `len`, or 0 when that is below 1 or the write
    // failed.
    int WriteAll(const char* buf, int len);

    bool writeHeader(const tar_header& header);

    // Writes zero bytes from the end of `written` bytes up to the next whole block.
    bool CompleteBlock(int written);

    // The same after `size` bytes of content, counted in 32 bits with a sign: where that is below 0
    // there is no padding. The next header is looked for where the size, in all its bits, puts it,
    // so that such an archive restores up to this file; peltexctl verify tells.
    bool completeContent(long size) { return CompleteBlock(static_cast<int>(size)); }

    // The two empty blocks that end an archive or a slice, brought to disk with all before them.
    bool writeEndBlocks();

    // Bytes written to all files, and to the present one.
    long totalBytes() const { return m_tarFileSize; }
    long fileBytes() const { return m_tarFileSize - m_fileStart; }

  private:
    PageBuffer m_buffer;  // the stream's; outlives it
    UniqueFile m_tarFp;
    struct stat m_tarStat = {};
    long m_tarFileSize = 0;
    long m_fileStart = 0;  // of m_tarFileSize
};

}  // namespace android::installd
