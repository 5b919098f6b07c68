// Tested by tests/unit/archives.md.
#include "tar/check_file.h"

#include <log/log.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/numbers.h"
#include "bounded/bounded.h"

namespace android::installd {

namespace {

constexpr size_t kLineSize = 2048;

}  // namespace

std::string UdtoString(unsigned int value) {
    return std::to_string(value);
}

std::string HandleSplitInfo(std::string basePath, unsigned long long size, unsigned int index) {
    if (size == 0) {
        ALOGE("tar size is 0");
        return "";
    }
    basePath.erase(0, basePath.rfind('/') + 1);
    return basePath + "." + UdtoString(index) + "|" + std::to_string(size) + "\n";
}

bool writeCheckFile(const std::string& path, const std::string& basePath,
                    const Vector<long>& sizes) {
    const UniqueFile file(fopen(path.c_str(), "wb+e"));
    if (file == nullptr) {
        ALOGE("TarFile::createCheckFile: open splitted tar info file: %s, error: %s", path.c_str(),
              ErrorText().c_str());
        return false;
    }
    for (size_t i = 0; i < sizes.size(); ++i) {
        const std::string line = HandleSplitInfo(
            basePath, static_cast<unsigned long long>(sizes[i]), static_cast<unsigned int>(i));
        // Each line is brought to the file system: one that stays in a buffer is not written.
        if (fwrite(line.data(), 1, line.size(), file.get()) < line.size() ||
            fflush(file.get()) != 0) {
            ALOGE("TarFile::createCheckFile:write split tar info error ,error: %s",
                  ErrorText().c_str());
            return false;
        }
    }
    return true;
}

bool HandleCheckFile(const char* checkFilePath, Vector<std::string>& slices, int& count) {
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

bool CheckSliceTar(const char* line, const char* checkDir, Vector<std::string>& slices) {
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

std::string parentOf(const char* path) {
    const std::string text = path;
    return text.substr(0, text.rfind('/'));
}

}  // namespace android::installd
