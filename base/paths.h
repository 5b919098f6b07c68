// Questions about a path's text and existence that the handlers and primitives share.
#pragma once

#include <string.h>
#include <unistd.h>

#include <string>

namespace android::installd {

inline bool isEmptyPath(const char* path) {
    return path == nullptr || path[0] == '\0';
}

inline bool exists(const char* path) {
    return access(path, F_OK) == 0;
}

inline bool exists(const std::string& path) {
    return exists(path.c_str());
}

inline bool isDotName(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// The text after the last '/', all of it without one.
inline const char* lastComponent(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

// Takes one '/' off the end where there is one.
inline void cutTrailingSlash(std::string& path) {
    if (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
}

// `directory` followed by the last component of `path`, the slash before it included: where a
// backup of `path` lies in `directory`. Empty when `path` has no slash.
inline std::string pathInside(const std::string& directory, const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : directory + path.substr(slash);
}

}  // namespace android::installd
