// The records of briefs and of attribute files: PATH;MODE;TYPE;SIZE;TIME, one for each entry.
//
// Not thread-safe. Memory grows with the length of a line alone, which is bounded.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "archive/tally.h"

namespace peltexctl {

enum class RecordLines {
    kEach,    // a line is a record or none, as a backup by list reads them
    kJoined,  // a line that does not begin with '/' belongs to the path before it
};

// Gives each record of the file to `take`, with its whole path, which may stop by returning false,
// and what is none to `other`. Returns false when the file cannot be read, or is no regular file.
bool ReadRecords(const std::string& file, RecordLines lines,
                 const std::function<bool(const TallyEntry& record)>& take,
                 const std::function<void(std::string_view line)>& other = {});

}  // namespace peltexctl
