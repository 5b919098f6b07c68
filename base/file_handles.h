// Owners of file descriptors and streams: closed when the owner goes. Move only.
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "base/place.h"

namespace android::installd {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~UniqueFd() {
        if (mFd >= 0) {
            close(mFd);
        }
    }

    int get() const { return mFd; }
    int release() { return std::exchange(mFd, -1); }
    bool isOpen() const { return mFd >= 0; }

  private:
    int mFd = -1;
};

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

// Opens for reading the regular file that was found at `place`. A link that took its place is not
// followed, and a FIFO not waited for. Where an application holds a lease on the file, this waits
// until it gives that up or the kernel takes it (45 s by default).
UniqueFd openRegular(const Place& place);

// Writes a path that leads to what a descriptor is open on, for calls that take only paths. Returns
// `link`.
constexpr size_t kDescriptorLinkSize = 32;
const char* descriptorLink(const UniqueFd& fd, char (&link)[kDescriptorLinkSize]);

}  // namespace android::installd
