// Joins the slices of a set into one plain tar archive that every tar program reads.
//
// Not thread-safe. Memory does not grow with the archive.
#pragma once

#include <cstdint>
#include <string>

#include "archive/set.h"

namespace peltexctl {

struct ExportCounts {
    uint64_t entries = 0;
    uint64_t bytes = 0;  // of the new archive
};

// Writes the set's entries to `out`, "-" for standard output. A regular file of that name is
// replaced once the new one is whole; on failure nothing is left of the new one, and one line is in
// `error`. REQUIRES: VerifySet() has found no fault in the set.
bool ExportSet(const ArchiveSet& set, const std::string& out, ExportCounts* counts,
               std::string* error);

}  // namespace peltexctl
