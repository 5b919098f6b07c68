// The check file: a text line per slice, from which a restore learns the slices, their order and
// their sizes.
// Tested by tests/tar/tar_split_test.cpp.
#include <log/log.h>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "tar/tar_file.h"

namespace android::installd {

std::string UdtoString(unsigned int value) {
    return std::to_string(value);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): takes its texts by value, as it always has
std::string HandleSplitInfo(std::string basePath, unsigned long long size, unsigned int index) {
    if (size == 0) {
        ALOGE("tar size is 0");
        return "";
    }
    const std::string name = basePath.substr(basePath.rfind('/') + 1);
    return name + "." + UdtoString(index) + "|" + std::to_string(size) + "\n";
}

bool TarFile::CreateCheckFile() {
    const std::string path = m_basePath + ".txt";
    UniqueFile file(fopen(path.c_str(), "wb+e"));
    if (file == nullptr) {
        ALOGE("TarFile::createCheckFile: open splitted tar info file: %s, error: %s", path.c_str(),
              ErrorText().c_str());
        return false;
    }
    for (size_t i = 0; i < static_cast<size_t>(m_number); ++i) {
        const std::string line =
            HandleSplitInfo(m_basePath, static_cast<unsigned long long>(m_splitSizes[i]),
                            static_cast<unsigned int>(i));
        // Each line is brought to the file system: one that stays in a buffer is not written.
        if (fwrite(line.data(), 1, line.size(), file.get()) < line.size() ||
            fflush(file.get()) != 0) {
            ALOGE("TarFile::createCheckFile:write split tar info error ,error: %s",
                  ErrorText().c_str());
            return false;
        }
    }
    file.reset();
    return FixAttrForSeLinux(path);
}

}  // namespace android::installd
