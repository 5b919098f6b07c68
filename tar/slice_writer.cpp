// Tested by tests/unit/archives.md.
#include "tar/slice_writer.h"

#include <fcntl.h>
#include <log/log.h>

#include "tar/slice_arithmetic.h"

namespace android::installd {

namespace {

constexpr int kHeaderSize = sizeof(tar_header);

void tellOf(const Place& file, char typeflag, long size) {
    ALOGD("TarFile::PackSplitDir name %s , hdrSize[%ld], typeFlag[%c]", file.path(), size,
          typeflag);
}

}  // namespace

bool SliceWriter::AddDirectory(const Place& entry, const struct stat& st) {
    tar_header hdr = {};
    return m_headers.fillDirectory(entry, st, hdr) && writeHeaderAlone(entry, hdr);
}

bool SliceWriter::AddLink(const Place& entry, const struct stat& st) {
    tar_header hdr = {};
    return m_headers.fillLink(entry, st, hdr) && writeHeaderAlone(entry, hdr);
}

bool SliceWriter::writeHeaderAlone(const Place& entry, const tar_header& hdr) {
    if (m_slices.SplitWriteAll(bytesOf(hdr), kHeaderSize) != kHeaderSize ||
        (m_slices.isFull() && !leaveFullSlice(entry, kHeaderSize))) {
        ALOGE("TarFile::PackDir, failed to write head of dir(slink): %s", entry.path());
        return false;
    }
    return true;
}

bool SliceWriter::AddFile(const Place& entry, const struct stat& st) {
    const Part part = FlushTarSizeAndFlag(entry, st.st_size);
    tar_header hdr = {};
    if (!m_headers.fillFile(entry, st, part.typeflag, part.size, hdr)) {
        return false;
    }
    if (!m_stream.writeHeader(hdr)) {
        ALOGE("TarFile::PackDir, failed to write head of file: %s", entry.path());
        return false;
    }
    if (!WriteFileContent(entry, st.st_size)) {
        ALOGE("TarFile::PackDir, failed to write content of file: %s, size: %lld", entry.path(),
              static_cast<long long>(st.st_size));
        return false;
    }
    m_curFile.clear();
    return true;
}

// What the header of a file that begins here says.
SliceWriter::Part SliceWriter::FlushTarSizeAndFlag(const Place& file, long fileSize) const {
    const long room = m_slices.room();
    if (!IsFirstSplitPKT(fileSize, m_curFile.size(), room)) {
        return {TYPE_REGULAR, fileSize};
    }
    const Part part = {TYPE_FIRST_PART, GetFirstSizeOfSplitFile(fileSize, m_curFile.size(), room)};
    tellOf(file, part.typeflag, part.size);
    return part;
}

// What the header of a file that goes on here says.
SliceWriter::Part SliceWriter::nextPart(const Place& file) const {
    const bool goesOn = m_content.remaining() > m_slices.sliceSize();
    const Part part = goesOn ? Part{TYPE_MIDDLE_PART, m_slices.sliceSize()}
                             : Part{TYPE_LAST_PART, m_content.remaining()};
    tellOf(file, part.typeflag, part.size);
    return part;
}

bool SliceWriter::WriteFileContent(const Place& file, long size) {
    if (!m_content.open(file, size)) {
        return false;
    }
    bool isPadded = false;
    while (m_content.remaining() > 0) {
        if (!m_content.readChunk(file)) {
            return false;
        }
        const int chunkSize = m_content.chunkSize();
        bool isWritten = m_slices.SplitWriteAll(m_content.chunk(), chunkSize) == chunkSize;
        if (isWritten && m_slices.isFull()) {
            isPadded = chunkSize < static_cast<int>(kContentChunk);
            isWritten = leaveFullSlice(file, chunkSize);
        }
        if (!isWritten) {
            ALOGE("TarFile::PackDir, failed to write data of file: %s", file.path());
            return false;
        }
        if (m_callBack.IsAborted()) {
            ALOGI("TarFile::PackDir, pack task aborded in file");
            m_slices.ClearDirtyData();
            return false;
        }
        m_callBack.OnTaskProgress(static_cast<unsigned long>(chunkSize));
    }
    m_content.close();
    return isPadded || m_stream.completeContent(size);
}

// Goes on in a slice that has room. With a slice size that no header fits into, each new slice is
// full with its header: a client that asked for that gets one slice per continuation, without end.
bool SliceWriter::leaveFullSlice(const Place& entry, int written) {
    if (!goOnInNextSlice(entry, written)) {
        return false;
    }
    while (!m_slices.isEmpty() && m_slices.isFull()) {
        if (!goOnInNextSlice(entry, kHeaderSize)) {
            ALOGE("TarFile::PackSplitDir head blocks failed!\n");
            return false;
        }
    }
    return true;
}

// Closes the full slice, waits until packing may go on, and opens the next one. `written` are the
// bytes of the write that filled it: fewer than a chunk are a file's last, which is padded in the
// slice that it belongs to.
bool SliceWriter::goOnInNextSlice(const Place& entry, int written) {
    if (written < static_cast<int>(kContentChunk)) {
        ALOGD("TarFile::PackSplitDir CompleteBlock count %d", written);
        m_stream.CompleteBlock(written);
    }
    if (!FillSplitTailBlocks(false)) {
        ALOGE("TarFile::PackSplitDir fill tail failed!");
        return false;
    }
    m_callBack.WaitTaskLocked();
    if (m_callBack.IsAborted()) {
        ALOGI("TarFile::PackSplitDir, pack task aborded in file");
        return false;
    }
    if (!m_slices.CreateSplitFile()) {
        ALOGE("TarFile::PackSplitDir CreateSplitFile failed! \n");
        return false;
    }
    if (!FillSplitHeaderBlocks(entry)) {
        ALOGE("TarFile::PackSplitDir head blocks failed!\n");
        return false;
    }
    return true;
}

bool SliceWriter::FillSplitTailBlocks(bool isLast) {
    // Empty by the size last looked at, which knows nothing of empty files since.
    if (m_slices.isEmpty() && m_slices.count() > 0) {
        m_slices.removeEmpty();
        return true;
    }
    if (!m_slices.close()) {
        return false;
    }
    ALOGD(
        "TarFile::FillSplitTailBlocks file [name, m_fileRemainSize, m_cursorFileSize] = "
        "[%s, %jd, %jd]\n",
        m_curFile.c_str(), static_cast<intmax_t>(m_content.remaining()),
        static_cast<intmax_t>(m_content.done()));
    return m_slices.handOver(isLast);
}

// A new slice begins with the header of the file that the last one cut, if it cut one.
bool SliceWriter::FillSplitHeaderBlocks(const Place& entry) {
    ALOGD("TarFile::FillSplitHeaderBlocks m_curFile:%s, m_tarFileSize:%jd, m_fileRemainSize:%jd",
          m_curFile.c_str(), static_cast<intmax_t>(m_stream.totalBytes()),
          static_cast<intmax_t>(m_content.remaining()));
    if (m_content.remaining() == 0) {
        ALOGD("TarFile::FillSplitHeaderBlocks Remain Size is 0, no need fill header");
        return true;
    }
    struct stat status = {};
    if (fstatat(entry.dirFd(), entry.name(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        ALOGE("TarFile::FillSplitHeaderBlocks lstat %s error!", entry.path());
        return false;
    }
    // An application has the whole pause to put something else there. No other entry has content:
    // what is left of the file would be read as headers.
    if (!S_ISREG(status.st_mode)) {
        ALOGE("TarFile::FillSplitHeaderBlocks %s is no file any more!", entry.path());
        return false;
    }
    return addContinuation(entry, status);
}

// Whether the header has filled the slice is looked at by who asked for the slice.
bool SliceWriter::addContinuation(const Place& file, const struct stat& st) {
    const Part part = nextPart(file);
    tar_header hdr = {};
    if (!m_headers.fillFile(file, st, part.typeflag, part.size, hdr)) {
        return false;
    }
    if (m_slices.SplitWriteAll(bytesOf(hdr), kHeaderSize) != kHeaderSize) {
        ALOGE("TarFile::PackDir, failed to write head of dir(slink): %s", file.path());
        return false;
    }
    return true;
}

}  // namespace android::installd
