// Directories that are held by a descriptor, and what is made, looked at and removed in them.
// Others may rename and replace whatever has a path; what a descriptor stands for stays.
//
// Not thread-safe.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/file_handles.h"

namespace peltexctl {

using android::installd::UniqueDir;
using android::installd::UniqueFd;

// What a file is, whatever it is called: device and inode.
using FileId = std::pair<dev_t, ino_t>;

// Of what is at `path`, links followed; nothing where nothing is.
std::optional<struct stat> StatOf(const std::string& path);
std::optional<FileId> IdOf(const std::string& path);

// "/a" of "/a/b", "b" of "/a/b".
std::string ParentOf(const std::string& path);
std::string NameOf(const std::string& path);

// The path itself, or the nearest one above it that is there.
std::string NearestThere(std::string path);

// Whether the directory `inner`, or the nearest one above it that is there, is `outer` or lies
// inside it.
bool LiesIn(const std::string& inner, const FileId& outer);

UniqueFd OpenDirectory(const std::string& path);

// The directory `name` of `parent`, which is no link.
UniqueFd OpenDirectoryAt(int parent, const char* name);

// The entries of the directory `opened`, to be gone through; none where it cannot be read.
std::filesystem::directory_iterator EntriesOf(const UniqueFd& opened);

// Removes files of a directory, in this order. Throws Failure.
void RemoveFiles(int directory, const std::vector<std::string>& names);

// A directory that is there when a task needs it, with those above it that were missing. What was
// made goes with this object where it is empty then and not to be kept.
class MadeDirectory {
  public:
    ~MadeDirectory();

    // Makes what is missing of `path`, the last one for `uid`, and holds it. Throws Failure.
    void Make(const std::string& path, uid_t uid);

    const UniqueFd& fd() const { return fd_; }

    void Keep() { made_.clear(); }

  private:
    UniqueFd fd_;
    std::vector<std::pair<UniqueFd, std::string>> made_;  // parents and names, the deepest last
};

}  // namespace peltexctl
