// Tested by tests/client/peltexctl.md.
#include "archive/reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

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

ArchiveFile::ArchiveFile(int directory, const std::string& name, int flags) {
    // A device is not even opened, and a FIFO that takes the file's place not waited for.
    struct stat info = {};
    const bool is_other = fstatat(directory, name.c_str(), &info, 0) == 0 && !S_ISREG(info.st_mode);
    fd_ = std::make_shared<const UniqueFd>(
        is_other ? -1 : openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | flags));
    if (!is_other && (fd() == -1 || fstat(fd(), &info) != 0)) {
        fault_ = errno == ELOOP ? "is a symbolic link"
                                : "cannot be opened: " + std::generic_category().message(errno);
    } else if (!S_ISREG(info.st_mode)) {
        fault_ = "is no regular file: an archive, a slice or a check file is wanted";
    } else {
        size_ = static_cast<uint64_t>(info.st_size);
    }
}

UniqueFile ArchiveFile::Stream() const {
    return UniqueFile(fdopen(fcntl(fd(), F_DUPFD_CLOEXEC, 0), "re"));
}

ssize_t ArchiveFile::Read(uint64_t offset, void* buffer, size_t size) const {
    if (view_ != nullptr) {
        view_->SetDone(begin_ + offset);
        view_->Tick();
    }
    return pread(fd(), buffer, size, static_cast<off_t>(offset));
}

bool ArchiveFile::ReadAt(uint64_t offset, void* buffer, size_t size) const {
    return offset <= size_ && size <= size_ - offset &&
           Read(offset, buffer, size) == static_cast<ssize_t>(size);
}

uint64_t ArchiveFile::FindNonZero(uint64_t offset) const {
    char buffer[16384];
    while (offset < size_) {
        // Where holes are not known, everything is data.
        if (const off_t data = lseek(fd(), static_cast<off_t>(offset), SEEK_DATA); data != -1) {
            offset = static_cast<uint64_t>(data);
        } else if (errno == ENXIO) {
            return size_;
        }
        const uint64_t count = std::min<uint64_t>(sizeof(buffer), size_ - std::min(offset, size_));
        if (!ReadAt(offset, buffer, count)) {
            return offset;
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

const TypeWords& WordsOf(char type) {
    static constexpr TypeWords kWords[] = {
        {TYPE_REGULAR, '-', ""},
        {TYPE_SYMLINK, 'l', ""},
        {TYPE_DIRECTORY, 'd', ""},
        {TYPE_FIRST_PART, '-', "first part"},
        {TYPE_MIDDLE_PART, '-', "middle part"},
        {TYPE_LAST_PART, '-', "last part"},
        {'1', 'h', "hard link"},
        {'3', 'c', "device"},
        {'4', 'b', "device"},
        {'6', 'p', "FIFO"},
        {'g', '?', "extended header"},
        {'x', '?', "extended header"},
        {'V', '?', "volume label"},
        {'\0', '?', "entry of an unknown type"},
    };
    return *std::find_if(std::begin(kWords), std::end(kWords) - 1,
                         [type](const TypeWords& row) { return row.type == type; });
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
        if (entry->name.find("../") != std::string::npos ||
            in_front_ + entry->name.size() >= kTarPathSize) {
            return Finish(
                "a restore ends here: it refuses names with \"../\" and paths of more than 2,047 "
                "bytes",
                true);
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

bool ArchiveReader::ReadHeader() {
    if (fault_ != nullptr) {
        return false;
    }
    block_offset_ = position_;
    const char* const bytes = BytesAt(position_, kBlockSize);
    if (bytes == nullptr) {
        return Finish("ends without its end blocks");
    }
    std::memcpy(&block_.header, bytes, kBlockSize);
    position_ += kBlockSize;
    if (*block_.bytes() == '\0') {
        const char* const second = BytesAt(position_, kBlockSize);
        return Finish(second != nullptr && *second == '\0' ? ""
                                                           : "a single zero block ends it here");
    }
    return IsHeader(block_) || Finish("no valid header where one should be");
}

// Bytes of the file, until the next call; null where they are not all there. Reads up to the end of
// a page: headers of small entries lie close together, and what is behind others is content.
const char* ArchiveReader::BytesAt(uint64_t offset, uint64_t size) {
    if (offset < window_begin_ || offset + size > window_end_) {
        const uint64_t end = (offset + size + kPage - 1) / kPage * kPage;
        const ssize_t count =
            file_.Read(offset, window_.get(), std::min(end, file_.size()) - offset);
        window_begin_ = offset;
        window_end_ = offset + static_cast<uint64_t>(std::max<ssize_t>(count, 0));
    }
    return offset + size <= window_end_ ? window_.get() + (offset - window_begin_) : nullptr;
}

// A restore passes over a record of more bytes than a path has.
void ArchiveReader::TakeRecord(std::optional<std::string>* text, std::string_view what) {
    const uint64_t size = Number(block_.header.size, UINT64_MAX, "size");
    text->reset();
    if (size >= kTarPathSize) {
        misread_ = what;
    } else if (const char* const bytes = BytesAt(position_, size)) {
        text->emplace(bytes, strnlen(bytes, size));
    }
    SkipContent(size);
}

void ArchiveReader::FillEntry(ArchiveEntry* entry) {
    const tar_header& header = block_.header;
    const bool is_link = header.typeflag == TYPE_SYMLINK || header.typeflag == '1';
    entry->type =
        header.typeflag == TYPE_REGULAR_OLD ? static_cast<char>(TYPE_REGULAR) : header.typeflag;
    entry->mode = static_cast<uint32_t>(Number(header.mode, 07777, "mode") & 07777);
    entry->uid = Number(header.uid, UINT32_MAX, "uid");
    entry->gid = Number(header.gid, UINT32_MAX, "gid");
    entry->mtime = Number(header.mtime, 0, "");
    // Links and directories have no content, whatever their size says.
    const bool has_content = entry->type != TYPE_SYMLINK && entry->type != TYPE_DIRECTORY;
    entry->size = has_content ? Number(header.size, UINT64_MAX, "size") : 0;
    entry->data_offset = position_;
    if (!is_link) {
        entry->link.clear();
    } else {
        entry->link = long_link_ ? std::string_view(*long_link_) : block_.linkName();
    }
    // Other programs put the front of a long name into the prefix, with both digits of the version;
    // and a restore reads on behind a field that is full.
    const bool has_prefix = header.prefix[0] != '\0' &&
                            std::memcmp(header.magic, "ustar", 6) == 0 &&
                            std::memcmp(header.version, "00", sizeof(header.version)) == 0;
    if (!long_name_ && (has_prefix || entry->name.size() >= sizeof(header.name))) {
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
template <size_t kWidth>
uint64_t ArchiveReader::Number(const char (&field)[kWidth], uint64_t mask, std::string_view what) {
    // To others, digits follow on spaces, nothing is 0, and the first bit marks a binary number.
    const char* const end = field + kWidth;
    const char* const begin = std::find_if(field, end, [](char byte) { return byte != ' '; });
    uint64_t standard = 0;
    if (std::from_chars(begin, end, standard, 8).ec == std::errc() && begin == field) {
        return standard;
    }
    const uint64_t value = ParseOctalStr(field, kWidth);
    if (mask != 0 && ((*field & 0x80) != 0 || ((standard ^ value) & mask) != 0)) {
        misread_ = what;
    }
    return value;
}

bool ArchiveReader::SkipContent(uint64_t size) {
    const uint64_t there = file_.size() - position_;
    if (size > there) {
        return Finish("the bytes that its header promises are not there", true);
    }
    position_ += size;
    position_ += std::min(file_.size() - position_, (kBlockSize - size % kBlockSize) % kBlockSize);
    return true;
}

bool ArchiveReader::Finish(const char* fault, bool blames_entry) {
    fault_ = fault;
    blames_entry_ = blames_entry;
    return false;
}

}  // namespace peltexctl
