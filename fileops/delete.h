// Removing trees.
#pragma once

namespace android::installd {

class PathBuffer;
class Place;

// Removes a tree. Returns 0 also when there is none, -1 when something stays: symbolic links are
// never removed, and keep the directories above them. Failures are logged, but for a directory that
// cannot be opened. A path of more than 2047 bytes is cut silently.
int deleteDir(const char* path);

// The same for the tree at `tree`, whose path is in `path`; it is extended meanwhile.
int deleteTree(const Place& tree, PathBuffer& path);

}  // namespace android::installd
