// Restoring a split archive: the check file says which slices there are; all are checked before the
// first is unpacked, and each is removed when it has been.
// Tested by tests/tar/tar_split_test.cpp.
#include <log/log.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/error_text.h"
#include "base/numbers.h"
#include "bounded/bounded.h"
#include "tar/untar_file.h"

namespace android::installd {

namespace {

constexpr size_t kLineSize = 2048;

// The text before the last '/', all of it where there is none.
std::string parentOf(const char* path) {
    const std::string text = path;
    return text.substr(0, text.rfind('/'));
}

}  // namespace

int UnTarFile::UnSplitPack(const char* destDir, uint32_t uid) {
    if (destDir == nullptr) {
        return -2;
    }
    m_uid = uid;
    m_isSplit = true;
    Vector<std::string> slices;
    int count = 0;
    const std::string extractionDir = parentOf(destDir);
    if (!HandleCheckFile(m_tarPath.c_str(), slices, count)) {
        ALOGE("UnTarFile::UnSplitPack, handleCheckFile %s, num %d failed!", m_tarPath.c_str(),
              count);
        return -1;
    }
    for (const std::string& slice : slices) {
        if (const int result = unpackSlice(slice.c_str(), extractionDir.c_str()); result != 0) {
            return result;
        }
        if (remove(slice.c_str()) != 0) {
            ALOGD("delete failed, split tar path %s", slice.c_str());
        }
    }
    ALOGD("UnTarFile::UnSplitPack, untar split finish!");
    return 0;
}

// A slice that cannot be opened is passed over: it was there when the set was checked.
int UnTarFile::unpackSlice(const char* slicePath, const char* destDir) {
    openStream(slicePath);
    if (m_tarFp == nullptr) {
        return 0;
    }
    const int result = ParseTarFile(destDir, PARSE_UNPACK);
    if (result != 0) {
        ALOGE("UnTarFile::UnSplitPack, untar split %s failed!", slicePath);
    } else {
        ALOGD("UnTarFile::UnSplitPack, untar split %s suc!", slicePath);
    }
    m_tarFp.reset();
    return result;
}

bool UnTarFile::HandleCheckFile(const char* checkFilePath, Vector<std::string>& slices,
                                int& count) {
    if (checkFilePath == nullptr) {
        return false;
    }
    const UniqueFile file(fopen(checkFilePath, "rbe"));
    if (file == nullptr) {
        ALOGE("open check file %s error ,error:%s", checkFilePath, ErrorText().c_str());
        return false;
    }
    const std::string checkDir = parentOf(checkFilePath);
    char line[kLineSize] = {};
    while (fgets(line, sizeof(line) - 1, file.get()) != nullptr) {
        if (!CheckSliceTar(line, checkDir.c_str(), slices)) {
            ALOGE("handleCheckFile:%s  tarBaseName:%s failed", line, checkFilePath);
            return false;
        }
        ++count;
        memset_s(line, sizeof(line), 0, sizeof(line));
    }
    if (ferror(file.get()) != 0) {
        ALOGE("read check file %s error ,error:%s", checkFilePath, ErrorText().c_str());
        return false;
    }
    return true;
}

bool UnTarFile::CheckSliceTar(const char* line, const char* checkDir, Vector<std::string>& slices) {
    if (line == nullptr) {
        ALOGE("tarInfo is NULL");
        return false;
    }
    // A line without a '|' is both: its name and its size.
    const char* bar = strrchr(line, '|');
    const std::string name = bar == nullptr ? line : std::string(line, bar);
    const char* sizeText = bar == nullptr ? line : bar + 1;
    const std::string path = std::string(checkDir) + "/" + name;
    if (sizeText[0] == '\0') {
        ALOGE("subSize is empty");
        return false;
    }
    const long size = parseNumber(sizeText);
    if (access(path.c_str(), F_OK) != 0) {
        ALOGE("slice tar file %s don't exist, error:%s", path.c_str(), ErrorText().c_str());
        return false;
    }
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        ALOGE("failed to get stat of tar file: %s, error: %s", path.c_str(), ErrorText().c_str());
        return false;
    }
    if (status.st_size != size) {
        ALOGE("the size of the tar file %s is not equal to the size in the check file\n",
              path.c_str());
        ALOGE("size is %ld, st_size is %ld\n", size, static_cast<long>(status.st_size));
        return false;
    }
    slices.add(path);
    return true;
}

}  // namespace android::installd
