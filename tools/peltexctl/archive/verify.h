// Whether an archive or a set of slices would come back whole, found by reading it as a restore
// does: sizes, header chain, end blocks, and the parts of each cut file. And whether it would reach
// what it should not: entries that lead out of the directory or through a link, set-user-id files.
//
// Not thread-safe. Memory grows with the number of links, and for VerifyAgainstSource() of entries.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

#include "archive/reader.h"
#include "archive/set.h"

namespace peltexctl {

using EntryVisitor = std::function<void(const ArchiveEntry&)>;

struct VerifyCounts {
    uint64_t entries = 0;  // a cut file once
    uint64_t bytes = 0;    // of content
};

// Gives each finding to `sink` and each entry that a restore would take to `visit`, in the order of
// the archive.
VerifyCounts VerifySet(
    const ArchiveSet& set, const FindingSink& sink,
    const EntryVisitor& visit = [](const ArchiveEntry&) {});

// The same, and compares what a restore would make of the set with the directory that it was packed
// from: names, types, sizes and link targets. What changed since it was packed gives a warning; an
// entry that is not in the set counts as changed when its inode changed after `packing_began` (0:
// never). Settles every suspicion. Memory grows with the number of entries in the directory.
VerifyCounts VerifyAgainstSource(const ArchiveSet& set, const std::string& source_directory,
                                 int64_t packing_began, const FindingSink& sink);

}  // namespace peltexctl
