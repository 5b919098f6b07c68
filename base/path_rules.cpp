// Tested by tests/unit/tasks.md.
#define LOG_TAG "BackupSessionManager"

#include "base/path_rules.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/paths.h"

namespace android::installd {

namespace {

enum class Match { kPrefix, kWhole };

struct Area {
    Match match;
    const char* text;
};

// In the order of their tests. The fourth row is reached by no path, since the first admits what it
// names: it stands for a grant of its own, should the first be narrowed.
constexpr Area kAllowedAreas[] = {
    {Match::kPrefix, "/data/data"},
    {Match::kPrefix, "/data/misc/wifi"},
    {Match::kPrefix, "/data/user"},
    {Match::kWhole, "/data/data/android/shortcut_clone"},
    {Match::kPrefix, "/storage/emulated"},
    {Match::kPrefix, "/mnt/androidwritable"},
    {Match::kPrefix, "/data/misc/apexdata/com.android.wifi"},
};

constexpr const char* kSharedStorage[] = {"/storage/emulated", "/mnt/androidwritable"};

bool beginsWith(const char* path, const char* prefix) {
    return strncmp(path, prefix, strlen(prefix)) == 0;
}

// Resolves `path` as realpath does, which looks at every component by itself: here the kernel walks
// it once and tells where it came to. Where it cannot (no descriptor is left, no /proc is mounted),
// realpath does it. False for what is not there.
bool resolve(const char* path, char (&realPath)[PATH_MAX]) {
    const UniqueFd fd(open(path, O_PATH | O_CLOEXEC));
    if (!fd.isOpen() && errno == ENOENT) {
        return false;
    }
    char link[kDescriptorLinkSize] = {};
    const ssize_t length = readlink(descriptorLink(fd, link), realPath, sizeof(realPath));
    if (length < 0 || static_cast<size_t>(length) >= sizeof(realPath)) {
        return realpath(path, realPath) != nullptr;
    }
    realPath[length] = '\0';
    return true;
}

bool matches(const Area& area, const char* path) {
    return area.match == Match::kWhole ? strcmp(path, area.text) == 0 : beginsWith(path, area.text);
}

}  // namespace

bool is_allow_access(const char* path) {
    if (isEmptyPath(path)) {
        ALOGE("is_allow_access, path is NULL or length of path is 0");
        return false;
    }
    if (strstr(path, "../") != nullptr) {
        ALOGE("is_allow_access, illegalpath:%s.", path);
        return false;
    }
    for (const Area& area : kAllowedAreas) {
        if (matches(area, path)) {
            return true;
        }
    }
    ALOGE("is_allow_access, %s don`t match dataPath.", path);
    return false;
}

bool isStoragePath(const char* path) {
    for (const char* storage : kSharedStorage) {
        if (beginsWith(path, storage)) {
            ALOGD("isStoragePath:, %s", path);
            return true;
        }
    }
    return false;
}

int CheckFilePath(const char* path, const char* realOrgPath) {
    char realPath[PATH_MAX] = {};
    if (realOrgPath == nullptr || !resolve(path, realPath)) {
        return 0;
    }
    if (beginsWith(realPath, realOrgPath)) {
        return 0;
    }
    ALOGE("Failed to checkFilePath, path: %s, realPath: %s, realOrgPath: %s.", path, realPath,
          realOrgPath);
    return -1;
}

int isDir(const char* path) {
    if (isEmptyPath(path)) {
        ALOGE("Failed to isDir, path is NULL or length of path is 0");
        return -1;
    }
    return isDir(Place(path));
}

int isDir(const Place& place) {
    struct stat status = {};
    return isDir(place, status);
}

int isDir(const Place& place, struct stat& status) {
    if (fstatat(place.dirFd(), place.name(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        ALOGE("Failed to isDir, lstat(%s), error=%s", place.path(), ErrorText().c_str());
        return -1;
    }
    if (S_ISLNK(status.st_mode)) {
        ALOGE("Failed to isDir S_ISLNK:%s", place.path());
        return -1;
    }
    return S_ISDIR(status.st_mode) ? 1 : 0;
}

int filterDir(const char* dirName) {
    if (isEmptyPath(dirName)) {
        ALOGE("filterDir, dirName is NULL or length of dirName is 0");
        return -1;
    }
    return strcmp(dirName, "lib") == 0 ? 1 : 0;
}

int filterFile(const char* filePath) {
    if (isEmptyPath(filePath)) {
        ALOGE("filterFile, filePath is NULL or length of filePath is 0");
        return -1;
    }
    struct stat status = {};
    if (lstat(filePath, &status) != 0) {
        ALOGE("Failed to filterFile, lstat(%s), error=%s", filePath, ErrorText().c_str());
        return -1;
    }
    return filterFile(filePath, status);
}

int filterFile(const char* filePath, const struct stat& status) {
    if (S_ISSOCK(status.st_mode)) {
        ALOGE("Failed to filterFile S_ISSOCK:%s", filePath);
        return -1;
    }
    if (S_ISLNK(status.st_mode)) {
        ALOGE("Failed to filterFile S_ISLNK:%s", filePath);
        return -1;
    }
    if (S_ISFIFO(status.st_mode)) {
        ALOGE("Failed to filterFile S_ISFIFO:%s", filePath);
        return -1;
    }
    const char* name = strrchr(filePath, '/');
    const char* extension = name == nullptr ? nullptr : strrchr(name, '.');
    return extension != nullptr && strcmp(extension, ".dex") == 0 ? -1 : 0;
}

std::string GetAppNameByFullPath(const char* path) {
    if (path == nullptr) {
        ALOGE("GetAppNameByFullPath failed,path is null");
        return "";
    }
    const char* slash = strrchr(path, '/');
    std::string name = slash == nullptr ? "" : slash + 1;
    ALOGD("GetAppNameByFullPath,appName:%s", name.c_str());
    return name;
}

}  // namespace android::installd
