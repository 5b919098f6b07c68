// Reads an archive block by block: its headers with the long-name records before them, and the data
// behind them. Archives are hostile bytes: every read of one stays inside the object's own buffers,
// and every step moves forward to the archive's end.
#pragma once

#include <stdint.h>

#include <memory>
#include <optional>
#include <string>

#include "base/file_handles.h"
#include "tar/tar_header.h"

namespace android::installd {

// One entry as its header, and the long-name records before it, tell of it.
struct TarEntry {
    uint32_t mode = 0;
    uint32_t uid = 0;  // as recorded, like `gid`
    uint32_t gid = 0;
    uint64_t size = 0;         // of the data behind the header, in bytes
    int64_t dataPosition = 0;  // of that data in the archive
    char typeflag = 0;
    bool hasLongName = false;
    bool hasLongLink = false;
    std::string name;  // the long name where one came before, and so below
    std::string linkName;

    // Whether it is a record with the long name, or link, of the next entry.
    bool isLongString() const { return typeflag == TYPE_LONG_NAME || typeflag == TYPE_LONG_LINK; }
};

class TarReader {
  public:
    enum class Found {
        kEntry,
        kEnd,        // as an archive ends
        kInvalid,    // a block that is no header
        kTruncated,  // the archive ends among its headers
    };

    TarReader() = default;
    TarReader(const TarReader&) = delete;
    TarReader& operator=(const TarReader&) = delete;

    // Opens the archive, closing the one before. A slice may end where a whole archive may not.
    // Returns whether it is open.
    bool open(const char* path, bool isSlice);
    void close() { m_tarFp.reset(); }
    bool isOpen() const { return m_tarFp != nullptr; }

    // Goes to the beginning. False when the size is no whole number of blocks. REQUIRES: isOpen().
    bool begin();

    // Reads the next header. The position is behind it then: whose data is not to be read as
    // headers has to be skipped. REQUIRES: begin() was true.
    Found next(TarEntry& entry);

    // Reads the text of a long-name record, for the next entry, and skips its data. One that is too
    // long, or cut by the archive's end, is dropped: the entry's own header then names it.
    void keepLongString(const TarEntry& entry);
    void dropLongStrings();

    // Reads `size` bytes of the entry's data behind the `done` that are read. Returns how many
    // there were. REQUIRES: the entry is the one that next() found last, and `done` what was read
    // of it so far.
    size_t readData(const TarEntry& entry, uint64_t done, char* buffer, size_t size);

    // Goes to the header behind the entry's data, which may lie behind the end of the archive.
    void skipData(const TarEntry& entry);

  private:
    size_t readBlock(TarBlock& block);
    bool VerifyChecksum(const tar_header* hdr);
    bool IsValidTarBlock(const tar_header* hdr);
    bool IsEmptyBlock(const char* block);
    Found foundShortRead(size_t got);
    Found foundInvalidBlock(const TarBlock& block);
    bool isWithinSlice();

    std::unique_ptr<char[]> m_tarBuf;  // the stream's, from the first archive on; outlives it
    UniqueFile m_tarFp;
    int64_t m_tarSize = 0;
    bool m_isSlice = false;
    bool m_isBehindAll = false;  // data was said to end where no file position is
    std::optional<std::string> m_longName;
    std::optional<std::string> m_longLink;
};

}  // namespace android::installd
