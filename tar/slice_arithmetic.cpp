// Tested by tests/unit/archives.md.
#include "tar/slice_arithmetic.h"

#include <log/log.h>

#include "tar/tar_header.h"

namespace android::installd {

namespace {

constexpr long kUnit = kContentChunk;
constexpr long kBlock = kBlockSize;

long wholeBlocks(long size) {
    return size / kBlock * kBlock;
}

// What the file's header and name may take.
long nameAllowance(size_t pathLength) {
    return pathLength < sizeof(tar_header::name)
               ? kBlock
               : wholeBlocks(static_cast<long>(pathLength)) + 2 * kBlock;
}

}  // namespace

long sliceBytes(int32_t mib) {
    return static_cast<int32_t>(static_cast<uint32_t>(mib) << 20);
}

long GetSplitPKTRemainSize(long room) {
    const bool addsUnit = room == 0 || room == kBlock || room % kUnit > kBlock;
    return (room / kUnit + (addsUnit ? 1 : 0)) * kUnit;
}

long GetSizeOfFile(long fileSize, size_t pathLength) {
    return wholeBlocks(fileSize) + nameAllowance(pathLength) + static_cast<long>(kEndBlocksSize);
}

bool IsFirstSplitPKT(long fileSize, size_t pathLength, long room) {
    const long need = GetSizeOfFile(fileSize, pathLength);
    const long units = GetSplitPKTRemainSize(room);
    if (need <= units) {
        return false;
    }
    ALOGD("TarFile:: File need space:%jd, splite pkt size:%jd", static_cast<intmax_t>(need),
          static_cast<intmax_t>(units));
    return true;
}

long GetFirstSizeOfSplitFile(long fileSize, size_t pathLength, long room) {
    const long need = wholeBlocks(fileSize) + nameAllowance(pathLength);
    const long units = GetSplitPKTRemainSize(room);
    return need <= units ? fileSize : units;
}

}  // namespace android::installd
