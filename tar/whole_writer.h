// Writes entries into one whole archive.
#pragma once

#include <string>

#include "tar/content_reader.h"
#include "tar/entry_headers.h"
#include "tar/entry_writer.h"
#include "tar/tar_callback.h"
#include "tar/tar_stream.h"

namespace android::installd {

class WholeWriter : public EntryWriter {
  public:
    // `rootPath` is the directory that is packed. All must outlive the object, and `stream` be
    // open.
    WholeWriter(TarStream& stream, const std::string& rootPath, TarCallBack& callBack)
        : m_stream(stream), m_headers(stream, rootPath), m_callBack(callBack) {}

    bool AddDirectory(const Place& entry, const struct stat& st) override;
    bool AddLink(const Place& entry, const struct stat& st) override;
    bool AddFile(const Place& entry, const struct stat& st) override;

  private:
    bool writeHeaderAlone(const Place& entry, const tar_header& hdr);
    bool WriteFileContent(const Place& file, long size);

    TarStream& m_stream;
    EntryHeaders m_headers;
    ContentReader m_content;
    TarCallBack& m_callBack;
};

}  // namespace android::installd
