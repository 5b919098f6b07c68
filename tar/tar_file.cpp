// Tested by tests/unit/archives.md and, against other programs, tests/client/peltexctl.md.
#include "tar/tar_file.h"

#include <fcntl.h>
#include <log/log.h>
#include <stdio.h>
#include <string.h>

#include <utility>

#include "base/error_text.h"
#include "tar/slice_writer.h"
#include "tar/slices.h"
#include "tar/whole_writer.h"

namespace android::installd {

namespace {

// Patches that an application downloads for itself; they belong to the installed version.
constexpr char kTinkerDir[] = "/com.tencent.mm/tinker";
constexpr char kDexSuffix[] = ".dex";

// What DoPack finds.
constexpr int kPackFailed = -1;
constexpr int kPackedOrLeftOut = 0;
constexpr int kPackedLink = 1;
constexpr int kPackedDirectory = 2;

bool endsWith(const char* text, const char* suffix) {
    const size_t length = strlen(text);
    const size_t suffixLength = strlen(suffix);
    return length >= suffixLength && strcmp(text + length - suffixLength, suffix) == 0;
}

}  // namespace

TarFile::TarFile(TarCallBack* callBack)
    : m_callBack(callBack == nullptr ? m_noCallBack : *callBack) {}

TarFile::TarFile(TarCallBack* callBack, unsigned long /*workerIndex*/) : TarFile(callBack) {
    m_isSplit = true;
}

// Here, so that a program with type information takes the table of this library, which has none.
TarFile::~TarFile() = default;

bool TarFile::CheckDir(const char* dir) {
    if (dir == nullptr || dir[0] == '\0') {
        ALOGE("TarFile::PackDir, invalid input dir name");
        return false;
    }
    m_rootPath = dir;
    if (m_rootPath.size() > kTarPathSize - 1) {
        ALOGE("TarFile::PackDir, input dir name too long: %s", dir);
        return false;
    }
    if (m_rootPath.back() == '/') {
        m_rootPath.pop_back();
        ALOGE("TarFile::PackDir, clear end slash of path: %s", m_rootPath.c_str());
    }
    struct stat status = {};
    if (stat(m_rootPath.c_str(), &status) != 0) {
        ALOGE("TarFile::PackDir, failed to get stat of src dir: %s, error: %s", m_rootPath.c_str(),
              ErrorText().c_str());
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        ALOGE("TarFile::PackDir, src dir is not directory: %s", m_rootPath.c_str());
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
        return false;
    }
    ALOGD("TarFile::PackDir, [%s], begin...", m_rootPath.c_str());
    if (!openTar(tarPath)) {
        return false;
    }
    WholeWriter writer(m_stream, m_rootPath, m_callBack);
    bool result = packTree(writer);
    if (result && !m_stream.writeEndBlocks()) {
        ALOGE("TarFile::PackDir, failed to write endup block");
        result = false;
    }
    m_stream.close();
    if (!result && remove(tarPath) != 0) {
        ALOGE("TarFile::PackDir, failed to remove file: %s, error: %s", tarPath,
              ErrorText().c_str());
    }
    ALOGD("TarFile::PackDir, [%s], finished, result: %d", srcDir, result);
    return result;
}

bool TarFile::openTar(const char* tarPath) {
    if (!m_stream.open(tarPath)) {
        ALOGE("TarFile::PackDir, failed to open tar file: %s, error: %s", tarPath,
              ErrorText().c_str());
        return false;
    }
    if (!m_stream.look(tarPath)) {
        const ErrorText error;
        m_stream.close();
        ALOGE("TarFile::PackDir, failed to get stat of tar file: %s, error: %s", tarPath,
              error.c_str());
        return false;
    }
    return true;
}

bool TarFile::PackSplitDir(const std::string& srcDir, std::string tarPath, const std::string* args,
                           unsigned int uid) {
    if (!CheckDir(srcDir.c_str())) {
        ALOGE("TarFile::PackSplitDir, failed check dir: %s\n", srcDir.c_str());
        return false;
    }
    if (!m_isSplit) {
        ALOGE("TarFile::PackSplitDir pre process error!");
        return false;
    }
    Slices slices(PackSplitPre(std::move(tarPath), args, uid), m_stream, m_callBack);
    if (!slices.CreateSplitFile()) {
        ALOGD("TarFile::PackSplitDir, fail to create new File\n");
        return false;
    }
    SliceWriter writer(slices, m_stream, m_rootPath, m_callBack);
    if (!packTree(writer)) {
        ALOGD("TarFile::PackSplitDir, TraversalPackDir failed");
    } else if (!writer.FillSplitTailBlocks(true)) {
        ALOGD("TarFile::PackSplitDir, FillSplitTailBlocks failed");
    } else if (!slices.CreateCheckFile()) {
        ALOGD("TarFile::PackSplitDir, CreateCheckFile failed");
    } else {
        ALOGD("TarFile::PackSplitDir, [%s], finished", srcDir.c_str());
        return true;
    }
    slices.ClearDirtyData();
    m_stream.close();
    return false;
}

bool TarFile::packTree(EntryWriter& writer) {
    PathBuffer path(m_rootPath.c_str());
    return TraversalPackDir(writer, Place(path.c_str()), path);
}

// Packs everything under `directory`, whose path is in `path`, in the order of the file system.
bool TarFile::TraversalPackDir(EntryWriter& writer, const Place& directory, PathBuffer& path) {
    WalkLevel level(directory, path, PathBuffer::Fit::kWhole);
    if (!level.isOpen()) {
        ALOGE("TarFile::PackDir, failed to open dir: %s, err: %s", path.c_str(),
              ErrorText().c_str());
        return false;
    }
    return packEntries(writer, level, path);
}

bool TarFile::packEntries(EntryWriter& writer, WalkLevel& level, PathBuffer& path) {
    WalkLevel::Found found = level.next();
    for (; found == WalkLevel::Found::kEntry; found = level.next()) {
        const int packed = DoPack(writer, level.entry());
        // What fails leaves the path as it is: every level tells the deepest one.
        if (packed == kPackFailed ||
            (packed == kPackedDirectory && !TraversalPackDir(writer, level.entry(), path))) {
            ALOGE("TarFile::PackDir, failed when pack: %s, result: %d", path.c_str(), kPackFailed);
            return false;
        }
        if (m_callBack.IsAborted()) {
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

int TarFile::DoPack(EntryWriter& writer, const Place& entry) {
    const char* path = entry.path();
    struct stat status = {};
    if (fstatat(entry.dirFd(), entry.name(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        ALOGE("TarFile::PackDir, failed to get stat of file: %s, error: %s", path,
              ErrorText().c_str());
        return kPackFailed;
    }
    if (Filter(path, &status)) {
        ALOGI("TarFile::PackDir, filter file: %s", path);
        return kPackedOrLeftOut;
    }
    writer.Begin(entry);
    switch (status.st_mode & S_IFMT) {
        case S_IFDIR:
            return writer.AddDirectory(entry, status) ? kPackedDirectory : kPackFailed;
        case S_IFLNK:
            return writer.AddLink(entry, status) ? kPackedLink : kPackFailed;
        case S_IFREG:
            return writer.AddFile(entry, status) ? kPackedOrLeftOut : kPackFailed;
        default:
            ALOGI("TarFile::PackDir, skip not supported file: %s, mode: %o", path,
                  status.st_mode & S_IFMT);
            return kPackedOrLeftOut;
    }
}

bool TarFile::Filter(const char* path, const struct stat* st) {
    if (!S_ISDIR(st->st_mode) && st->st_nlink >= 2) {
        ALOGI("TarFile::PackDir, ignore hard link file");
        return true;
    }
    if (m_stream.isItself(*st)) {
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

}  // namespace android::installd
