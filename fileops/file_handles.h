// Owners of file descriptors and streams: closed when the owner goes. Move only.
#pragma once

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <utility>

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

// Opens the directory that a walk goes down to: the last component of `path` in the directory that
// `parentFd` stands for, so that one name is looked up and not a whole path; `path` itself when
// that is AT_FDCWD. `flags` are added to those of open. Returns null on failure; errno tells why.
UniqueDir openDirectory(int parentFd, const char* path, int flags = 0);

// Opens for reading what has been found to be a regular file `name` of the directory `dirFd`. A
// link that took its place is not followed, and a FIFO not waited for. Where an application holds a
// lease on the file, this waits until it gives that up or the kernel takes it (45 s by default).
UniqueFd openRegular(int dirFd, const char* name);

// Writes the name under which the kernel tells and opens what a descriptor is of. Returns `link`.
constexpr size_t kDescriptorLinkSize = 32;
const char* descriptorLink(const UniqueFd& fd, char (&link)[kDescriptorLinkSize]);

// The next entry of the stream, in the order of the file system, or null after the last one. It is
// valid until the next call for the same stream.
inline const dirent* nextEntry(const UniqueDir& dir) {
    errno = 0;
    return readdir(dir.get());  // NOLINT(concurrency-mt-unsafe): no two threads share a stream
}

// Whether the null that nextEntry() has just returned was an error; errno tells which. A directory
// that was removed meanwhile has ended.
inline bool isReadBroken() {
    return errno != 0 && errno != ENOENT;
}

}  // namespace android::installd
