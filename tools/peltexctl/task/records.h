// The records of briefs and of attribute files: PATH;MODE;TYPE;SIZE;TIME, one for each entry.
//
// Not thread-safe. Memory grows with the length of a line alone, which is bounded.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "archive/tally.h"

namespace peltexctl {

// Gives each record of the file to `take`, with its whole path, which may stop by returning false.
// A line that does not begin with '/' belongs to the path before it; where lines that are no
// records are asked for by `other`, each stands for itself, as a backup by list reads them. Returns
// false when the file cannot be read, or is no regular file.
bool ReadRecords(const std::string& file, const std::function<bool(const TallyEntry& record)>& take,
                 const std::function<void(std::string_view line)>& other = {});

}  // namespace peltexctl
