// Tested by tests/peltexctl/test_archives.py.
#include "archive/reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "ui/text.h"

namespace peltexctl {

namespace {

using android::installd::kBlockSize;
using android::installd::kTarPathSize;
using android::installd::tar_header;
using android::installd::TarBlock;

constexpr size_t kChecksumOffset = offsetof(tar_header, chksum);

bool IsOctalDigit(char byte) {
    return (static_cast<unsigned char>(byte) & 0xf8) == 0x30;
}

// The block with the bytes behind it, which end every field that does not end in the block.
const char* Bytes(const TarBlock& block) {
    return reinterpret_cast<const char*>(&block);
}

// Archives of ours have a digit in every field. In others a field without one takes its value from
// what follows, up to the digit behind the block; each byte passed over is one digit less, and once
// the field is used up that way nothing limits the digits but what they are.
uint64_t ParseOctal(const TarBlock& block, size_t offset, size_t width) {
    const char* text = Bytes(block) + offset;
    size_t left = width;
    for (; !IsOctalDigit(*text); text++) {
        left--;
    }
    uint64_t value = 0;
    for (; left != 0 && IsOctalDigit(*text); text++, left--) {
        value = value * 8 + static_cast<uint64_t>(*text - '0');
    }
    return value;
}

uint32_t Checksum(const TarBlock& block) {
    const char* bytes = Bytes(block);
    uint32_t sum = 0;
    for (size_t i = 0; i < kBlockSize; i++) {
        const bool in_field =
            i >= kChecksumOffset && i < kChecksumOffset + sizeof(tar_header::chksum);
        sum += in_field ? 0x20U : static_cast<unsigned char>(bytes[i]);
    }
    return sum;
}

bool IsHeader(const TarBlock& block) {
    return std::memcmp(block.header.magic, "ustar", 5) == 0 &&
           Checksum(block) == static_cast<uint32_t>(
                                  ParseOctal(block, kChecksumOffset, sizeof(tar_header::chksum)));
}

// A text that no NUL ends in its field goes on into the next one.
std::string TextAt(const TarBlock& block, size_t offset) {
    return Bytes(block) + offset;
}

uint64_t SizeOf(const TarBlock& block) {
    return ParseOctal(block, offsetof(tar_header, size), sizeof(tar_header::size));
}

}  // namespace

std::optional<ArchiveFile> ArchiveFile::Open(const std::string& path, std::string* error) {
    // Without waiting: a FIFO of that name would hold up the call for ever.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == -1) {
        *error = fmt::format("cannot open {}: {}", path, ErrorText(errno));
        return std::nullopt;
    }
    ArchiveFile file(fd, 0);
    struct stat info = {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        *error = fmt::format("{} is no regular file: an archive, a slice or a check file is wanted",
                             path);
        return std::nullopt;
    }
    file.size_ = static_cast<uint64_t>(info.st_size);
    return file;
}

ArchiveFile::ArchiveFile(ArchiveFile&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), size_(other.size_) {}

ArchiveFile::~ArchiveFile() {
    if (fd_ != -1) {
        close(fd_);
    }
}

bool ArchiveFile::ReadAt(uint64_t offset, void* buffer, size_t size) const {
    if (offset > size_ || size > size_ - offset) {
        return false;
    }
    size_t done = 0;
    while (done < size) {
        const ssize_t count = pread(fd_, static_cast<char*>(buffer) + done, size - done,
                                    static_cast<off_t>(offset + done));
        if (count == 0 || (count == -1 && errno != EINTR)) {
            return false;
        }
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return true;
}

bool ArchiveEntry::FillsSlice() const {
    using namespace android::installd;
    return type == TYPE_MIDDLE_PART ||
           (type == TYPE_FIRST_PART && size > 0 && size % kContentChunk == 0);
}

bool ArchiveEntry::Continues() const {
    using namespace android::installd;
    return type == TYPE_MIDDLE_PART || type == TYPE_LAST_PART;
}

bool ArchiveEntry::IsFile() const {
    using namespace android::installd;
    return type == TYPE_REGULAR || type == TYPE_FIRST_PART || Continues();
}

const char* DescribeEnd(ArchiveEnd end) {
    switch (end) {
        case ArchiveEnd::kEndBlocks:
            return "ends with its end blocks";
        case ArchiveEnd::kLoneZeroBlock:
            return "a single zero block ends it here";
        case ArchiveEnd::kNoEndBlocks:
            return "ends without its end blocks";
        case ArchiveEnd::kInvalidBlock:
            return "no valid header where one should be";
        case ArchiveEnd::kRefusedName:
            return "a restore ends here: it refuses names with \"../\"";
        case ArchiveEnd::kDataCut:
            return "the bytes that its header promises are not there";
        case ArchiveEnd::kNotYet:
            break;
    }
    return "";
}

bool IsHeaderAt(const ArchiveFile& file, uint64_t offset) {
    TarBlock block;
    return file.ReadAt(offset, &block.header, kBlockSize) && IsHeader(block);
}

bool ArchiveReader::Next(ArchiveEntry* entry) {
    using namespace android::installd;
    *entry = ArchiveEntry();
    while (ReadHeader()) {
        const tar_header& header = block_.header;
        if (header.typeflag == TYPE_LONG_NAME) {
            TakeRecord(&long_name_, &lost_record_);
        } else if (header.typeflag == TYPE_LONG_LINK) {
            TakeRecord(&long_link_, &lost_record_);
        } else {
            FillEntry(entry);
            if (entry->name.find("../") != std::string::npos) {
                return Finish(ArchiveEnd::kRefusedName);
            }
            // Links and directories have no content, whatever their size says.
            const bool has_content = entry->type != TYPE_SYMLINK && entry->type != TYPE_DIRECTORY;
            return !has_content || SkipContent(entry->size);
        }
    }
    return false;
}

// Reads a block that is a header; otherwise this is the end.
bool ArchiveReader::ReadHeader() {
    if (end_ != ArchiveEnd::kNotYet) {
        return false;
    }
    if (!ReadBlock()) {
        return Finish(ArchiveEnd::kNoEndBlocks);
    }
    if (*Bytes(block_) == '\0') {
        char second = 'x';
        const bool ended = file_.ReadAt(position_ + kBlockSize - 1, &second, 1) &&
                           file_.ReadAt(position_, &second, 1) && second == '\0';
        return Finish(ended ? ArchiveEnd::kEndBlocks : ArchiveEnd::kLoneZeroBlock);
    }
    return IsHeader(block_) || Finish(ArchiveEnd::kInvalidBlock);
}

bool ArchiveReader::ReadBlock() {
    block_offset_ = position_;
    if (!file_.ReadAt(position_, &block_.header, kBlockSize)) {
        return false;
    }
    position_ += kBlockSize;
    return true;
}

void ArchiveReader::TakeRecord(std::optional<std::string>* text, bool* lost) {
    const uint64_t size = SizeOf(block_);
    const uint64_t offset = position_;
    text->reset();
    if (size >= kTarPathSize) {
        *lost = true;
    } else {
        char buffer[kTarPathSize] = {};
        if (file_.ReadAt(offset, buffer, static_cast<size_t>(size))) {
            *text = buffer;
        }
    }
    SkipContent(size);
}

void ArchiveReader::FillEntry(ArchiveEntry* entry) {
    const tar_header& header = block_.header;
    entry->header = header;
    entry->type = header.typeflag == android::installd::TYPE_REGULAR_OLD
                      ? static_cast<char>(android::installd::TYPE_REGULAR)
                      : header.typeflag;
    entry->mode = static_cast<uint32_t>(
        ParseOctal(block_, offsetof(tar_header, mode), sizeof(header.mode)) & 07777);
    entry->uid = ParseOctal(block_, offsetof(tar_header, uid), sizeof(header.uid));
    entry->gid = ParseOctal(block_, offsetof(tar_header, gid), sizeof(header.gid));
    entry->size = SizeOf(block_);
    entry->mtime = ParseOctal(block_, offsetof(tar_header, mtime), sizeof(header.mtime));
    entry->data_offset = position_;
    entry->long_name = long_name_.has_value();
    entry->long_link = long_link_.has_value();
    entry->lost_record = std::exchange(lost_record_, false);
    entry->name = long_name_ ? *long_name_ : TextAt(block_, offsetof(tar_header, name));
    entry->link = long_link_ ? *long_link_ : TextAt(block_, offsetof(tar_header, linkname));
    long_name_.reset();
    long_link_.reset();
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
