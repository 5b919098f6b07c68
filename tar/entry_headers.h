// Headers of the entries that are packed, and the long-name records before them. What an archive
// and a slice have in common.
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/place.h"
#include "tar/owner_names.h"
#include "tar/tar_header.h"
#include "tar/tar_stream.h"

namespace android::installd {

class EntryHeaders {
  public:
    // Records go to `stream`. Entries are named by their paths below `rootPath`. Both must outlive
    // the object.
    EntryHeaders(TarStream& stream, const std::string& rootPath)
        : m_stream(stream), m_rootPath(rootPath) {}
    EntryHeaders(const EntryHeaders&) = delete;
    EntryHeaders& operator=(const EntryHeaders&) = delete;

    // Each fills `hdr` for the entry at `entry`, which `st` is of, and writes the records that it
    // needs. The header is the caller's to write. False for an entry that cannot be stored.
    bool fillDirectory(const Place& entry, const struct stat& st, tar_header& hdr);
    bool fillLink(const Place& entry, const struct stat& st, tar_header& hdr);

    // For a file or a part of one: `typeflag` says which, `size` is that of the data.
    bool fillFile(const Place& entry, const struct stat& st, char typeflag, long size,
                  tar_header& hdr);

  private:
    void fillNumbers(const struct stat& st, tar_header& hdr);
    bool fillTexts(const Place& entry, const struct stat& st, const char* name, tar_header& hdr);
    void FillOwnerName(tar_header& hdr, const struct stat* st);
    bool FillLongString(char* field, int fieldSize, const char* text, char type);
    bool FillLinkName(char* field, int fieldSize, const Place& link, int linkSize);
    bool ReadLink(const Place& link, char* buf, int len);
    bool WriteLongName(const char* text, char type);

    // The entry's path below the packed directory.
    const char* nameOf(const Place& entry) const { return entry.path() + m_rootPath.size() + 1; }

    TarStream& m_stream;
    const std::string& m_rootPath;
    OwnerNames m_ownerNames;
};

}  // namespace android::installd
