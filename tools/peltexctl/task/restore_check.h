// Whether what an archive holds is at the destination after a restore, which does not examine what
// it writes: a full disk cuts files without a word.
//
// Not thread-safe. Memory grows with the number of entries.
#pragma once

#include <string>

namespace peltexctl {

// Compares types and sizes of the entries of the archive or set of slices `file` with what is in
// `directory`. Returns what differs, in words; empty when nothing does. REQUIRES: verification
// finds no fault in it.
std::string CompareRestored(const std::string& file, const std::string& directory);

}  // namespace peltexctl
