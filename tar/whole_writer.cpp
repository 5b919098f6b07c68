// Tested by tests/unit/archives.md.
#include "tar/whole_writer.h"

#include <log/log.h>

namespace android::installd {

bool WholeWriter::AddDirectory(const Place& entry, const struct stat& st) {
    tar_header hdr = {};
    return m_headers.fillDirectory(entry, st, hdr) && writeHeaderAlone(entry, hdr);
}

bool WholeWriter::AddLink(const Place& entry, const struct stat& st) {
    tar_header hdr = {};
    return m_headers.fillLink(entry, st, hdr) && writeHeaderAlone(entry, hdr);
}

bool WholeWriter::writeHeaderAlone(const Place& entry, const tar_header& hdr) {
    if (!m_stream.writeHeader(hdr)) {
        ALOGE("TarFile::PackDir, failed to write head of dir(slink): %s", entry.path());
        return false;
    }
    return true;
}

bool WholeWriter::AddFile(const Place& entry, const struct stat& st) {
    tar_header hdr = {};
    if (!m_headers.fillFile(entry, st, TYPE_REGULAR, st.st_size, hdr)) {
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
    return true;
}

bool WholeWriter::WriteFileContent(const Place& file, long size) {
    if (!m_content.open(file, size)) {
        return false;
    }
    while (m_content.remaining() > 0) {
        if (!m_content.readChunk(file)) {
            return false;
        }
        const int chunkSize = m_content.chunkSize();
        if (m_stream.WriteAll(m_content.chunk(), chunkSize) != chunkSize) {
            ALOGE("TarFile::PackDir, failed to write data of file: %s", file.path());
            return false;
        }
        if (m_callBack.IsAborted()) {
            ALOGI("TarFile::PackDir, pack task aborded in file");
            return false;
        }
        m_callBack.OnTaskProgress(static_cast<unsigned long>(chunkSize));
    }
    m_content.close();
    return m_stream.completeContent(size);
}

}  // namespace android::installd
