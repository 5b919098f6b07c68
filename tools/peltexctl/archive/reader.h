// Reads an archive, or one slice of a set, exactly as a restore does, and writes nothing. Archives
// come from anywhere: whatever a block says, memory stays bounded, every read stays inside the file
// and every step moves forward.
//
// Not thread-safe: each object belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "tar/tar_header.h"

namespace peltexctl {

// A regular file that is open for reading.
class ArchiveFile {
  public:
    // On failure returns nothing and one line in `error`.
    static std::optional<ArchiveFile> Open(const std::string& path, std::string* error);

    ArchiveFile(ArchiveFile&& other) noexcept;
    ArchiveFile& operator=(ArchiveFile&& other) = delete;
    ~ArchiveFile();

    // In bytes, as it was when the file was opened.
    uint64_t size() const { return size_; }

    // Fills `buffer` from `offset` on. Returns false when fewer than `size` bytes are there or they
    // cannot be read; the buffer is undefined then.
    bool ReadAt(uint64_t offset, void* buffer, size_t size) const;

  private:
    ArchiveFile(int fd, uint64_t size) : fd_(fd), size_(size) {}

    int fd_;
    uint64_t size_;
};

struct ArchiveEntry {
    char type = '\0';   // as stored, but '0' for the old mark of a regular file, NUL
    std::string name;   // as a restore takes it
    std::string link;   // the target, for links
    uint32_t mode = 0;  // permission bits
    uint64_t uid = 0;
    uint64_t gid = 0;
    uint64_t size = 0;  // bytes of content that the header promises
    uint64_t mtime = 0;
    uint64_t data_offset = 0;
    android::installd::tar_header header{};
    bool long_name = false;  // the name or target comes from a record in front of the header
    bool long_link = false;
    bool lost_record = false;  // such a record was there, but longer than a restore takes

    // A file's part that was cut because its slice was full, so that more must follow. A first part
    // of any other size is that of a file which ended just there.
    bool FillsSlice() const;
    // A part of a file that began in an earlier slice.
    bool Continues() const;
    bool IsFile() const;
};

// Why there are no more entries.
enum class ArchiveEnd {
    kNotYet,
    kEndBlocks,      // two zero blocks, as it should be
    kLoneZeroBlock,  // one zero block
    kNoEndBlocks,    // the file ends where a header should be
    kInvalidBlock,   // a block that is no header
    kRefusedName,    // a name with "../": a restore fails here
    kDataCut,        // the last entry's content is not all there
};

// The end in words. REQUIRES: it has come.
const char* DescribeEnd(ArchiveEnd end);

// Whether the block at `offset` is a header.
bool IsHeaderAt(const ArchiveFile& file, uint64_t offset);

class ArchiveReader {
  public:
    // `file` must outlive the reader.
    explicit ArchiveReader(const ArchiveFile& file) : file_(file) {}

    // Reads the next header with the records in front of it. Returns false at the end; `entry` is
    // then the one to blame, if the end is kRefusedName or kDataCut.
    bool Next(ArchiveEntry* entry);

    ArchiveEnd end() const { return end_; }

    // Where the block lies that ended the archive.
    uint64_t end_offset() const { return block_offset_; }

  private:
    bool ReadBlock();
    bool ReadHeader();
    void TakeRecord(std::optional<std::string>* text, bool* lost);
    void FillEntry(ArchiveEntry* entry);
    bool SkipContent(uint64_t size);
    bool Finish(ArchiveEnd end);

    const ArchiveFile& file_;
    android::installd::TarBlock block_;
    uint64_t block_offset_ = 0;
    uint64_t position_ = 0;
    ArchiveEnd end_ = ArchiveEnd::kNotYet;
    std::optional<std::string> long_name_;
    std::optional<std::string> long_link_;
    bool lost_record_ = false;
};

}  // namespace peltexctl
