// UnTarFile unpacks an archive, or a set of slices by its check file, below a directory, with
// owners mapped to the target application; or lists an archive's files. It knows its TarCallBack
// and nothing of who is behind it.
//
// Archives are hostile bytes: every read of one stays inside the object's own buffers, and every
// parse moves forward to the archive's end. What extraction does with a well-formed entry is what
// the entry says: it follows links that are there, and sets the owners and modes that are recorded.
//
// One thread per object. Failures are logged where they are met.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <utils/Vector.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/file_handles.h"
#include "tar/tar_callback.h"
#include "tar/tar_header.h"

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
    struct Entry;

    // What comes after an entry.
    enum class Next { kHeader, kEnd, kTruncated };

    // Reading: tar/untar_file.cpp
    void openStream(const char* path);
    void measure();
    size_t readBlock(TarBlock& block);
    int parseEntries(const char* destDir, EParseType type, char* path);
    bool VerifyChecksum(const tar_header* hdr);
    bool IsValidTarBlock(const tar_header* hdr);
    bool IsEmptyBlock(const char* block);
    Entry readEntry(const TarBlock& block);
    Next readLongString(const Entry& entry, std::optional<std::string>& text);
    int GenRealPath(const char* destDir, const char* name, char* path);
    Next skipData(const Entry& entry);
    int endOfHeaders(size_t got);
    int endBehindArchive();
    int endAtInvalidBlock(const TarBlock& block);
    bool isWithinSlice();

    // Entries: tar/untar_entry.cpp
    Next unpackEntry(const Entry& entry, char* path);
    Next unpackFile(const Entry& entry, char* path);
    bool copyContent(const Entry& entry, FILE* target, bool& isAborted);
    void unpackLink(const Entry& entry, const char* path);
    void unpackDirectory(const Entry& entry, char* path);
    Next listEntry(const Entry& entry, EParseType type, const char* path);

    // Slices: tar/untar_split.cpp
    int unpackSlice(const char* slicePath, const char* destDir);
    bool HandleCheckFile(const char* checkFilePath, Vector<std::string>& slices, int& count);
    bool CheckSliceTar(const char* line, const char* checkDir, Vector<std::string>& slices);

    std::unique_ptr<char[]> m_tarBuf;  // the stream's, from the first archive on; outlives it
    UniqueFile m_tarFp;
    int64_t m_tarSize = 0;
    uint32_t m_uid = 0;
    std::string m_tarPath;
    bool m_isSplit = false;
    TarCallBack* const m_callBack;
    Vector<std::string> m_fileNames;
    Vector<int64_t> m_fileSizes;
    Vector<int64_t> m_dataOffsets;
    std::unique_ptr<char[]> m_copyBuffer;  // kContentChunk bytes, from the first content on
};

// Opens the target of a regular file for writing, at its end for the later parts of a cut file.
// Makes the parent directory, with the file's mode, when it is missing: one level, no more. Returns
// null on failure. `path` is changed and restored.
FILE* CreateFile(char* path, uint32_t mode, char typeflag);

// Makes one directory when it is missing. Cuts a trailing '/' off `path`. Returns 0 or mkdir's -1.
int CreateDir(char* path, uint32_t mode);

}  // namespace android::installd
