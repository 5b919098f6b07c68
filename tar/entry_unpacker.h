// Makes on disk what an entry of an archive says, whatever that is: links that are there are
// followed, and recorded modes set.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <memory>

#include "tar/tar_callback.h"
#include "tar/tar_reader.h"

namespace android::installd {

class EntryUnpacker {
  public:
    // Reads data from `reader` and maps owners to the application of `uid` (0: as recorded).
    // `reader` and `callBack` must outlive the object.
    EntryUnpacker(TarReader& reader, TarCallBack& callBack, uint32_t uid)
        : m_reader(reader), m_callBack(callBack), m_uid(uid) {}

    // Makes the entry at `path`, of kTarPathSize bytes, which may be changed. One that cannot be
    // created or read whole is left out. False when the task was aborted.
    bool unpack(const TarEntry& entry, char* path);

    // Sets the entry's owner, mapped, and mode. Nothing is examined; what refuses keeps its own.
    void applyOwnerAndMode(const TarEntry& entry, const char* path);

  private:
    enum class Copied { kWhole, kShort, kAborted };

    bool unpackFile(const TarEntry& entry, char* path);
    Copied copyContent(const TarEntry& entry, FILE* target);
    void unpackLink(const TarEntry& entry, const char* path);
    void unpackDirectory(const TarEntry& entry, char* path);

    TarReader& m_reader;
    TarCallBack& m_callBack;
    const uint32_t m_uid;
    std::unique_ptr<char[]> m_copyBuffer;  // kContentChunk bytes, from the first content on
};

// Whether entries of this type are files, or parts of files.
bool isRegular(char typeflag);

// Whether the path belongs to what is never unpacked; logs it then.
bool isIgnoredPatch(const char* path);

// Opens the target of a regular file for writing, at its end for the later parts of a cut file.
// Makes the parent directory, with the file's mode, when it is missing: one level, no more. Returns
// null on failure. `path` is changed and restored.
FILE* CreateFile(char* path, uint32_t mode, char typeflag);

// Makes one directory when it is missing. Cuts a trailing '/' off `path`. Returns 0 or mkdir's -1.
int CreateDir(char* path, uint32_t mode);

}  // namespace android::installd
