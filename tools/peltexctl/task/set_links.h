// The names by which the library gets a set that is to be restored. It removes each slice when it
// is done with it, and with an abort those that it has not read: what it removes here are symbolic
// links in a directory of our own beside the set, where a copy of the check file lies too.
//
// Not thread-safe.
#pragma once

#include <string>

#include "archive/set.h"
#include "task/directory.h"

namespace peltexctl {

// Takes away what restores that were killed have left in the directory `path`. Returns what that
// was, for people.
std::string RemoveLeftLinks(const std::string& path);

class SetLinks {
  public:
    ~SetLinks();

    // Makes the directory and all that is in it; in `other` where the set's is on a file system
    // that is read only. Throws Failure.
    void Make(const ArchiveSet& set, const std::string& other);

    // The check file that the library is given.
    std::string CheckFile() const { return path_ + "/" + kCheckFile; }
    const std::string& path() const { return path_; }

  private:
    static constexpr const char* kCheckFile = "set.txt";  // no slice has that name

    std::string path_;  // empty until it is made
    UniqueFd parent_;
    UniqueFd fd_;
};

// Takes a set away whose entries are all there: what says that it is one first. Throws Failure.
void RemoveSet(const ArchiveSet& set);

}  // namespace peltexctl
