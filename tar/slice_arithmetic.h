// How much of a file goes into which slice, as functions of numbers. All sizes are bytes.
//
// Headers promise what comes out here, odd cases included, and whoever reads a set counts on it:
// peltexctl verify, and tests/client/tar_model.py, which says the same in another language.
// docs/LIMITS.md tells which files come out wrong.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace android::installd {

// The size of a slice of so many MiB, in 32 bits with a sign: 2048 MiB and more come out wrong.
long sliceBytes(int32_t mib);

// `room` is what is left of the slice: its size less what has been written to it. It may be
// negative. `pathLength` is that of the file's full path.

// The room in whole chunks of content. A room of nothing, or of one block, counts as a whole chunk,
// as does the part of a chunk that exceeds a block.
long GetSplitPKTRemainSize(long room);

// What the file takes of a slice, the slice's end included.
long GetSizeOfFile(long fileSize, size_t pathLength);

// Whether the file will not fit into the slice.
bool IsFirstSplitPKT(long fileSize, size_t pathLength, long room);

// How much of a file that will not fit its first part is said to hold.
long GetFirstSizeOfSplitFile(long fileSize, size_t pathLength, long room);

}  // namespace android::installd
