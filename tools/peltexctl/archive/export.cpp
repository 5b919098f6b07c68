// Tested by tests/peltexctl/test_archives.py.
#include "archive/export.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>

#include "archive/listing.h"
#include "archive/reader.h"
#include "ui/exit_code.h"
#include "ui/signals.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using namespace android::installd;

constexpr size_t kShortText = sizeof(tar_header::name);

// Where the archive goes: into a new file beside `path`, which takes its place at the end, or
// straight to standard output or what else is no regular file.
class Output {
  public:
    ~Output() {
        if (owned_ && fd_ != -1) {
            close(fd_);
        }
        Discard();
    }

    bool Open(const std::string& path) {
        path_ = path;
        if (path == "-") {
            owned_ = false;
            fd_ = STDOUT_FILENO;
            return true;
        }
        struct stat info = {};
        if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
            fd_ = open(path.c_str(), O_WRONLY | O_CLOEXEC);
            return fd_ != -1;
        }
        const std::lock_guard lock(mutex_);
        std::string name = path + ".XXXXXX";
        fd_ = mkostemp(name.data(), O_CLOEXEC);
        if (fd_ == -1) {
            return false;
        }
        temporary_ = name;
        const mode_t mask = umask(0);
        umask(mask);
        return fchmod(fd_, 0666 & ~mask) == 0;
    }

    bool Write(const void* data, size_t size) {
        const char* bytes = static_cast<const char*>(data);
        written_ += size;
        while (size > 0) {
            const ssize_t count = write(fd_, bytes, size);
            if (count == -1 && errno != EINTR) {
                return false;
            }
            const size_t done = count > 0 ? static_cast<size_t>(count) : 0;
            bytes += done;
            size -= done;
        }
        return true;
    }

    bool FillBlock() {
        const char zeros[kBlockSize] = {};
        return Write(zeros, (kBlockSize - written_ % kBlockSize) % kBlockSize);
    }

    // Makes it be there under its name.
    bool Finish() {
        const std::lock_guard lock(mutex_);
        if (temporary_.empty()) {
            return true;
        }
        const int fd = fd_;
        fd_ = -1;
        if (close(fd) != 0 || rename(temporary_.c_str(), path_.c_str()) != 0) {
            return false;
        }
        temporary_.clear();
        return true;
    }

    // Leaves nothing of a file that is not yet there under its name. Returns whether it was one.
    bool Discard() {
        const std::lock_guard lock(mutex_);
        return !temporary_.empty() && unlink(temporary_.c_str()) == 0;
    }

    uint64_t written() const { return written_; }

  private:
    std::string path_;
    std::mutex mutex_;
    std::string temporary_;  // protected by mutex_: a signal can ask for its removal
    int fd_ = -1;
    bool owned_ = true;
    std::atomic<uint64_t> written_{0};  // the signals' thread looks at it
};

// Octal digits and a NUL; without the NUL when they need its place, and as a binary number, as
// other programs do, when they need more.
void PutNumber(char* field, size_t width, uint64_t value) {
    const std::string digits = fmt::format("{:0{}o}", value, width - 1);
    if (digits.size() <= width) {
        digits.copy(field, digits.size());
        return;
    }
    for (size_t i = width; i-- > 1; value >>= 8) {
        field[i] = static_cast<char>(value & 0xff);
    }
    field[0] = static_cast<char>(0x80);
}

void PutText(char* field, size_t width, const std::string& text) {
    text.copy(field, width - 1);
}

void PutChecksum(tar_header* header) {
    std::memset(header->chksum, ' ', sizeof(header->chksum));
    const auto* bytes = reinterpret_cast<const unsigned char*>(header);
    uint64_t sum = 0;
    for (size_t i = 0; i < sizeof(*header); i++) {
        sum += bytes[i];
    }
    PutNumber(header->chksum, sizeof(header->chksum) - 1, sum);
    header->chksum[6] = '\0';
}

class Exporter {
  public:
    Exporter(const ArchiveSet& set, Output* output, std::string* error)
        : set_(set),
          output_(output),
          error_(error),
          buffer_(std::make_unique<char[]>(kContentChunk)) {}

    bool Run(uint64_t* entries) {
        for (size_t i = 0; i < set_.slices.size(); i++) {
            if (!CopySlice(i)) {
                return false;
            }
        }
        const char end_blocks[kEndBlocksSize] = {};
        *entries = entries_;
        return left_ == 0 ? Wrote(output_->Write(end_blocks, sizeof(end_blocks))) : Changed();
    }

  private:
    bool Wrote(bool done) {
        if (!done) {
            *error_ = fmt::format("cannot write the archive: {}", ErrorText(errno));
        }
        return done;
    }

    bool Changed() {
        *error_ = "the set changed while it was read";
        return false;
    }

    bool CopySlice(size_t index) {
        const std::optional<ArchiveFile> file = ArchiveFile::Open(set_.slices[index].path, error_);
        if (!file) {
            return false;
        }
        ArchiveReader reader(*file);
        ArchiveEntry entry;
        while (reader.Next(&entry)) {
            if (!CopyEntry(*file, index, entry)) {
                return false;
            }
        }
        return reader.end() == ArchiveEnd::kEndBlocks || Changed();
    }

    bool CopyEntry(const ArchiveFile& file, size_t index, const ArchiveEntry& entry) {
        const bool is_part = entry.Continues();
        if (is_part != (left_ > 0)) {
            return Changed();
        }
        if (!is_part && !entry.IsFile() && entry.type != TYPE_SYMLINK &&
            entry.type != TYPE_DIRECTORY) {
            return true;  // a restore passes over it too
        }
        if (!is_part) {
            left_ = entry.IsFile() ? WholeSize(set_, index, entry) : 0;
            entries_++;
            if (!Wrote(WriteHeader(entry, left_))) {
                return false;
            }
        }
        return !entry.IsFile() || CopyContent(file, entry);
    }

    bool WriteHeader(const ArchiveEntry& entry, uint64_t size) {
        tar_header header = {};
        const bool is_link = entry.type == TYPE_SYMLINK;
        PutText(header.name, kShortText, entry.name);
        PutText(header.linkname, kShortText, is_link ? entry.link : "");
        PutNumber(header.mode, sizeof(header.mode), entry.mode);
        PutNumber(header.uid, sizeof(header.uid), entry.uid);
        PutNumber(header.gid, sizeof(header.gid), entry.gid);
        PutNumber(header.mtime, sizeof(header.mtime), entry.mtime);
        std::memcpy(header.uname, entry.header.uname, sizeof(header.uname) - 1);
        std::memcpy(header.gname, entry.header.gname, sizeof(header.gname) - 1);
        header.typeflag = entry.IsFile() ? static_cast<char>(TYPE_REGULAR) : entry.type;
        return (!is_link || WriteRecord(entry.link, TYPE_LONG_LINK)) &&
               WriteRecord(entry.name, TYPE_LONG_NAME) && WriteBlock(&header, size);
    }

    bool WriteRecord(const std::string& text, char type) {
        if (text.size() < kShortText) {
            return true;
        }
        tar_header header = {};
        PutText(header.name, kShortText, "././@LongLink");
        PutNumber(header.mode, sizeof(header.mode), 0);
        PutNumber(header.uid, sizeof(header.uid), 0);
        PutNumber(header.gid, sizeof(header.gid), 0);
        PutNumber(header.mtime, sizeof(header.mtime), 0);
        header.typeflag = type;
        return WriteBlock(&header, text.size() + 1) &&
               output_->Write(text.c_str(), text.size() + 1) && output_->FillBlock();
    }

    bool WriteBlock(tar_header* header, uint64_t size) {
        PutNumber(header->size, sizeof(header->size), size);
        PutText(header->magic, sizeof(header->magic), "ustar");
        std::memcpy(header->version, "00", sizeof(header->version));
        PutChecksum(header);
        return output_->Write(header, sizeof(*header));
    }

    bool CopyContent(const ArchiveFile& file, const ArchiveEntry& entry) {
        if (entry.size > left_) {
            return Changed();
        }
        for (uint64_t done = 0; done < entry.size;) {
            const auto count =
                static_cast<size_t>(std::min<uint64_t>(entry.size - done, kContentChunk));
            if (!file.ReadAt(entry.data_offset + done, buffer_.get(), count)) {
                return Changed();
            }
            if (!Wrote(output_->Write(buffer_.get(), count))) {
                return false;
            }
            done += count;
        }
        left_ -= entry.size;
        return left_ > 0 || Wrote(output_->FillBlock());
    }

    const ArchiveSet& set_;
    Output* output_;
    std::string* error_;
    const std::unique_ptr<char[]> buffer_;
    uint64_t entries_ = 0;
    uint64_t left_ = 0;  // content of the file at hand that further parts bring
};

[[noreturn]] void Interrupt(const std::string& out, Output* output) {
    PrintError(fmt::format(output->Discard() ? "interrupted: nothing of {} is left"
                                             : "interrupted: {} is left as far as it was written",
                           out));
    _exit(kInterrupted);
}

// Whether the output would take the place of what it is made from.
bool IsInput(const ArchiveSet& set, const std::string& out) {
    struct stat target = {};
    if (out == "-" || stat(out.c_str(), &target) != 0) {
        return false;
    }
    const auto same = [&target](const std::string& path) {
        struct stat info = {};
        return stat(path.c_str(), &info) == 0 && info.st_dev == target.st_dev &&
               info.st_ino == target.st_ino;
    };
    return same(set.path) ||
           std::any_of(set.slices.begin(), set.slices.end(),
                       [&same](const ArchiveSet::Slice& slice) { return same(slice.path); });
}

}  // namespace

bool ExportSet(const ArchiveSet& set, const std::string& out, ExportCounts* counts,
               std::string* error) {
    if (IsInput(set, out)) {
        *error = fmt::format("{} is part of the set itself", out);
        return false;
    }
    Output output;
    const SignalScope signals(
        [&] {
            fmt::print(stderr, "{}: {} written\n", EscapeBytes(out), HumanSize(output.written()));
        },
        [&] { Interrupt(out, &output); });
    if (!output.Open(out)) {
        *error = fmt::format("cannot write {}: {}", out, ErrorText(errno));
        return false;
    }
    if (!Exporter(set, &output, error).Run(&counts->entries)) {
        return false;
    }
    if (!output.Finish()) {
        *error = fmt::format("cannot write {}: {}", out, ErrorText(errno));
        return false;
    }
    counts->bytes = output.written();
    return true;
}

}  // namespace peltexctl
