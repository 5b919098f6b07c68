// Where an entry is: its name in a directory that is held open, or its whole path.
//
// A walk looks up one name in the directory that it is in, not a path from the root: that is
// quicker, and nobody can exchange a directory above for a link meanwhile.
#pragma once

#include <fcntl.h>

#include "base/paths.h"

namespace android::installd {

class Place {
  public:
    // `path` must outlive the place. It is read when it is asked for, so that it may lie in a
    // buffer that a walk extends and cuts back.
    explicit Place(const char* path) : Place(AT_FDCWD, path) {}

    // The entry that `path` ends in, of the directory that `dirFd` stands for; `path` itself when
    // that is AT_FDCWD.
    Place(int dirFd, const char* path) : mDirFd(dirFd), mPath(path) {}

    // For the calls that end in "at".
    int dirFd() const { return mDirFd; }
    const char* name() const { return isTop() ? mPath : lastComponent(mPath); }

    // For messages, and for who needs the whole path.
    const char* path() const { return mPath; }

    // Whether it is named by its path: what a walk begins with, where links are followed.
    bool isTop() const { return mDirFd == AT_FDCWD; }

  private:
    int mDirFd;
    const char* mPath;
};

}  // namespace android::installd
