// UnTarFile unpacks an archive, or a set of slices by its check file, below a directory, with
// owners mapped to the target application; or lists an archive's files. It knows its TarCallBack
// and nothing of who is behind it.
//
// Archives are hostile bytes: no read leaves the buffers, and entries whose paths climb or are too
// long end the parse. Any other well-formed entry is unpacked as it says.
//
// One thread per object. Failures are logged where they are met.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "tar/entry_unpacker.h"
#include "tar/tar_callback.h"
#include "tar/tar_reader.h"

namespace android::installd {

// What a parse does with the entries.
enum EParseType : int {
    PARSE_LIST = 0,
    PARSE_UNPACK = 1,
};

class UnTarFile {
  public:
    // Opens the archive, or the check file of a split one; a failure shows in the parse.
    // `callback` may be null and must outlive the object.
    UnTarFile(const char* archivePath, TarCallBack* callback);
    virtual ~UnTarFile();
    UnTarFile(const UnTarFile&) = delete;
    UnTarFile& operator=(const UnTarFile&) = delete;

    // Unpacks the archive into `destDir` for `uid` (0: owners stay as recorded). Returns the result
    // of ParseTarFile.
    int UnPack(const char* destDir, uint32_t uid);

    // Checks every slice that the check file lists, then unpacks them in order into the directory
    // that holds `destDir`, removing each. Returns 0, -1 when the set is not what the check file
    // says (nothing is unpacked then), or the result of the first slice that fails.
    int UnSplitPack(const char* destDir, uint32_t uid);

    // The names of the archive's regular files, in its order.
    std::vector<std::string> GetFileNames();

    // Whether the path belongs to what is never unpacked.
    bool FilterDir(const char* path);

    // One pass over the archive.
    //
    // | result | meaning                                                                     |
    // |--------|-----------------------------------------------------------------------------|
    // | 0      | done, or aborted                                                            |
    // | -1     | no archive; an entry's path climbs or is too long                           |
    // | -2     | null `destDir`                                                              |
    // | -3     | size no multiple of a block; a block that is no header                      |
    // | -4     | no memory                                                                   |
    // | -5     | the archive ends among its headers                                          |
    //
    // Entries that cannot be created or read whole are left out and end nothing. What was unpacked
    // stays, whatever the result.
    int ParseTarFile(const char* destDir, EParseType type);

  private:
    int unpackSlice(const char* slicePath, const char* destDir);
    bool handleEntry(const TarEntry& entry, EParseType type, EntryUnpacker& unpacker, char* path);

    NoCallBack m_noCallBack;
    TarCallBack& m_callBack;
    TarReader m_reader;
    std::string m_tarPath;
    uint32_t m_uid = 0;
    std::vector<std::string> m_fileNames;
};

}  // namespace android::installd
