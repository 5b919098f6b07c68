// The files of one archive or set in a directory: NAME.tar, or the slices NAME.tar.0, NAME.tar.1
// and so on with their check file NAME.tar.txt, and the sums NAME.tar.sha256.
//
// Not thread-safe. The directory is held: what others do to its path changes nothing.
#pragma once

#include <string>
#include <vector>

#include "task/directory.h"

namespace peltexctl {

class BackupFiles {
  public:
    // `base` is NAME.tar. A directory that is not there has no files.
    BackupFiles(const std::string& directory, std::string base);

    // The path of one of these files that is there: of the set's or the archive's. Empty where none
    // is.
    std::string First(bool is_set) const;

    // Takes all of them away, what says that they belong together first. Throws Failure.
    void Remove(bool is_set) const;

  private:
    std::vector<std::string> Slices() const;

    const std::string directory_;
    const std::string base_;
    const UniqueFd fd_;
};

}  // namespace peltexctl
