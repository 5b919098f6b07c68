// Writes entries into slices. A slice that a write has filled is closed and handed over, and
// packing goes on in the next one; a file that did not fit goes on there behind a header of its
// own:
//
//   slice 0          slice 1             slice 2
//   | ... '8' part | '9' header, part | 'A' header, rest | next entries ...
//
// A slice exceeds its size by what was written last. The header of a file does not end a slice,
// since its content would be cut off from it.
#pragma once

#include <string>

#include "tar/content_reader.h"
#include "tar/entry_headers.h"
#include "tar/entry_writer.h"
#include "tar/slices.h"
#include "tar/tar_callback.h"
#include "tar/tar_stream.h"

namespace android::installd {

class SliceWriter : public EntryWriter {
  public:
    // `rootPath` is the directory that is packed; the first of `slices` is open on `stream`. All
    // must outlive the object.
    SliceWriter(Slices& slices, TarStream& stream, const std::string& rootPath,
                TarCallBack& callBack)
        : m_slices(slices), m_stream(stream), m_headers(stream, rootPath), m_callBack(callBack) {}

    void Begin(const Place& entry) override { m_curFile = entry.path(); }
    bool AddDirectory(const Place& entry, const struct stat& st) override;
    bool AddLink(const Place& entry, const struct stat& st) override;
    bool AddFile(const Place& entry, const struct stat& st) override;

    // Closes the slice and hands it over. A last slice that is empty is removed instead.
    bool FillSplitTailBlocks(bool isLast);

  private:
    // What the header of a file, or of a part of one, says.
    struct Part {
        char typeflag;
        long size;
    };

    Part FlushTarSizeAndFlag(const Place& file, long fileSize) const;
    Part nextPart(const Place& file) const;
    bool writeHeaderAlone(const Place& entry, const tar_header& hdr);
    bool WriteFileContent(const Place& file, long size);
    bool leaveFullSlice(const Place& entry, int written);
    bool goOnInNextSlice(const Place& entry, int written);
    bool FillSplitHeaderBlocks(const Place& entry);
    bool addContinuation(const Place& file, const struct stat& st);

    Slices& m_slices;
    TarStream& m_stream;
    EntryHeaders m_headers;
    ContentReader m_content;
    TarCallBack& m_callBack;
    std::string m_curFile;  // path of the entry that is being written; empty behind a whole file
};

}  // namespace android::installd
