// Tested by tests/unit/tasks.md and every walk's own tests.
#include "base/walk_level.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "base/paths.h"

namespace android::installd {

namespace {

UniqueDir openDirectory(const Place& place) {
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (place.isTop() ? 0 : O_NOFOLLOW);
    const int fd = openat(place.dirFd(), place.name(), flags);
    UniqueDir dir(fd < 0 ? nullptr : fdopendir(fd));
    if (dir == nullptr && fd >= 0) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return dir;
}

}  // namespace

WalkLevel::WalkLevel(const Place& directory, PathBuffer& path, PathBuffer::Fit fit)
    : mPath(path), mLength(path.length()), mFit(fit), mDir(openDirectory(directory)) {}

WalkLevel::Found WalkLevel::next() {
    const dirent* entry = nullptr;
    do {
        errno = 0;
        entry = readdir(mDir.get());  // NOLINT(concurrency-mt-unsafe): no two threads share it
    } while (entry != nullptr && isDotName(entry->d_name));
    if (entry == nullptr) {
        // A directory that was removed meanwhile has ended.
        return errno == 0 || errno == ENOENT ? Found::kEnd : Found::kBroken;
    }
    mName = entry->d_name;
    return mPath.appendEntry(mName, mFit) ? Found::kEntry : Found::kTooLong;
}

}  // namespace android::installd
