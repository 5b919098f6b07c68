// Files that the library may remove before they may be lost: each has a second name, NAME.kept, in
// the same directory until it is known whether the first is needed.
//
// Thread-safe.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace peltexctl {

class KeptFiles {
  public:
    KeptFiles() = default;
    KeptFiles(const KeptFiles&) = delete;
    KeptFiles& operator=(const KeptFiles&) = delete;

    // Gives a file its second name. Returns false where the file system has no hard links.
    bool Keep(const std::string& path);

    // Gives a file that a program left with its second name the first again, and that alone.
    static void Recover(const std::string& path);

    // Gives a file its second name in the place of the first where there are no hard links.
    void KeepOrRename(const std::string& path);

    // Takes the second names away; files that have lost their first get it back.
    void PutBack();

    // How many of the kept files have lost their first name.
    size_t CountRemoved() const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> paths_;  // protected by mutex_
};

}  // namespace peltexctl
