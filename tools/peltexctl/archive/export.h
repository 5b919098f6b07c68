// Joins the slices of a set into one plain tar archive that every tar program reads.
//
// Not thread-safe. Memory is constant.
#pragma once

#include <string>

#include "archive/set.h"

namespace peltexctl {

// Writes the set's entries to `out`, "-" for standard output. A file of that name is replaced once
// the new one is whole; nobody can read it who could not read the slices and the file that was
// there. Throws Failure, and leaves nothing of the new one then. REQUIRES: VerifySet() has found
// the set whole.
void ExportSet(const ArchiveSet& set, const std::string& out);

}  // namespace peltexctl
