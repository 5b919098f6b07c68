// Joins the slices of a set into one plain tar archive that every tar program reads.
//
// Not thread-safe. Memory is constant.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "archive/set.h"

namespace peltexctl {

// Writes the set's entries to `out`, "-" for standard output, and tells `progress` now and then how
// many bytes of content are done. A file of that name is replaced once the new one is whole; nobody
// can read it who could not read the slices and the file that was there. On failure nothing is left
// of the new one, and one line is in `error`. REQUIRES: VerifySet() has found the set whole.
bool ExportSet(const ArchiveSet& set, const std::string& out,
               const std::function<void(uint64_t done)>& progress, std::string* error);

}  // namespace peltexctl
