// Tested by tests/unit/archives.md.
#include "tar/slices.h"

#include <log/log.h>
#include <selinux/android.h>
#include <stdio.h>

#include <utility>

#include "base/error_text.h"
#include "base/numbers.h"
#include "base/paths.h"
#include "base/permissions.h"
#include "tar/check_file.h"
#include "tar/slice_arithmetic.h"

namespace android::installd {

namespace {

constexpr int32_t kSmallestUsualSlice = 100;  // MiB
constexpr int kSliceSizeArgument = 4;
constexpr int kSeInfoArgument = 5;

}  // namespace

SliceOptions PackSplitPre(std::string tarPath, const std::string* args, unsigned int uid) {
    const auto mib = static_cast<int32_t>(parseNumber(args[kSliceSizeArgument].c_str()));
    if (mib < kSmallestUsualSlice) {
        ALOGD("TarFile::PackSplitDir, sliceSize need to be larger than 100, (%d given) \n", mib);
    }
    cutTrailingSlash(tarPath);
    return {std::move(tarPath), sliceBytes(mib), args[kSeInfoArgument], uid};
}

Slices::Slices(SliceOptions options, TarStream& stream, TarCallBack& callBack)
    : m_options(std::move(options)), m_stream(stream), m_callBack(callBack) {}

bool Slices::CreateSplitFile() {
    m_curTarPath = m_options.basePath + "." + UdtoString(static_cast<unsigned int>(count()));
    if (!m_stream.open(m_curTarPath.c_str())) {
        ALOGE("TarFile::CreateSplitFile, failed to open tar file: %s, error: %s",
              m_curTarPath.c_str(), ErrorText().c_str());
        return false;
    }
    m_isUnfinished = true;
    m_sizeSeen = 0;
    return FlushCurSplitTarAttr();
}

// Looks at the slice on disk. Its stream holds nothing back when this is asked.
bool Slices::FlushCurSplitTarAttr() {
    if (!m_stream.look(m_curTarPath.c_str())) {
        const ErrorText error;
        m_stream.close();
        ALOGE("SplitTarFile::PackDir, failed to get stat of tar file: %s, error: %s\n",
              m_curTarPath.c_str(), error.c_str());
        return false;
    }
    return true;
}

int Slices::SplitWriteAll(const char* buf, int len) {
    if (len < 1) {
        return 0;
    }
    if (!m_stream.write(buf, len)) {
        ALOGE("TarFile::PackSplitDir, failed to write data, size: %d, real: %d, error: %s", len, 0,
              ErrorText().c_str());
        return 0;
    }
    m_sizeSeen = m_stream.fileBytes();
    return len;
}

bool Slices::close() {
    if (!m_stream.writeEndBlocks()) {
        ALOGE("TarFile::PackDir, failed to write endup block\n");
        return false;
    }
    m_stream.close();
    if (!FlushCurSplitTarAttr()) {
        ALOGE("TarFile::FillSplitTailBlocks FlushCurSplitTarAttr failed\n");
        return false;
    }
    const long size = m_stream.status().st_size;
    m_splitSizes.add(size);
    ALOGD("TarFile::FillSplitTailBlocks tar num is %zu", count());
    ALOGD("TarFile::FillSplitTailBlocks split tar [name, size, m_slice] = [%s, %jd, %jd]",
          m_curTarPath.c_str(), static_cast<intmax_t>(size), static_cast<intmax_t>(m_options.size));
    return true;
}

bool Slices::handOver(bool isLast) {
    if (!FixAttrForSeLinux(m_curTarPath)) {
        ALOGE("TarFile::FillSplitTailBlocks:restorecon_backup_dir %s error!", m_curTarPath.c_str());
        return false;
    }
    const std::string sliceInfo = isLast ? m_curTarPath + "|" + "end" : m_curTarPath;
    m_isUnfinished = false;
    m_callBack.OnPackagedOneSplitTar(sliceInfo.c_str());
    return true;
}

void Slices::removeEmpty() {
    m_stream.close();
    ALOGD("TarFile::FillSplitTailBlocks remove the Invalid file: %s", m_curTarPath.c_str());
    if (remove(m_curTarPath.c_str()) != 0) {
        ALOGE("TarFile::FillSplitTailBlocks, failed to remove file: %s, error: %s",
              m_curTarPath.c_str(), ErrorText().c_str());
    }
    m_isUnfinished = false;
    m_callBack.OnPackagedOneSplitTar("end");
}

bool Slices::CreateCheckFile() {
    const std::string path = m_options.basePath + ".txt";
    return writeCheckFile(path, m_options.basePath, m_splitSizes) && FixAttrForSeLinux(path);
}

void Slices::ClearDirtyData() {
    ALOGD(" TarFile::clearDirtyData Clear the dirty data\n");
    if (!m_isUnfinished) {
        return;
    }
    if (!exists(m_curTarPath)) {
        ALOGE("TarFile::clearDirtyData, failed to access file: %s, error: %s\n",
              m_curTarPath.c_str(), ErrorText().c_str());
        return;
    }
    if (remove(m_curTarPath.c_str()) != 0) {
        ALOGE("TarFile::clearDirtyData, failed to remove file: %s, error: %s\n",
              m_curTarPath.c_str(), ErrorText().c_str());
    }
    m_stream.close();
}

bool Slices::FixAttrForSeLinux(const std::string& path) {
    if (fixup_permissions_dir_file(path.c_str(), m_options.uid, m_options.uid, kArchiveMode) != 0) {
        ALOGE("TarFile::FixAttrForSeLinux failed to change attr_file(%s) owner, error=%s",
              path.c_str(), ErrorText().c_str());
        return false;
    }
    if (selinux_android_restorecon_pkgdir(path.c_str(), m_options.seInfo.c_str(), m_options.uid,
                                          0) < 0) {
        ALOGE("TarFile::FixAttrForSeLinux failed, restorecon_backup_dir %s error!", path.c_str());
        return false;
    }
    return true;
}

}  // namespace android::installd
