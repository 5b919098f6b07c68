// Tested by tests/peltexctl/test_archives.py.
#include "archive/export.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

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
    ~Output() { Discard(); }

    // `mode` holds the permission bits that the new file may have, `group` whose those of the group
    // are.
    bool Open(const std::string& path, mode_t mode, gid_t group) {
        if (path == "-") {
            fd_ = UniqueFd(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
            return fd_.isOpen();
        }
        const size_t begin = path.rfind('/') + 1;
        directory_ = UniqueFd(open(begin == 0 ? "." : path.substr(0, begin).c_str(),
                                   O_PATH | O_DIRECTORY | O_CLOEXEC));
        name_ = path.substr(begin);
        struct stat there = {};
        const bool is_there =
            fstatat(directory_.get(), name_.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0;
        if (is_there && !S_ISREG(there.st_mode) && !S_ISLNK(there.st_mode)) {
            fd_ = UniqueFd(openat(directory_.get(), name_.c_str(),
                                  O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
            return fd_.isOpen();
        }
        return Create(is_there && S_ISREG(there.st_mode) ? mode & there.st_mode : mode, group);
    }

    bool Write(const void* data, size_t size) {
        const char* bytes = static_cast<const char*>(data);
        written_ += size;
        while (size > 0) {
            const ssize_t count = write(fd_.get(), bytes, size);
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
        if (!is_new_) {
            return true;
        }
        if (renameat(directory_.get(), unfinished_.c_str(), directory_.get(), name_.c_str()) != 0) {
            return false;
        }
        is_new_ = false;
        return true;
    }

    // Leaves nothing of a file that is not yet there under its name. Returns whether it was one. To
    // be called on any thread.
    bool Discard() {
        return is_new_.exchange(false) &&
               unlinkat(directory_.get(), unfinished_.c_str(), 0) == 0;
    }

  private:
    bool Create(mode_t mode, gid_t group) {
        unfinished_ = name_ + kUnfinished;
        // What a killed export left. Another that is still at work finds its file gone at its end.
        unlinkat(directory_.get(), unfinished_.c_str(), 0);
        fd_ = UniqueFd(openat(directory_.get(), unfinished_.c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        struct stat made = {};
        if (!fd_.isOpen() || fstat(fd_.get(), &made) != 0) {
            return false;
        }
        is_new_ = true;
        const mode_t mask = umask(0);
        umask(mask);
        // The bits of another group are worth no more than those of all others.
        const mode_t others = (mode & 07) << 3 | 0707;
        return fchmod(fd_.get(), mode & 0666 & ~mask & (made.st_gid == group ? 0777 : others)) == 0;
    }

    UniqueFd directory_;
    std::string name_;
    std::string unfinished_;
    std::atomic<bool> is_new_{false};  // there under its unfinished name; signals look at it
    UniqueFd fd_;
    uint64_t written_ = 0;
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

class Exporter {
  public:
    Exporter(const ArchiveSet& set, const std::function<void(uint64_t done)>& progress,
             Output* output, std::string* error)
        : set_(set), progress_(progress), output_(output), error_(error) {}

    bool Run() {
        for (size_t i = 0; i < set_.size(); i++) {
            if (!CopySlice(i)) {
                return false;
            }
        }
        const char end_blocks[kEndBlocksSize] = {};
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
        const std::optional<ArchiveFile> file = set_.OpenSlice(index, error_);
        if (!file) {
            *error_ = fmt::format("{}: {}", set_.NameOf(index), *error_);
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
        if (!entry.IsRestored()) {
            return true;
        }
        if (!is_part) {
            left_ = entry.IsFile() ? WholeSize(index, entry) : 0;
            if (!Wrote(WriteHeader(entry, left_))) {
                return false;
            }
        }
        return !entry.IsFile() || CopyContent(file, entry);
    }

    // The bytes of content of the file of which `entry` is the first part: those of this part and of
    // the parts that the next slices begin with.
    uint64_t WholeSize(size_t index, const ArchiveEntry& entry) const {
        uint64_t size = entry.size;
        bool goes_on = entry.FillsSlice();
        for (size_t i = index + 1; goes_on && i < set_.size(); i++) {
            std::string error;
            const std::optional<ArchiveFile> file = set_.OpenSlice(i, &error);
            ArchiveEntry part;
            if (!file || !ArchiveReader(*file).Next(&part) || !part.Continues()) {
                break;
            }
            size += part.size;
            goes_on = part.FillsSlice();
        }
        return size;
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
        PutNumber(header->chksum, sizeof(header->chksum) - 1, checksumOf(*header));
        return output_->Write(header, sizeof(*header));
    }

    bool CopyContent(const ArchiveFile& file, const ArchiveEntry& entry) {
        if (entry.size > left_) {
            return Changed();
        }
        for (uint64_t done = 0; done < entry.size;) {
            const auto count =
                static_cast<size_t>(std::min<uint64_t>(entry.size - done, kContentChunk));
            if (!file.ReadAt(entry.data_offset + done, buffer_.data(), count)) {
                return Changed();
            }
            if (!Wrote(output_->Write(buffer_.data(), count))) {
                return false;
            }
            done += count;
            progress_(done_ += count);
        }
        left_ -= entry.size;
        return left_ > 0 || Wrote(output_->FillBlock());
    }

    const ArchiveSet& set_;
    const std::function<void(uint64_t done)>& progress_;
    Output* output_;
    std::string* error_;
    std::vector<char> buffer_ = std::vector<char>(kContentChunk);
    uint64_t left_ = 0;  // content of the file at hand that further parts bring
    uint64_t done_ = 0;
};

[[noreturn]] void Interrupt(const std::string& out, Output* output) {
    PrintError(fmt::format(output->Discard() ? "interrupted: nothing of {} is left"
                                             : "interrupted: {} is left as far as it was written",
                           out));
    _exit(kInterrupted);
}

// What an output has to heed of the set that it is made of.
struct Sources {
    bool is_one_of_them = false;
    mode_t mode = 0777;  // what each of them allows
    gid_t group = 0;

    Sources(const ArchiveSet& set, const std::string& out) {
        struct stat target = {};
        has_target_ = out != "-" && stat(out.c_str(), &target) == 0;
        Take(set.file(), target);
        for (size_t i = 0; i < set.size(); i++) {
            std::string error;
            if (const auto file = set.OpenSlice(i, &error)) {
                Take(*file, target);
            }
        }
    }

  private:
    void Take(const ArchiveFile& file, const struct stat& target) {
        struct stat info = {};
        if (fstat(file.fd(), &info) == 0) {
            is_one_of_them = is_one_of_them || (has_target_ && info.st_dev == target.st_dev &&
                                                info.st_ino == target.st_ino);
            mode &= info.st_mode;
            group = info.st_gid;
        }
    }

    bool has_target_ = false;
};

}  // namespace

bool ExportSet(const ArchiveSet& set, const std::string& out,
               const std::function<void(uint64_t done)>& progress, std::string* error) {
    if (out == "-" && isatty(STDOUT_FILENO) == 1) {
        *error = "standard output is a terminal, which no archive is written to";
        return false;
    }
    const Sources sources(set, out);
    if (sources.is_one_of_them) {
        *error = fmt::format("{} is part of the set itself", out);
        return false;
    }
    Output output;
    const SignalScope signals([&](int /*times*/) { Interrupt(out, &output); });
    if (!output.Open(out, sources.mode, sources.group)) {
        *error = fmt::format("cannot write {}: {}", out, ErrorText(errno));
        return false;
    }
    if (!Exporter(set, progress, &output, error).Run()) {
        return false;
    }
    if (!output.Finish()) {
        *error = fmt::format("cannot write {}: {}", out, ErrorText(errno));
        return false;
    }
    return true;
}

}  // namespace peltexctl
