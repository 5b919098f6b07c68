// Tested by tests/unit/base_test.cpp and tests/unit/tasks.md.
#include "base/file_handles.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "bounded/bounded.h"

namespace android::installd {

UniqueFd openRegular(const Place& place) {
    UniqueFd file(
        openat(place.dirFd(), place.name(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.isOpen() || errno != EWOULDBLOCK) {
        return file;
    }
    // Somebody has a lease on it, which only an open that waits breaks. The file is held by a
    // descriptor meanwhile: by its name, that open could meet a FIFO.
    const UniqueFd held(openat(place.dirFd(), place.name(), O_PATH | O_CLOEXEC | O_NOFOLLOW));
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
