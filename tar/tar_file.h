// TarFile packs a directory tree into one archive, or into slices of a given size with a check file
// that lists them. It knows its TarCallBack and nothing of who is behind it.
//
// One object packs one tree on one thread. Failures are logged where they are met and end the pack;
// what a member returns then is false or a short count.
#pragma once

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <utils/Vector.h>

#include <string>

#include "base/file_handles.h"
#include "base/path_buffer.h"
#include "base/place.h"
#include "base/walk_level.h"
#include "tar/owner_names.h"
#include "tar/tar_callback.h"
#include "tar/tar_header.h"

namespace android::installd {

class TarFile {
  public:
    // For one whole archive. `callBack` may be null and must outlive the object.
    explicit TarFile(TarCallBack* callBack);

    // For slices. `callBack` must not be null; `workerIndex` is stored, not read.
    TarFile(TarCallBack* callBack, unsigned long workerIndex);

    virtual ~TarFile();
    TarFile(const TarFile&) = delete;
    TarFile& operator=(const TarFile&) = delete;

    // --- Whole archives: tar/tar_file.cpp ---

    // Packs what is under `srcDir` into a new file `tarPath`, which is removed again when that
    // fails. True also for a pack that was aborted between two entries: what came before is in it.
    bool PackDir(const char* srcDir, const char* tarPath);

    // --- Slices: tar/tar_file_split.cpp ---

    // Packs what is under `srcDir` into slices named `tarPath`.0, .1, ... and lists them in
    // `tarPath`.txt. `args` holds the kSplitArguments words of the command: the fifth is the slice
    // size in MiB, the sixth the SELinux information. Slices belong to `uid`.
    bool PackSplitDir(std::string srcDir, std::string tarPath, std::string* args, unsigned int uid);

    static constexpr size_t kSplitArguments = 7;

  private:
    // The walk: tar/tar_file.cpp
    bool CheckDir(const char* dir);
    bool openTar(const char* tarPath);
    FILE* openStream(const char* path);
    bool packTree();
    bool TraversalPackDir(const Place& directory, PathBuffer& path);
    bool packEntries(WalkLevel& level, PathBuffer& path);
    bool packEntry(const WalkLevel& level, PathBuffer& path);
    int DoPack(const char* path);
    bool Filter(const char* path, const struct stat* st);
    bool AddFile(const char* path, const struct stat* st, bool isContinuation);
    bool fillTypeAndSize(const char* path, const struct stat* st, bool isContinuation,
                         tar_header& hdr);
    bool writeHeader(const char* path, const tar_header& hdr, const struct stat* st,
                     bool isContinuation);
    bool isAborted() const { return m_callBack != nullptr && m_callBack->IsAborted(); }

    // Content: tar/tar_file.cpp
    int WriteAll(const char* buf, int len);
    int writeOnce(const char* buf, int len);
    bool writeEndBlocks();
    bool WriteFileContent(const char* path, long size);
    bool writeChunks(const char* path, int fd, long size, bool& sliceEnded);
    bool ReadLink(const char* path, char* buf, int len);
    int ReadAll(int fd, char* buf, int len);

    // Headers and long-name records: tar/tar_file_header.cpp
    void I2Ocs(char* field, int width, long value);
    void FillSum(tar_header& hdr);
    void FillOwnerName(tar_header& hdr, const struct stat* st);
    bool FillLongString(char* field, int fieldSize, const char* text, char type);
    bool FillLinkName(char* field, int fieldSize, const char* path, int linkSize);
    bool FillEntryName(tar_header& hdr, const char* path, bool isDirectory);
    void fillMagic(tar_header& hdr);
    bool WriteLongName(const char* text, char type);
    bool fillLongNameHeader(tar_header& hdr, size_t textSize, char type);
    bool CompleteBlock(int written);

    // Slices: tar/tar_file_split.cpp
    bool PackSplitPre(std::string* args, unsigned int uid);
    bool packSlices();
    bool CreateSplitFile();
    int SplitWriteAll(const char* buf, int len, bool& sliceEnded);
    int splitWriteOnce(const char* buf, int len);
    bool isSliceFull() const;
    bool switchSlices(int written, bool& sliceEnded);
    bool switchSlice(int written, bool& sliceEnded);
    bool FillSplitTailBlocks(bool isLast);
    bool removeEmptySlice();
    bool FillSplitHeaderBlocks();
    bool FlushCurSplitTarAttr();
    void FlushTarSizeAndFlag(bool isContinuation, long fileSize, long& hdrSize, char& typeFlag);
    long nameAllowance() const;
    long GetSplitPKTRemainSize();
    bool IsFirstSplitPKT(long fileSize);
    long GetFirstSizeOfSplitFile(long fileSize);
    long GetSizeOfFile(long fileSize);
    void ClearDirtyData();
    bool FixAttrForSeLinux(std::string path);

    // The check file: tar/split_check_file.cpp
    bool CreateCheckFile();

    void closeTar();

    TarCallBack* const m_callBack;
    char* m_ioBuf = nullptr;        // kContentChunk bytes, from the first content on
    char* m_tarBuf = nullptr;       // the stream's, from the first archive on; outlives the stream
    int m_dirFd = AT_FDCWD;         // the directory that the walk is in
    char m_rootPath[kTarPathSize];  // what is packed, without a trailing '/'; empty between packs
    struct stat m_tarStat;          // of the archive or the current slice, when last looked at
    FILE* m_tarFp = nullptr;        // open during a pack only
    bool m_isSplit = false;
    std::string m_splitArgs[kSplitArguments];
    unsigned int m_uid = 0;
    std::string m_curFile;      // whose content is being written
    long m_fileRemainSize = 0;  // its bytes not yet read
    long m_cursorFileSize = 0;  // its bytes already read
    std::string m_basePath;     // of the slices' names
    int m_number = 0;           // slices finished
    std::string m_curTarPath;   // of the slice opened last; empty when all are finished
    long m_slice = 0;           // bytes that make a slice full
    long m_tarFileSize = 0;     // bytes written by this object, over all slices
    Vector<long> m_splitSizes;  // of each finished slice, in bytes
    unsigned long m_workerIndex = 0;
    OwnerNames m_ownerNames;
};

// The decimal text of a number.
std::string UdtoString(unsigned int value);

// The check file's line for slice `index`: "NAME.INDEX|SIZE\n" with the last component of
// `basePath`. Empty for a size of 0.
std::string HandleSplitInfo(std::string basePath, unsigned long long size, unsigned int index);

}  // namespace android::installd
