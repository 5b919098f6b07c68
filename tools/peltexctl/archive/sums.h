// SHA-256 sums over an archive, or over the slices of a set and its check file, in the file
// NAME.tar.sha256 beside them, which `sha256sum -c` reads. Archives themselves hold no sums.
#pragma once

#include <sys/stat.h>

#include <future>
#include <string>
#include <utility>

#include "archive/set.h"

namespace peltexctl {

// The sums' file of the archive NAME.tar, the check file NAME.tar.txt or the slice NAME.tar.0.
std::string SumsName(const std::string& name);

// Sums files, each read once on a thread of its own while the caller goes on.
//
// To be used by one thread at a time. Throws Failure.
class Summer {
  public:
    // `path` is that of the files' directory, for people.
    explicit Summer(std::string path) : path_(std::move(path)) {}

    // Begins with the file `name` of `directory`, which is no link.
    void Add(int directory, const std::string& name);

    // Writes the sums to `name` in `directory`, in place of one that is there, with owner and mode
    // of the last file. Leaves nothing on failure. REQUIRES: a file was added.
    void Finish(int directory, const std::string& name);

  private:
    const std::string path_;
    struct stat last_ = {};
    std::future<std::string> lines_;  // of all files that were added
};

// Compares the files of `set` with their sums, where there is a file of them; what differs is a
// fault. Reads everything.
void CheckSums(const ArchiveSet& set, const FindingSink& sink);

}  // namespace peltexctl
