// One level of a walk over a tree: a directory whose entries are met one by one, in the order of
// the file system, each with the walk's path extended by its name. What is done with an entry, and
// whether the walk goes down, is the walk's own.
#pragma once

#include <dirent.h>

#include "base/file_handles.h"
#include "base/path_buffer.h"
#include "base/place.h"

namespace android::installd {

class WalkLevel {
  public:
    enum class Found {
        kEntry,
        kEnd,
        kTooLong,  // an entry whose name the path has no room for; the path is the directory's
        kBroken,   // the directory cannot be read on; errno tells why
    };

    // Opens the directory at `directory`, whose path is in `path`. A link is followed at the top of
    // a walk alone: applications go on running, and what was a directory when it was looked at may
    // be a link by now. `path` must outlive the level.
    WalkLevel(const Place& directory, PathBuffer& path, PathBuffer::Fit fit);
    WalkLevel(const WalkLevel&) = delete;
    WalkLevel& operator=(const WalkLevel&) = delete;

    // Whether the directory was opened; if it was not, errno tells why until the next call.
    bool isOpen() const { return mDir != nullptr; }

    // Goes on to the next entry but "." and "..". REQUIRES: isOpen(), and the path is the
    // directory's.
    Found next();

    // The present entry. REQUIRES: next() returned kEntry and back() was not called since.
    Place entry() const { return Place(dirfd(mDir.get()), mPath.c_str()); }
    const char* name() const { return mName; }

    // Cuts the path back to the directory's.
    void back() { mPath.cut(mLength); }

  private:
    PathBuffer& mPath;
    const size_t mLength;  // of the directory's path
    const PathBuffer::Fit mFit;
    const UniqueDir mDir;
    const char* mName = "";  // as the directory has it, where the path may have it cut
};

}  // namespace android::installd
