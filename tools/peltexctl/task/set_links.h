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

class SetLinks {
  public:
    // `directory` is the path of the set's directory; `set` must outlive the links.
    SetLinks(const ArchiveSet& set, const std::string& directory)
        : set_(set), directory_(directory) {}
    ~SetLinks();

    SetLinks(const SetLinks&) = delete;
    SetLinks& operator=(const SetLinks&) = delete;

    // Takes away what restores have left that were killed. Returns its paths, for people.
    std::string RemoveLeftovers() const;

    // Makes the directory and all that is in it; in `other` where the set's is on a file system
    // that is read only. Throws Failure.
    void Make(const std::string& other);

    // The check file that the library is given.
    std::string CheckFile() const { return path_ + "/" + set_.name(); }
    const std::string& path() const { return path_; }

  private:
    const ArchiveSet& set_;
    const std::string directory_;
    std::string path_;  // empty until it is made
    UniqueFd parent_;
    UniqueFd fd_;
};

// Takes a set away whose entries are all there: what says that it is one first. Throws Failure.
void RemoveSet(const ArchiveSet& set);

}  // namespace peltexctl
