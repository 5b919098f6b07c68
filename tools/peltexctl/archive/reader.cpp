// Tested by tests/peltexctl/test_archives.py.
#include "archive/reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "ui/text.h"

namespace peltexctl {

using namespace android::installd;

namespace {

bool IsHeader(const TarBlock& block) {
    const tar_header& header = block.header;
    return std::memcmp(header.magic, "ustar", 5) == 0 &&
           checksumOf(header) ==
               static_cast<uint32_t>(ParseOctalStr(header.chksum, sizeof(header.chksum)));
}

void SetPath(ArchiveEntry* entry) {
    std::string_view rest = entry->name;
    entry->path.clear();
    while (!rest.empty()) {
        const std::string_view component = rest.substr(0, rest.find('/'));
        rest.remove_prefix(std::min(component.size() + 1, rest.size()));
        if (!component.empty() && component != ".") {
            entry->path.append(entry->path.empty() ? "" : "/").append(component);
        }
    }
}

}  // namespace

std::optional<ArchiveFile> ArchiveFile::Open(int directory, const std::string& name, int flags,
                                             std::string* error) {
    // A device is not even opened, and a FIFO that takes the file's place not waited for.
    ArchiveFile file;
    struct stat info = {};
    const bool is_other = fstatat(directory, name.c_str(), &info, 0) == 0 && !S_ISREG(info.st_mode);
    file.fd_ = std::make_shared<const UniqueFd>(
        is_other ? -1 : openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | flags));
    if (!is_other && (file.fd() == -1 || fstat(file.fd(), &info) != 0)) {
        *error = errno == ELOOP ? "is a symbolic link" : "cannot be opened: " + ErrorText(errno);
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode)) {
        *error = "is no regular file: an archive, a slice or a check file is wanted";
        return std::nullopt;
    }
    file.size_ = static_cast<uint64_t>(info.st_size);
    return file;
}

bool ArchiveFile::ReadAt(uint64_t offset, void* buffer, size_t size) const {
    return offset <= size_ && size <= size_ - offset &&
           pread(fd(), buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

std::optional<uint64_t> ArchiveFile::FindNonZero(uint64_t offset) const {
    char buffer[16384];
    while (offset < size_) {
        // Where holes are not known, everything is data.
        if (const off_t data = lseek(fd(), static_cast<off_t>(offset), SEEK_DATA); data != -1) {
            offset = static_cast<uint64_t>(data);
        } else if (errno == ENXIO) {
            return size_;
        }
        const auto count = static_cast<size_t>(
            std::min<uint64_t>(sizeof(buffer), size_ - std::min(offset, size_)));
        if (!ReadAt(offset, buffer, count)) {
            return std::nullopt;
        }
        const char* const found =
            std::find_if(buffer, buffer + count, [](char byte) { return byte != '\0'; });
        offset += static_cast<uint64_t>(found - buffer);
        if (found != buffer + count) {
            return offset;
        }
    }
    return size_;
}

bool ArchiveEntry::FillsSlice() const {
    return type == TYPE_MIDDLE_PART ||
           (type == TYPE_FIRST_PART && size > 0 && size % kContentChunk == 0);
}

const char* DescribeEnd(ArchiveEnd end) {
    constexpr const char* kWords[] = {
        "",
        "ends with its end blocks",
        "a single zero block ends it here",
        "ends without its end blocks",
        "no valid header where one should be",
        "a restore ends here: it refuses names with \"../\" and paths of more than 2,047 bytes",
        "the bytes that its header promises are not there",
    };
    return kWords[static_cast<size_t>(end)];
}

bool IsHeaderAt(const ArchiveFile& file, uint64_t offset) {
    TarBlock block;
    return file.ReadAt(offset, &block.header, kBlockSize) && IsHeader(block);
}

bool ArchiveReader::Next(ArchiveEntry* entry) {
    while (ReadHeader()) {
        const tar_header& header = block_.header;
        // Of records, too: a restore looks at the name before it looks at the type.
        entry->name = long_name_ ? std::string_view(*long_name_) : block_.name();
        if (entry->name.find("../") != std::string::npos || entry->name.size() > name_room_) {
            return Finish(ArchiveEnd::kRefusedName);
        }
        if (header.typeflag == TYPE_LONG_NAME) {
            TakeRecord(&long_name_, "name");
        } else if (header.typeflag == TYPE_LONG_LINK) {
            TakeRecord(&long_link_, "target");
        } else {
            FillEntry(entry);
            return SkipContent(entry->size);
        }
        entry->name.clear();  // of a record that is cut, there is no entry to blame
    }
    return false;
}

// Headers of small entries lie close together: they are read along with the first.
bool ArchiveReader::Read(uint64_t offset, void* buffer, size_t size) {
    constexpr uint64_t kWindow = 16384;
    const auto is_there = [&] {
        return offset >= window_offset_ && offset - window_offset_ <= window_.size() &&
               size <= window_.size() - (offset - window_offset_);
    };
    if (!is_there() && offset <= file_.size()) {
        window_offset_ = offset;
        window_.resize(std::min(kWindow, file_.size() - offset));
        const ssize_t count =
            pread(file_.fd(), window_.data(), window_.size(), static_cast<off_t>(offset));
        window_.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    const bool is_read = is_there();
    if (is_read) {
        std::memcpy(buffer, window_.data() + (offset - window_offset_), size);
    }
    return is_read;
}

// Reads a block that is a header; otherwise this is the end.
bool ArchiveReader::ReadHeader() {
    if (end_ != ArchiveEnd::kNotYet) {
        return false;
    }
    block_offset_ = position_;
    if (!Read(position_, &block_.header, kBlockSize)) {
        return Finish(ArchiveEnd::kNoEndBlocks);
    }
    position_ += kBlockSize;
    if (*block_.bytes() == '\0') {
        char second = 'x';
        const bool ended = Read(position_ + kBlockSize - 1, &second, 1) &&
                           Read(position_, &second, 1) && second == '\0';
        return Finish(ended ? ArchiveEnd::kEndBlocks : ArchiveEnd::kLoneZeroBlock);
    }
    return IsHeader(block_) || Finish(ArchiveEnd::kInvalidBlock);
}

// A restore passes over a record of more bytes than a path has.
void ArchiveReader::TakeRecord(std::optional<std::string>* text, std::string_view what) {
    const uint64_t size =
        NumberAt(offsetof(tar_header, size), sizeof(tar_header::size), UINT64_MAX, "size");
    char buffer[kTarPathSize] = {};
    text->reset();
    if (size >= kTarPathSize) {
        misread_ = what;
    } else if (Read(position_, buffer, static_cast<size_t>(size))) {
        *text = buffer;
    }
    SkipContent(size);
}

void ArchiveReader::FillEntry(ArchiveEntry* entry) {
    const tar_header& header = block_.header;
    const bool is_link = header.typeflag == TYPE_SYMLINK || header.typeflag == '1';
    entry->type =
        header.typeflag == TYPE_REGULAR_OLD ? static_cast<char>(TYPE_REGULAR) : header.typeflag;
    entry->mode = static_cast<uint32_t>(
        NumberAt(offsetof(tar_header, mode), sizeof(header.mode), 07777, "mode") & 07777);
    entry->uid = NumberAt(offsetof(tar_header, uid), sizeof(header.uid), UINT32_MAX, "uid");
    entry->gid = NumberAt(offsetof(tar_header, gid), sizeof(header.gid), UINT32_MAX, "gid");
    entry->mtime = NumberAt(offsetof(tar_header, mtime), sizeof(header.mtime), 0, "");
    // Links and directories have no content, whatever their size says.
    const bool has_content = entry->type != TYPE_SYMLINK && entry->type != TYPE_DIRECTORY;
    entry->size =
        has_content ? NumberAt(offsetof(tar_header, size), sizeof(header.size), UINT64_MAX, "size")
                    : 0;
    entry->data_offset = position_;
    // Other programs put the front of a long name into the prefix; theirs is the other version.
    const std::string_view marks(block_.bytes() + offsetof(tar_header, magic), 8);
    if (!long_name_ && header.prefix[0] != '\0' &&
        marks == std::string_view("ustar\0"
                                  "00",
                                  8)) {
        misread_ = "name";
    }
    entry->link = !is_link     ? std::string_view()
                  : long_link_ ? std::string_view(*long_link_)
                               : block_.linkName();
    // A restore reads on behind a field that is full.
    if (!long_name_ && entry->name.size() >= sizeof(header.name)) {
        misread_ = "name";
    }
    if (!long_link_ && entry->link.size() >= sizeof(header.linkname)) {
        misread_ = "target";
    }
    long_name_.reset();
    long_link_.reset();
    SetPath(entry);
    entry->misread = std::exchange(misread_, {});
}

// The field as a restore reads it: one without a digit takes its value from what follows. Makes a
// note when the bits of `mask`, those that are used, say something else to other programs.
uint64_t ArchiveReader::NumberAt(size_t offset, size_t width, uint64_t mask,
                                 std::string_view what) {
    const char* const field = block_.bytes() + offset;
    const char* const end = field + width;
    // To others, digits follow on spaces, nothing is 0, and the first bit marks a binary number.
    const char* const begin = std::find_if(field, end, [](char byte) { return byte != ' '; });
    uint64_t standard = 0;
    if (std::from_chars(begin, end, standard, 8).ec == std::errc() && begin == field) {
        return standard;
    }
    const uint64_t value = ParseOctalStr(field, width);
    if (mask != 0 && ((*field & 0x80) != 0 || ((standard ^ value) & mask) != 0)) {
        misread_ = what;
    }
    return value;
}

// Moves behind `size` bytes of content and what fills their last block.
bool ArchiveReader::SkipContent(uint64_t size) {
    const uint64_t there = file_.size() - position_;
    if (size > there) {
        return Finish(ArchiveEnd::kDataCut);
    }
    position_ += size;
    position_ += std::min(file_.size() - position_, (kBlockSize - size % kBlockSize) % kBlockSize);
    return true;
}

bool ArchiveReader::Finish(ArchiveEnd end) {
    end_ = end;
    return false;
}

}  // namespace peltexctl
