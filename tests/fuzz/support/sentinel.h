// Entries that an input must not reach: files with their content, directories with what they hold
// (an entry that is made or removed changes the directory's time).
#pragma once

#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

namespace peltex_fuzz {

class Sentinel {
  public:
    // Remembers the entries as they are.
    explicit Sentinel(const std::vector<std::string>& paths);

    // What may have changed nevertheless.
    enum Allowance { kNothing, kOwnerAndMode };

    // A finding when an entry is not as it was.
    void check(Allowance allowance = kNothing) const;

    // Gives back owner and mode.
    void repair() const;

  private:
    struct Entry {
        std::string path;
        bool isThere;
        mode_t type;
        mode_t mode;
        uid_t owner;
        gid_t group;
        timespec modified;
        std::string content;  // of a file
    };

    static Entry lookAt(const std::string& path);
    static bool hasSameOwnerAndMode(const Entry& a, const Entry& b);
    static bool isSameOtherwise(const Entry& a, const Entry& b);

    std::vector<Entry> mEntries;
};

}  // namespace peltex_fuzz
