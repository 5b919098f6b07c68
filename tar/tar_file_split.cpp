// Packing into slices: when a slice is full, how it is closed and handed over, and how a file that
// did not fit goes on in the next one.
//
//   slice 0          slice 1             slice 2
//   | ... '8' part | '9' header, part | 'A' header, rest | next entries ...
//
// The arithmetic decides what earlier devices can read back and is kept as it is, odd cases
// included. Tested by tests/tar/tar_split_test.cpp.
#include <fcntl.h>
#include <log/log.h>
#include <selinux/android.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "base/error_text.h"
#include "base/numbers.h"
#include "base/paths.h"
#include "base/permissions.h"
#include "tar/tar_file.h"

namespace android::installd {

namespace {

constexpr int32_t kSmallestUsualSlice = 100;  // MiB
constexpr int kSliceSizeArgument = 4;
constexpr int kSeInfoArgument = 5;
constexpr long kUnit = kContentChunk;
constexpr long kBlock = kBlockSize;

// A slice size of 2048 MiB or more leaves the 32 bits that it is counted in.
long sliceBytes(int32_t mib) {
    return static_cast<int32_t>(static_cast<uint32_t>(mib) << 20);
}

long wholeBlocks(long size) {
    return size / kBlock * kBlock;
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): takes its texts by value, as it always has
bool TarFile::PackSplitDir(std::string srcDir, std::string tarPath, std::string* args,
                           unsigned int uid) {
    if (!CheckDir(srcDir.c_str())) {
        ALOGE("TarFile::PackSplitDir, failed check dir: %s\n", srcDir.c_str());
        m_rootPath[0] = '\0';
        return false;
    }
    m_basePath = std::move(tarPath);
    if (!PackSplitPre(args, uid)) {
        ALOGE("TarFile::PackSplitDir pre process error!");
        m_rootPath[0] = '\0';
        return false;
    }
    if (!CreateSplitFile()) {
        ALOGD("TarFile::PackSplitDir, fail to create new File\n");
        return false;
    }
    const bool isPacked = packSlices();
    if (!isPacked) {
        ClearDirtyData();
    }
    closeTar();
    m_rootPath[0] = '\0';
    if (!isPacked) {
        return false;
    }
    ALOGD("TarFile::PackSplitDir, [%s], finished", srcDir.c_str());
    return true;
}

bool TarFile::packSlices() {
    if (!packTree()) {
        ALOGD("TarFile::PackSplitDir, TraversalPackDir failed");
        return false;
    }
    if (!FillSplitTailBlocks(true)) {
        ALOGD("TarFile::PackSplitDir, FillSplitTailBlocks failed");
        return false;
    }
    // No slice is unfinished any more: what fails from here on costs none.
    m_curTarPath.clear();
    if (!CreateCheckFile()) {
        ALOGD("TarFile::PackSplitDir, CreateCheckFile failed");
        return false;
    }
    return true;
}

bool TarFile::PackSplitPre(std::string* args, unsigned int uid) {
    if (!m_isSplit) {
        return false;
    }
    for (size_t i = 0; i < kSplitArguments; ++i) {
        m_splitArgs[i] = args[i];
    }
    m_uid = uid;
    const auto mib = static_cast<int32_t>(parseNumber(m_splitArgs[kSliceSizeArgument].c_str()));
    if (mib < kSmallestUsualSlice) {
        ALOGD("TarFile::PackSplitDir, sliceSize need to be larger than 100, (%d given) \n", mib);
    }
    m_slice = sliceBytes(mib);
    cutTrailingSlash(m_basePath);
    return true;
}

bool TarFile::CreateSplitFile() {
    m_curTarPath = m_basePath + "." + UdtoString(static_cast<unsigned int>(m_number));
    closeTar();
    m_tarFp = openStream(m_curTarPath.c_str());
    if (m_tarFp == nullptr) {
        ALOGE("TarFile::CreateSplitFile, failed to open tar file: %s, error: %s",
              m_curTarPath.c_str(), ErrorText().c_str());
        m_rootPath[0] = '\0';
        return false;
    }
    return FlushCurSplitTarAttr();
}

// Looks at the size that the current slice has on disk by now.
bool TarFile::FlushCurSplitTarAttr() {
    if (m_tarFp != nullptr) {
        fflush(m_tarFp);
    }
    if (stat(m_curTarPath.c_str(), &m_tarStat) != 0) {
        const ErrorText error;
        closeTar();
        ALOGE("SplitTarFile::PackDir, failed to get stat of tar file: %s, error: %s\n",
              m_curTarPath.c_str(), error.c_str());
        m_rootPath[0] = '\0';
        return false;
    }
    return true;
}

// Writes to the current slice and looks at its size. Returns the bytes written, less than 1 on
// failure.
int TarFile::splitWriteOnce(const char* buf, int len) {
    const int count = writeOnce(buf, len);
    if (count < 1) {
        ALOGE("TarFile::PackSplitDir, failed to write data, size: %d, real: %d, error: %s", len,
              count, ErrorText().c_str());
        return count;
    }
    m_tarFileSize += count;
    if (!FlushCurSplitTarAttr()) {
        ALOGE("TarFile::PackSplitDir FlushCurSplitTarAttr failed!");
        return 0;
    }
    return count;
}

// Writes, and switches slices when the write has filled the current one: a slice exceeds its size
// by what was written last. Returns `len`, or 0 (or the short count) on failure and abort.
int TarFile::SplitWriteAll(const char* buf, int len, bool& sliceEnded) {
    if (!m_isSplit) {
        return WriteAll(buf, len);
    }
    if (len < 1) {
        return 0;
    }
    int written = 0;
    while (written < len) {
        const int count = splitWriteOnce(buf + written, len - written);
        if (count < 1) {
            return count;
        }
        written += count;
        if (isSliceFull() && !switchSlices(written, sliceEnded)) {
            return 0;
        }
    }
    return written;
}

bool TarFile::isSliceFull() const {
    return m_tarStat.st_size >= m_slice;
}

// Goes on to a slice that has room. With a slice size that no header fits into, each new slice is
// full with its header: a client that asked for that gets one slice per continuation, without end.
bool TarFile::switchSlices(int written, bool& sliceEnded) {
    if (!switchSlice(written, sliceEnded)) {
        return false;
    }
    while (m_tarStat.st_size > 0 && isSliceFull()) {
        bool isHeaderEnd = false;
        if (!switchSlice(static_cast<int>(sizeof(tar_header)), isHeaderEnd)) {
            ALOGE("TarFile::PackSplitDir head blocks failed!\n");
            return false;
        }
    }
    return true;
}

// Closes the full slice, waits until packing may go on, and opens the next one. `written` are the
// bytes of the write that filled it: fewer than a chunk are a file's last, which is padded here, in
// the slice that it belongs to.
bool TarFile::switchSlice(int written, bool& sliceEnded) {
    if (written < static_cast<int>(kContentChunk)) {
        ALOGD("TarFile::PackSplitDir CompleteBlock count %d", written);
        sliceEnded = true;
        CompleteBlock(written);
    }
    if (!FillSplitTailBlocks(false)) {
        ALOGE("TarFile::PackSplitDir fill tail failed!");
        return false;
    }
    if (m_callBack != nullptr) {
        m_callBack->WaitTaskLocked();
        if (m_callBack->IsAborted()) {
            ALOGI("TarFile::PackSplitDir, pack task aborded in file");
            return false;
        }
    }
    if (!CreateSplitFile()) {
        ALOGE("TarFile::PackSplitDir CreateSplitFile failed! \n");
        return false;
    }
    if (!FillSplitHeaderBlocks()) {
        ALOGE("TarFile::PackSplitDir head blocks failed!\n");
        return false;
    }
    return true;
}

bool TarFile::FillSplitTailBlocks(bool isLast) {
    // Judged by the size last looked at, which knows nothing of entries without content since.
    if (m_tarStat.st_size == 0 && !m_splitSizes.isEmpty() && m_tarFp != nullptr) {
        return removeEmptySlice();
    }
    if (!writeEndBlocks()) {
        ALOGE("TarFile::PackDir, failed to write endup block\n");
        return false;
    }
    closeTar();
    if (!FlushCurSplitTarAttr()) {
        ALOGE("TarFile::FillSplitTailBlocks FlushCurSplitTarAttr failed\n");
        return false;
    }
    m_splitSizes.add(m_tarStat.st_size);
    ++m_number;
    ALOGD("TarFile::FillSplitTailBlocks tar num is %zu", m_splitSizes.size());
    ALOGD("TarFile::FillSplitTailBlocks split tar [name, size, m_slice] = [%s, %jd, %jd]",
          m_curTarPath.c_str(), static_cast<intmax_t>(m_tarStat.st_size),
          static_cast<intmax_t>(m_slice));
    ALOGD(
        "TarFile::FillSplitTailBlocks file [name, m_fileRemainSize, m_cursorFileSize] = "
        "[%s, %jd, %jd]\n",
        m_curFile.c_str(), static_cast<intmax_t>(m_fileRemainSize),
        static_cast<intmax_t>(m_cursorFileSize));
    if (!FixAttrForSeLinux(m_curTarPath)) {
        ALOGE("TarFile::FillSplitTailBlocks:restorecon_backup_dir %s error!", m_curTarPath.c_str());
        return false;
    }
    const std::string sliceInfo = isLast ? m_curTarPath + "|" + "end" : m_curTarPath;
    if (m_callBack != nullptr) {
        m_callBack->OnPackagedOneSplitTar(sliceInfo.c_str());
    }
    return true;
}

bool TarFile::removeEmptySlice() {
    closeTar();
    ALOGD("TarFile::FillSplitTailBlocks remove the Invalid file: %s", m_curTarPath.c_str());
    if (remove(m_curTarPath.c_str()) != 0) {
        ALOGE("TarFile::FillSplitTailBlocks, failed to remove file: %s, error: %s",
              m_curTarPath.c_str(), ErrorText().c_str());
    }
    m_callBack->OnPackagedOneSplitTar("end");
    return true;
}

// A new slice begins with the header of the file that the last one cut, if it cut one.
bool TarFile::FillSplitHeaderBlocks() {
    ALOGD("TarFile::FillSplitHeaderBlocks m_curFile:%s, m_tarFileSize:%jd, m_fileRemainSize:%jd",
          m_curFile.c_str(), static_cast<intmax_t>(m_tarFileSize),
          static_cast<intmax_t>(m_fileRemainSize));
    if (m_fileRemainSize == 0) {
        ALOGD("TarFile::FillSplitHeaderBlocks Remain Size is 0, no need fill header");
        return true;
    }
    const std::string path = m_curFile;
    struct stat status = {};
    if (fstatat(m_dirFd, lastComponent(path.c_str()), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        ALOGE("TarFile::FillSplitHeaderBlocks lstat %s error!", path.c_str());
        return false;
    }
    // An application has the whole pause to put something else there. No other entry has content:
    // what is left of the file would be read as headers.
    if (!S_ISREG(status.st_mode)) {
        ALOGE("TarFile::FillSplitHeaderBlocks %s is no file any more!", path.c_str());
        return false;
    }
    return AddFile(path.c_str(), &status, true);
}

void TarFile::FlushTarSizeAndFlag(bool isContinuation, long fileSize, long& hdrSize,
                                  char& typeFlag) {
    if (!m_isSplit) {
        return;
    }
    if (isContinuation) {
        const bool goesOn = m_fileRemainSize > m_slice;
        typeFlag = goesOn ? TYPE_MIDDLE_PART : TYPE_LAST_PART;
        hdrSize = goesOn ? m_slice : m_fileRemainSize;
    } else if (!IsFirstSplitPKT(fileSize)) {
        return;
    } else if (m_fileRemainSize != 0 || m_cursorFileSize != 0) {
        ALOGE("TarFile::PackSplitDir dirty data(read, remain) [%jd, %jd]",
              static_cast<intmax_t>(m_fileRemainSize), static_cast<intmax_t>(m_cursorFileSize));
    } else {
        typeFlag = TYPE_FIRST_PART;
        hdrSize = GetFirstSizeOfSplitFile(fileSize);
    }
    ALOGD("TarFile::PackSplitDir name %s , hdrSize[%ld], typeFlag[%c]", m_curFile.c_str(), hdrSize,
          typeFlag);
}

// What the current file's name may take of a slice. Counted over the full path.
long TarFile::nameAllowance() const {
    const auto length = static_cast<int32_t>(m_curFile.size());
    constexpr auto kNameSize = static_cast<int32_t>(sizeof(tar_header::name));
    return length < kNameSize ? kBlock : wholeBlocks(length) + 2 * kBlock;
}

// The room left in the current slice, in whole units. A room of nothing, or of one block, counts as
// a whole unit, as does the part of a unit that exceeds a block.
long TarFile::GetSplitPKTRemainSize() {
    const auto splitSize = static_cast<int>(m_splitSizes.size());
    if (m_number != splitSize) {
        ALOGE("TarFile::getSplitPKTRemainSize m_splitSize:%d, m_number:%d", splitSize, m_number);
    }
    long finished = 0;
    for (const long size : m_splitSizes) {
        finished += size;
    }
    const long room = finished - m_tarFileSize + m_slice;
    const bool addsUnit = room == 0 || room == kBlock || room % kUnit > kBlock;
    return (room / kUnit + (addsUnit ? 1 : 0)) * kUnit;
}

// Whether the file will not fit into the current slice.
bool TarFile::IsFirstSplitPKT(long fileSize) {
    const long need = GetSizeOfFile(fileSize);
    const long room = GetSplitPKTRemainSize();
    if (need <= room) {
        return false;
    }
    ALOGD("TarFile:: File need space:%jd, splite pkt size:%jd", static_cast<intmax_t>(need),
          static_cast<intmax_t>(room));
    return true;
}

// How much of the file its first part holds.
long TarFile::GetFirstSizeOfSplitFile(long fileSize) {
    const long need = wholeBlocks(fileSize) + nameAllowance();
    const long room = GetSplitPKTRemainSize();
    return need <= room ? fileSize : room;
}

// What the file takes of a slice, the slice's end included.
long TarFile::GetSizeOfFile(long fileSize) {
    return wholeBlocks(fileSize) + nameAllowance() + static_cast<long>(kEndBlocksSize);
}

void TarFile::ClearDirtyData() {
    if (!m_isSplit) {
        return;
    }
    ALOGD(" TarFile::clearDirtyData Clear the dirty data\n");
    if (m_curTarPath.empty()) {
        return;
    }
    if (access(m_curTarPath.c_str(), F_OK) != 0) {
        ALOGE("TarFile::clearDirtyData, failed to access file: %s, error: %s\n",
              m_curTarPath.c_str(), ErrorText().c_str());
        return;
    }
    if (remove(m_curTarPath.c_str()) != 0) {
        ALOGE("TarFile::clearDirtyData, failed to remove file: %s, error: %s\n",
              m_curTarPath.c_str(), ErrorText().c_str());
    }
    closeTar();
    m_rootPath[0] = '\0';
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): takes its texts by value, as it always has
bool TarFile::FixAttrForSeLinux(std::string path) {
    if (fixup_permissions_dir_file(path.c_str(), m_uid, m_uid, kArchiveMode) != 0) {
        ALOGE("TarFile::FixAttrForSeLinux failed to change attr_file(%s) owner, error=%s",
              path.c_str(), ErrorText().c_str());
        return false;
    }
    if (selinux_android_restorecon_pkgdir(path.c_str(), m_splitArgs[kSeInfoArgument].c_str(), m_uid,
                                          0) < 0) {
        ALOGE("TarFile::FixAttrForSeLinux failed, restorecon_backup_dir %s error!", path.c_str());
        return false;
    }
    return true;
}

}  // namespace android::installd
