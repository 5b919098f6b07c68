// What the walk of a packed directory hands its entries to.
#pragma once

#include <sys/stat.h>

#include "base/place.h"

namespace android::installd {

// Each Add operation writes one entry: its long-name records, its header and, for a file, its
// content. `st` is of the entry itself, not of what a link leads to. False after a failure, which
// ends the pack, and after an abort.
class EntryWriter {
  public:
    virtual ~EntryWriter() = default;

    // An entry that is not left out comes now; what no archive holds is not added after it.
    virtual void Begin(const Place& /*entry*/) {}

    virtual bool AddDirectory(const Place& entry, const struct stat& st) = 0;
    virtual bool AddLink(const Place& entry, const struct stat& st) = 0;

    // Stores as many bytes as `st` tells of: a file that grew meanwhile is cut, one that shrank
    // fails.
    virtual bool AddFile(const Place& entry, const struct stat& st) = 0;
};

}  // namespace android::installd
