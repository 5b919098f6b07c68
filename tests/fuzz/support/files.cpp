#include "tests/fuzz/support/files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "tests/fuzz/support/jail.h"

namespace peltex_fuzz {
namespace {

std::atomic<int> gLinksMade{0};

[[noreturn]] void failOn(const std::string& path) {
    fail("the target's own: %s: %s", path.c_str(), strerror(errno));
}

bool isDotName(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Takes ownership of `fd`.
void emptyDirAt(int fd) {
    DIR* dir = fdopendir(fd);
    while (const dirent* entry = readdir(dir)) {
        if (isDotName(entry->d_name) || unlinkat(fd, entry->d_name, 0) == 0) {
            continue;
        }
        if (errno != EISDIR) {
            failOn(entry->d_name);
        }
        emptyDirAt(openat(fd, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (unlinkat(fd, entry->d_name, AT_REMOVEDIR) != 0) {
            failOn(entry->d_name);
        }
    }
    closedir(dir);
}

}  // namespace

void makeDir(const std::string& path, mode_t mode) {
    if (mkdir(path.c_str(), mode) != 0 || chmod(path.c_str(), mode) != 0) {
        failOn(path);
    }
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0 || fchmod(fd, mode) != 0 ||
        write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        failOn(path);
    }
    close(fd);
}

void makeLink(const std::string& target, const std::string& path) {
    if (symlinkat(target.c_str(), AT_FDCWD, path.c_str()) != 0) {
        failOn(path);
    }
}

std::string readFile(const std::string& path) {
    std::string content;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        return content;
    }
    content.resize(static_cast<size_t>(status.st_size));
    content.resize(static_cast<size_t>(read(fd, content.data(), content.size())));
    close(fd);
    return content;
}

std::vector<std::string> namesIn(const std::string& dir) {
    std::vector<std::string> names;
    DIR* stream = opendir(dir.c_str());
    if (stream == nullptr) {
        failOn(dir);
    }
    while (const dirent* entry = readdir(stream)) {
        if (!isDotName(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(stream);
    return names;
}

void emptyDir(const std::string& dir) {
    const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        failOn(dir);
    }
    emptyDirAt(fd);
}

int linksMade() {
    return gLinksMade;
}

}  // namespace peltex_fuzz

// The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_symlink(const char* target, const char* path);

int __wrap_symlink(const char* target, const char* path) {
    const int result = __real_symlink(target, path);
    if (result == 0) {
        ++peltex_fuzz::gLinksMade;
    }
    return result;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
