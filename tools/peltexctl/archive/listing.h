// The entries of an archive or of a set of slices, in order, a cut file once with its whole size.
//
// Not thread-safe.
#pragma once

#include <functional>
#include <string>

#include "archive/reader.h"
#include "archive/set.h"

namespace peltexctl {

// The bytes of content of the file of which `entry`, in slice `index` of the set, is the first
// part: those of this part and of the parts that the next slices begin with.
uint64_t WholeSize(const ArchiveSet& set, size_t index, const ArchiveEntry& entry);

// Gives each entry to `show`, and to `sink` a fault for each slice that does not end as it should.
void ListSet(const ArchiveSet& set, const FindingSink& sink,
             const std::function<void(const ArchiveEntry&)>& show);

// One line as `tar tv` writes it, and one JSON object.
std::string EntryAsText(const ArchiveEntry& entry);
std::string EntryAsJson(const ArchiveEntry& entry);

}  // namespace peltexctl
