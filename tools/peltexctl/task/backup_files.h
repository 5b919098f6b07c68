// The files of one archive or set in a directory: NAME.tar, or the slices NAME.tar.0, NAME.tar.1
// and so on with their check file NAME.tar.txt, and the sums NAME.tar.sha256.
#pragma once

#include <string>
#include <vector>

#include "task/directory.h"

namespace peltexctl {

// The names of those that are there; `base` is NAME.tar. Of a set first what says that it is one.
std::vector<std::string> BackupFiles(const UniqueFd& directory, const std::string& base,
                                     bool is_set);

// Removes files of a directory, in this order. Throws Failure.
void RemoveFiles(int directory, const std::vector<std::string>& names);

}  // namespace peltexctl
