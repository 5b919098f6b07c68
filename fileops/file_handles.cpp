// Tested by tests/fileops/file_operations_test.cpp.
#include "fileops/file_handles.h"

#include <sys/stat.h>

#include "bounded/bounded.h"
#include "fileops/paths.h"

namespace android::installd {

UniqueDir openDirectory(int parentFd, const char* path, int flags) {
    const char* name = parentFd == AT_FDCWD ? path : lastComponent(path);
    const int fd = openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
    UniqueDir dir(fd < 0 ? nullptr : fdopendir(fd));
    if (dir == nullptr && fd >= 0) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return dir;
}

UniqueFd openRegular(int dirFd, const char* name) {
    UniqueFd file(openat(dirFd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.isOpen() || errno != EWOULDBLOCK) {
        return file;
    }
    // Somebody has a lease on it, which only an open that waits breaks. The file is held by a
    // descriptor meanwhile: by its name, that open could meet a FIFO.
    const UniqueFd held(openat(dirFd, name, O_PATH | O_CLOEXEC | O_NOFOLLOW));
    struct stat status = {};
    if (!held.isOpen() || fstat(held.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return UniqueFd();
    }
    char link[kDescriptorLinkSize] = {};
    return UniqueFd(open(descriptorLink(held, link), O_RDONLY | O_CLOEXEC));
}

const char* descriptorLink(const UniqueFd& fd, char (&link)[kDescriptorLinkSize]) {
    snprintf_s(link, sizeof(link), sizeof(link) - 1, "/proc/self/fd/%d", fd.get());
    return link;
}

}  // namespace android::installd
