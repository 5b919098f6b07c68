// Reads an archive, or one slice of a set, exactly as a restore does, and writes nothing. Archives
// come from anywhere: whatever a block says, memory stays bounded, every read stays inside the file
// and every step moves forward.
//
// Not thread-safe: each object belongs to one thread.
#pragma once

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/file_handles.h"
#include "tar/tar_header.h"
#include "ui/progress_view.h"

namespace peltexctl {

// The directory that `path` is in; not open where there is none.
inline android::installd::UniqueFd DirectoryOf(const std::string& path) {
    const size_t length = path.rfind('/') + 1;  // 0 where there is no slash
    return android::installd::UniqueFd(
        open(length == 0 ? "." : path.substr(0, length).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// A regular file that is open for reading, as long as there is a copy of this; or one that is not,
// and holds no bytes.
class ArchiveFile {
  public:
    // Opens `name` in the directory `directory`. `flags` are added to those of open().
    ArchiveFile(int directory, const std::string& name, int flags);

    // Why it is not open, for people; empty where it is.
    const std::string& fault() const { return fault_; }
    // In bytes, as it was when the file was opened.
    uint64_t size() const { return size_; }
    int fd() const { return fd_->get(); }
    // A stream of its own, from the beginning on; null on failure.
    android::installd::UniqueFile Stream() const;

    // Reads what is there of `size` bytes from `offset` on. Returns how many; -1 on failure.
    ssize_t Read(uint64_t offset, void* buffer, size_t size) const;

    // Fills `buffer` from `offset` on. Returns false when fewer than `size` bytes are there or they
    // cannot be read; the buffer is undefined then.
    bool ReadAt(uint64_t offset, void* buffer, size_t size) const;

    // Where the first byte from `offset` on lies that is not zero, or one near it that cannot be
    // read; the file's size where there is none. Holes are not read.
    uint64_t FindNonZero(uint64_t offset) const;

    // Shows on `view` how far it is read, behind `begin` bytes of other files.
    void SetProgress(ProgressView* view, uint64_t begin) {
        view_ = view;
        begin_ = begin;
    }

  private:
    std::shared_ptr<const android::installd::UniqueFd> fd_;
    uint64_t size_ = 0;
    std::string fault_;
    ProgressView* view_ = nullptr;
    uint64_t begin_ = 0;
};

struct ArchiveEntry {
    char type = '\0';   // as stored, but '0' for the old mark of a regular file, NUL
    std::string name;   // as a restore takes it
    std::string link;   // the target of a link
    uint32_t mode = 0;  // permission bits
    uint64_t uid = 0;
    uint64_t gid = 0;
    uint64_t size = 0;  // bytes of content that the header promises
    uint64_t mtime = 0;
    uint64_t data_offset = 0;
    std::string_view misread;  // what of it other programs read otherwise, "size" or the like
    // Where a restore puts it below its destination: the name without what does not change where it
    // leads, empty components and single dots. Empty for the destination itself.
    std::string path;

    // A file's part that was cut because its slice was full, so that more must follow. A first part
    // of any other size is that of a file which ended just there.
    bool FillsSlice() const;
    // A part of a file that began in an earlier slice.
    bool Continues() const {
        return type == android::installd::TYPE_MIDDLE_PART ||
               type == android::installd::TYPE_LAST_PART;
    }
    bool IsFile() const {
        return type == android::installd::TYPE_REGULAR ||
               type == android::installd::TYPE_FIRST_PART || Continues();
    }
    // Whether a restore makes something of it, or passes over it.
    bool IsRestored() const {
        return IsFile() || type == android::installd::TYPE_SYMLINK ||
               type == android::installd::TYPE_DIRECTORY;
    }
};

// A type for people.
struct TypeWords {
    char type;
    char letter;       // as `ls -l` begins a line
    const char* name;  // such as "hard link"; empty for a file, link or directory
};
const TypeWords& WordsOf(char type);

// Whether the block at `offset` is a header.
bool IsHeaderAt(const ArchiveFile& file, uint64_t offset);

class ArchiveReader {
  public:
    // `file` must outlive the reader. `in_front` is how many bytes a restore puts in front of each
    // name: at least those of the shortest destination, one byte and a slash.
    explicit ArchiveReader(const ArchiveFile& file, size_t in_front = 2)
        : file_(file), in_front_(in_front) {}

    // Reads the next header with the records in front of it. Returns false at the end.
    bool Next(ArchiveEntry* entry);

    const android::installd::tar_header& header() const { return block_.header; }

    // Of the end: whether it is two zero blocks, as it should be, and else what it is, for people,
    // whether the entry that Next() filled in last is to blame, and where it lies.
    bool has_end_blocks() const { return fault_ != nullptr && *fault_ == '\0'; }
    const char* fault() const { return fault_; }
    bool blames_entry() const { return blames_entry_; }
    uint64_t end_offset() const { return block_offset_; }

  private:
    bool ReadHeader();
    const char* BytesAt(uint64_t offset, uint64_t size);
    void TakeRecord(std::optional<std::string>* text, std::string_view what);
    void FillEntry(ArchiveEntry* entry);
    template <size_t kWidth>
    uint64_t Number(const char (&field)[kWidth], uint64_t mask, std::string_view what);
    bool SkipContent(uint64_t size);
    bool Finish(const char* fault, bool blames_entry = false);

    static constexpr size_t kPage = 4096;

    const ArchiveFile& file_;
    const size_t in_front_;
    const std::unique_ptr<char[]> window_{new char[2 * kPage]};
    uint64_t window_begin_ = 0;  // of what the window holds of the file
    uint64_t window_end_ = 0;
    android::installd::TarBlock block_;
    uint64_t block_offset_ = 0;
    uint64_t position_ = 0;
    const char* fault_ = nullptr;  // null before the end, empty where that is as it should be
    bool blames_entry_ = false;
    std::optional<std::string> long_name_;
    std::optional<std::string> long_link_;
    std::string_view misread_;
};

}  // namespace peltexctl
