// Whether an archive or a set of slices would come back whole, found by reading it as a restore
// does: sizes, header chain, end blocks, and the parts of each cut file. And whether it would reach
// what it should not: entries that lead out of the directory or through a link, set-user-id files.
//
// Not thread-safe. Memory is constant.
#pragma once

#include <functional>
#include <string>

#include "archive/set.h"
#include "archive/tally.h"

namespace peltexctl {

// Gives each finding to `sink`. `destination` is where a restore would go, empty where that is not
// known: the longer its path, the shorter the names that come back. Returns what a restore makes.
Tally VerifySet(const ArchiveSet& set, const std::string& destination, const FindingSink& sink);

// Gives every entry that makes up the tally to `visit`, whose texts live as long as the call.
void VisitRestored(const ArchiveSet& set, const std::function<void(const TallyEntry&)>& visit);

}  // namespace peltexctl
