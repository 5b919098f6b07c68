// The walk over a tree, its entries and their content, into one archive.
// Tested by tests/tar/tar_file_test.cpp and, against other programs, tests/tar/test_peers.py.
#include "tar/tar_file.h"

#include <fcntl.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/paths.h"
#include "bounded/bounded.h"

namespace android::installd {

namespace {

constexpr long kLargestFile = 0xFFFFFFFFF;  // what twelve octal digits hold
constexpr mode_t kModeBits = 0xFFF;
constexpr char kZeroBlocks[kEndBlocksSize] = {};
// Patches that an application downloads for itself; they belong to the installed version.
constexpr char kTinkerDir[] = "/com.tencent.mm/tinker";
constexpr char kDexSuffix[] = ".dex";

// What DoPack finds.
constexpr int kPackFailed = -1;
constexpr int kPackedOrLeftOut = 0;
constexpr int kPackedLink = 1;
constexpr int kPackedDirectory = 2;

constexpr size_t kPageSize = 4096;

// Whole pages: the kernel copies from and to them faster. Returns null when there is no memory.
char* allocatePages(size_t size) {
    void* pages = nullptr;
    return posix_memalign(&pages, kPageSize, size) == 0 ? static_cast<char*>(pages) : nullptr;
}

bool endsWith(const char* text, const char* suffix) {
    const size_t length = strlen(text);
    const size_t suffixLength = strlen(suffix);
    return length >= suffixLength && strcmp(text + length - suffixLength, suffix) == 0;
}

}  // namespace

TarFile::TarFile(TarCallBack* callBack) : m_callBack(callBack) {
    memset_s(m_rootPath, sizeof(m_rootPath), 0, sizeof(m_rootPath));
    memset_s(&m_tarStat, sizeof(m_tarStat), 0, sizeof(m_tarStat));
}

TarFile::TarFile(TarCallBack* callBack, unsigned long workerIndex) : TarFile(callBack) {
    m_isSplit = true;
    m_workerIndex = workerIndex;
}

TarFile::~TarFile() {
    closeTar();
    free(m_tarBuf);
    free(m_ioBuf);
}

void TarFile::closeTar() {
    if (m_tarFp != nullptr) {
        fclose(m_tarFp);
        m_tarFp = nullptr;
    }
}

bool TarFile::CheckDir(const char* dir) {
    if (dir == nullptr || dir[0] == '\0') {
        ALOGE("TarFile::PackDir, invalid input dir name");
        return false;
    }
    if (strlen(dir) > sizeof(m_rootPath) - 1) {
        ALOGE("TarFile::PackDir, input dir name too long: %s", dir);
        return false;
    }
    strncpy_s(m_rootPath, sizeof(m_rootPath), dir, sizeof(m_rootPath) - 1);
    if (endsWith(m_rootPath, "/")) {
        m_rootPath[strlen(m_rootPath) - 1] = '\0';
        ALOGE("TarFile::PackDir, clear end slash of path: %s", m_rootPath);
    }
    struct stat status = {};
    if (stat(m_rootPath, &status) != 0) {
        ALOGE("TarFile::PackDir, failed to get stat of src dir: %s, error: %s", m_rootPath,
              ErrorText().c_str());
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        ALOGE("TarFile::PackDir, src dir is not directory: %s", m_rootPath);
        return false;
    }
    return true;
}

bool TarFile::PackDir(const char* srcDir, const char* tarPath) {
    if (tarPath == nullptr) {
        ALOGE("TarFile::PackDir, target filename is null");
        return false;
    }
    if (!CheckDir(srcDir)) {
        ALOGE("TarFile::PackDir, failed check dir: %s", srcDir == nullptr ? "(null)" : srcDir);
        m_rootPath[0] = '\0';
        return false;
    }
    ALOGD("TarFile::PackDir, [%s], begin...", m_rootPath);
    if (!openTar(tarPath)) {
        m_rootPath[0] = '\0';
        return false;
    }
    bool result = packTree();
    if (result && !writeEndBlocks()) {
        ALOGE("TarFile::PackDir, failed to write endup block");
        result = false;
    }
    closeTar();
    if (!result && remove(tarPath) != 0) {
        ALOGE("TarFile::PackDir, failed to remove file: %s, error: %s", tarPath,
              ErrorText().c_str());
    }
    m_rootPath[0] = '\0';
    ALOGD("TarFile::PackDir, [%s], finished, result: %d", srcDir, result);
    return result;
}

bool TarFile::openTar(const char* tarPath) {
    m_tarFp = openStream(tarPath);
    if (m_tarFp == nullptr) {
        ALOGE("TarFile::PackDir, failed to open tar file: %s, error: %s", tarPath,
              ErrorText().c_str());
        return false;
    }
    if (stat(tarPath, &m_tarStat) != 0) {
        const ErrorText error;
        closeTar();
        ALOGE("TarFile::PackDir, failed to get stat of tar file: %s, error: %s", tarPath,
              error.c_str());
        return false;
    }
    return true;
}

// A larger buffer than a stream's own makes fewer writes of headers and small files; a still larger
// one only adds a copy of what is written whole anyway.
FILE* TarFile::openStream(const char* path) {
    if (m_tarBuf == nullptr) {
        m_tarBuf = allocatePages(kStreamBuffer);
    }
    FILE* stream = fopen(path, "wb+e");
    if (stream != nullptr && m_tarBuf != nullptr) {
        setvbuf(stream, m_tarBuf, _IOFBF, kStreamBuffer);
    }
    return stream;
}

bool TarFile::packTree() {
    PathBuffer path(m_rootPath);
    return TraversalPackDir(Place(path.c_str()), path);
}

// Packs everything under `directory`, whose path is in `path`, in the order of the file system.
bool TarFile::TraversalPackDir(const Place& directory, PathBuffer& path) {
    WalkLevel level(directory, path, PathBuffer::Fit::kWhole);
    if (!level.isOpen()) {
        ALOGE("TarFile::PackDir, failed to open dir: %s, err: %s", path.c_str(),
              ErrorText().c_str());
        return false;
    }
    const int parentFd = std::exchange(m_dirFd, level.entry().dirFd());
    const bool result = packEntries(level, path);
    m_dirFd = parentFd;
    return result;
}

bool TarFile::packEntries(WalkLevel& level, PathBuffer& path) {
    WalkLevel::Found found = level.next();
    for (; found == WalkLevel::Found::kEntry; found = level.next()) {
        // What fails leaves the path as it is: every level tells the deepest one.
        if (!packEntry(level, path)) {
            ALOGE("TarFile::PackDir, failed when pack: %s, result: %d", path.c_str(), kPackFailed);
            return false;
        }
        if (isAborted()) {
            ALOGI("TarFile::PackDir, pack task aborted");
            return true;
        }
        level.back();
    }
    if (found == WalkLevel::Found::kTooLong) {
        ALOGE("TarFile::PackDir, file name too long, path: %s, file: %s", path.c_str(),
              level.name());
        return false;
    }
    if (found == WalkLevel::Found::kBroken) {
        ALOGE("TarFile::PackDir, failed to read dir: %s, err: %s", path.c_str(),
              ErrorText().c_str());
        return false;
    }
    return true;
}

bool TarFile::packEntry(const WalkLevel& level, PathBuffer& path) {
    const int found = DoPack(path.c_str());
    return found == kPackedDirectory ? TraversalPackDir(level.entry(), path) : found != kPackFailed;
}

int TarFile::DoPack(const char* path) {
    struct stat status = {};
    if (fstatat(m_dirFd, lastComponent(path), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        ALOGE("TarFile::PackDir, failed to get stat of file: %s, error: %s", path,
              ErrorText().c_str());
        return kPackFailed;
    }
    if (Filter(path, &status)) {
        ALOGI("TarFile::PackDir, filter file: %s", path);
        return kPackedOrLeftOut;
    }
    if (!AddFile(path, &status, false)) {
        return kPackFailed;
    }
    if (S_ISDIR(status.st_mode)) {
        return kPackedDirectory;
    }
    return S_ISLNK(status.st_mode) ? kPackedLink : kPackedOrLeftOut;
}

bool TarFile::Filter(const char* path, const struct stat* st) {
    if (!S_ISDIR(st->st_mode) && st->st_nlink >= 2) {
        ALOGI("TarFile::PackDir, ignore hard link file");
        return true;
    }
    if (st->st_dev == m_tarStat.st_dev && st->st_ino == m_tarStat.st_ino) {
        ALOGI("TarFile::PackDir, ignore current tar file");
        return true;
    }
    if (S_ISDIR(st->st_mode) && endsWith(path, kTinkerDir)) {
        ALOGI("TarFile::PackDir, ignore tinker dir [%s]", path);
        return true;
    }
    if (S_ISREG(st->st_mode) && strlen(path) > strlen(kDexSuffix) && endsWith(path, kDexSuffix)) {
        ALOGI("TarFile::PackDir, ignore dex file");
        return true;
    }
    return false;
}

// Writes the entry: its records and header and, unless it is the continuation of a cut file, its
// content. What cannot be stored is left out without an error.
bool TarFile::AddFile(const char* path, const struct stat* st, bool isContinuation) {
    m_curFile = path;
    if (!S_ISDIR(st->st_mode) && !S_ISLNK(st->st_mode) && !S_ISREG(st->st_mode)) {
        ALOGI("TarFile::PackDir, skip not supported file: %s, mode: %o", path,
              st->st_mode & S_IFMT);
        return true;
    }
    tar_header hdr = {};
    I2Ocs(hdr.mode, sizeof(hdr.mode), st->st_mode & kModeBits);
    I2Ocs(hdr.uid, sizeof(hdr.uid), st->st_uid);
    I2Ocs(hdr.gid, sizeof(hdr.gid), st->st_gid);
    I2Ocs(hdr.size, sizeof(hdr.size), 0);
    I2Ocs(hdr.mtime, sizeof(hdr.mtime), st->st_mtime);
    if (!fillTypeAndSize(path, st, isContinuation, hdr) ||
        !FillEntryName(hdr, path, S_ISDIR(st->st_mode))) {
        return false;
    }
    fillMagic(hdr);
    FillOwnerName(hdr, st);
    FillSum(hdr);
    return writeHeader(path, hdr, st, isContinuation);
}

bool TarFile::fillTypeAndSize(const char* path, const struct stat* st, bool isContinuation,
                              tar_header& hdr) {
    if (S_ISDIR(st->st_mode)) {
        hdr.typeflag = TYPE_DIRECTORY;
        return true;
    }
    if (S_ISLNK(st->st_mode)) {
        hdr.typeflag = TYPE_SYMLINK;
        // In 32 bits and wrapping: a size that does not fit is refused as one below 1.
        const auto linkSize = static_cast<int>(static_cast<uint32_t>(st->st_size) + 1);
        if (!FillLinkName(hdr.linkname, sizeof(hdr.linkname), path, linkSize)) {
            ALOGE("TarFile::PackDir, failed to fill long name");
            return false;
        }
        return true;
    }
    hdr.typeflag = TYPE_REGULAR;
    long size = st->st_size;
    FlushTarSizeAndFlag(isContinuation, st->st_size, size, hdr.typeflag);
    if (st->st_size > kLargestFile) {
        ALOGE("TarFile::PackDir, can't store file '%s' of size: %lld", path,
              static_cast<long long>(st->st_size));
        return false;
    }
    I2Ocs(hdr.size, sizeof(hdr.size), size);
    return true;
}

// Writes the header and, for a file that begins here, its content. What has no content may end a
// slice; the header of a file never does, since its content would be cut off from it, and whether
// the header of a continuation has filled the new slice is seen to by who asked for it.
bool TarFile::writeHeader(const char* path, const tar_header& hdr, const struct stat* st,
                          bool isContinuation) {
    const auto* bytes = reinterpret_cast<const char*>(&hdr);
    constexpr int kSize = sizeof(hdr);
    if (hdr.typeflag != TYPE_REGULAR && hdr.typeflag != TYPE_FIRST_PART) {
        bool sliceEnded = false;
        const int written =
            isContinuation ? splitWriteOnce(bytes, kSize) : SplitWriteAll(bytes, kSize, sliceEnded);
        if (written != kSize) {
            ALOGE("TarFile::PackDir, failed to write head of dir(slink): %s", path);
            return false;
        }
        return true;
    }
    if (WriteAll(bytes, kSize) != kSize) {
        ALOGE("TarFile::PackDir, failed to write head of file: %s", path);
        return false;
    }
    if (!WriteFileContent(path, st->st_size)) {
        ALOGE("TarFile::PackDir, failed to write content of file: %s, size: %lld", path,
              static_cast<long long>(st->st_size));
        return false;
    }
    m_curFile.clear();
    return true;
}

// One write of the stream. A stream that has failed once has lost bytes, though it takes more into
// its buffer: nothing counts as written then.
int TarFile::writeOnce(const char* buf, int len) {
    const auto count = static_cast<int>(fwrite(buf, 1, static_cast<size_t>(len), m_tarFp));
    return ferror(m_tarFp) != 0 ? 0 : count;
}

// Returns `len`, or less after a failed write.
int TarFile::WriteAll(const char* buf, int len) {
    if (len < 1) {
        return 0;
    }
    int written = 0;
    while (written < len) {
        const int count = writeOnce(buf + written, len - written);
        if (count < 1) {
            ALOGE("TarFile::PackDir, failed to write data, size: %d, real: %d, error: %s", len,
                  count, ErrorText().c_str());
            return count;
        }
        written += count;
        m_tarFileSize += count;
    }
    return written;
}

// The two empty blocks that end an archive or a slice, brought to disk with all before them.
bool TarFile::writeEndBlocks() {
    constexpr int kSize = sizeof(kZeroBlocks);
    return WriteAll(kZeroBlocks, kSize) == kSize && fflush(m_tarFp) == 0;
}

bool TarFile::WriteFileContent(const char* path, long size) {
    if (m_ioBuf == nullptr) {
        m_ioBuf = allocatePages(kContentChunk);
    }
    if (m_ioBuf == nullptr) {
        ALOGE("TarFile::PackDir, failed to alloc io buffer, size: %d",
              static_cast<int>(kContentChunk));
        return false;
    }
    const UniqueFd fd = openRegular(Place(m_dirFd, path));
    if (!fd.isOpen()) {
        ALOGE("TarFile::PackDir, failed to open src file: %s", path);
        return false;
    }
    m_fileRemainSize = size;
    m_cursorFileSize = 0;
    bool sliceEnded = false;
    const bool isComplete = writeChunks(path, fd.get(), size, sliceEnded);
    m_fileRemainSize = 0;
    m_cursorFileSize = 0;
    if (!isComplete) {
        return false;
    }
    // Narrowed on purpose: the padding of archives has always been counted in 32 bits, and who
    // reads them relies on it.
    return sliceEnded || CompleteBlock(static_cast<int32_t>(size));
}

// A file that grew meanwhile is cut to `size`, one that shrank fails. Returns whether all was
// written and no abort came in between.
bool TarFile::writeChunks(const char* path, int fd, long size, bool& sliceEnded) {
    for (long remaining = size; remaining > 0;) {
        const auto chunk = static_cast<int>(std::min(remaining, static_cast<long>(kContentChunk)));
        if (ReadAll(fd, m_ioBuf, chunk) != chunk) {
            ALOGE("TarFile::PackDir, failed to read src file: %s", path);
            return false;
        }
        m_cursorFileSize += chunk;
        m_fileRemainSize -= chunk;
        if (SplitWriteAll(m_ioBuf, chunk, sliceEnded) != chunk) {
            ALOGE("TarFile::PackDir, failed to write data of file: %s", path);
            return false;
        }
        if (isAborted()) {
            ALOGI("TarFile::PackDir, pack task aborded in file");
            ClearDirtyData();
            return false;
        }
        if (m_callBack != nullptr) {
            m_callBack->OnTaskProgress(static_cast<unsigned long>(chunk));
        }
        remaining -= chunk;
    }
    return true;
}

bool TarFile::ReadLink(const char* path, char* buf, int len) {
    const auto length =
        static_cast<int>(readlinkat(m_dirFd, lastComponent(path), buf, static_cast<size_t>(len)));
    if (length >= len) {
        ALOGE("TarFile::PackDir, symlink size increased, name: %s, [%d, %d]", path, len, length);
        return false;
    }
    if (length == -1) {
        ALOGE("TarFile::PackDir, failed to readlink: %s, error: %s", path, ErrorText().c_str());
        return false;
    }
    buf[length] = '\0';
    return true;
}

// Returns `len`, less at the end of the file, or -1 when a read fails.
int TarFile::ReadAll(int fd, char* buf, int len) {
    if (len < 1) {
        return 0;
    }
    int done = 0;
    while (done < len) {
        const auto count = static_cast<int>(read(fd, buf + done, static_cast<size_t>(len - done)));
        if (count == 0) {
            ALOGE("TarFile::PackDir, failed to read data, size: %d, real: %d", len, done);
            return done;
        }
        if (count < 0) {
            ALOGE("TarFile::PackDir, failed to read data, size: %d, err: %s", len,
                  ErrorText().c_str());
            return -1;
        }
        done += count;
    }
    return done;
}

}  // namespace android::installd
