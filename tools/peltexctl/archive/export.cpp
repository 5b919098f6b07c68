// Tested by tests/client/peltexctl.md.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "archive/commands.h"
#include "archive/new_file.h"
#include "ui/ending.h"

namespace peltexctl {

namespace {

using namespace android::installd;

constexpr uint64_t kLargestFile = 0xFFFFFFFFF;  // what twelve octal digits hold

void ExpectSame(bool is_so) {
    Ensure(is_so, "the set changed while it was read");
}

// Where the archive goes: into a new file beside `path`, which takes its place at the end, or
// straight to standard output or what else is no regular file.
class Output {
  public:
    explicit Output(const std::string& path) : path_(path) {}

    void Open() {
        if (path_ == "-") {
            return;
        }
        const std::string name = path_.substr(path_.rfind('/') + 1);
        directory_ = DirectoryOf(path_);
        Require(directory_.isOpen(), failure_);
        fstatat(directory_.get(), name.c_str(), &there_, AT_SYMLINK_NOFOLLOW);
        const mode_t type = there_.st_mode & S_IFMT;  // 0 where nothing is
        if (type == 0 || type == S_IFREG || type == S_IFLNK) {
            mode_ &= type == S_IFREG ? there_.st_mode : 0666;
            file_.Create(directory_.get(), name);
            fd_ = file_.fd();
        } else {
            other_ =
                UniqueFd(openat(directory_.get(), name.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
            fd_ = other_.get();
        }
        Require(fd_ != -1, failure_);
    }

    // Heeds a file that the archive is made of: who cannot read it must not be able to read that
    // either. And the archive must not take its place.
    void Heed(const ArchiveFile& source) {
        struct stat info = {};
        struct stat own = {};
        Require(fstat(source.fd(), &info) == 0 && fstat(fd_, &own) == 0, failure_);
        mode_ &= info.st_mode;
        if (own.st_gid != info.st_gid) {
            mode_ &= (info.st_mode & 07) << 3 | 0707;
        }
        Ensure(info.st_dev != there_.st_dev || info.st_ino != there_.st_ino,
               "the output is part of the set itself");
    }

    void Write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t count = write(fd_, bytes.data(), bytes.size());
            Require(count != -1, failure_);
            bytes.remove_prefix(static_cast<size_t>(count));
        }
    }

    // Makes it be there under its name.
    void Finish() {
        const mode_t mask = umask(0);
        umask(mask);
        Require(fd_ != file_.fd() || file_.Finish(mode_ & ~mask), failure_);
    }

    [[noreturn]] void Interrupt() {
        EndInterrupted(fmt::format(file_.Discard()
                                       ? "interrupted: nothing of {} is left"
                                       : "interrupted: {} is left as far as it was written",
                                   path_));
    }

  private:
    const std::string path_;
    const std::string failure_ = "cannot write " + (path_ == "-" ? "the archive" : path_);
    int fd_ = STDOUT_FILENO;
    UniqueFd directory_;
    UniqueFd other_;  // what is no new file
    NewFile file_;
    struct stat there_ = {};  // what has the name before
    mode_t mode_ = 0666;
};

class Exporter {
  public:
    Exporter(const ArchiveSet& set, Output* output) : set_(set), output_(*output) {}

    void Run() {
        output_.Heed(set_.file());
        for (size_t i = 0; i < set_.size(); i++) {
            const ArchiveFile file = set_.OpenSlice(i);
            ExpectSame(file.fault().empty());
            output_.Heed(file);
            ArchiveReader reader(file);
            for (ArchiveEntry entry; reader.Next(&entry);) {
                if (entry.IsRestored()) {
                    CopyEntry(file, i, entry, reader.header());
                }
            }
            ExpectSame(reader.has_end_blocks());
        }
        ExpectSame(left_ == 0);
        output_.Write(std::string(kEndBlocksSize, '\0'));
    }

  private:
    void FillBlock(uint64_t size) {
        output_.Write(std::string((kBlockSize - size % kBlockSize) % kBlockSize, '\0'));
    }

    void CopyEntry(const ArchiveFile& file, size_t index, const ArchiveEntry& entry,
                   const tar_header& header) {
        ExpectSame(entry.Continues() == (left_ > 0));
        if (!entry.Continues()) {
            size_ = left_ = entry.IsFile() ? WholeSize(index, entry) : 0;
            WriteRecord(header, TYPE_LONG_LINK, entry.link);
            WriteRecord(header, TYPE_LONG_NAME, entry.name);
            WriteHeader(header, entry.IsFile() ? TYPE_REGULAR : TypeFlag{entry.type}, size_);
        }
        ExpectSame(entry.size <= left_);
        left_ -= entry.size;
        for (uint64_t done = 0, count = 0; done < entry.size; done += count) {
            count = std::min<uint64_t>(entry.size - done, buffer_.size());
            ExpectSame(file.ReadAt(entry.data_offset + done, buffer_.data(), count));
            output_.Write({buffer_.data(), count});
        }
        if (left_ == 0) {
            FillBlock(size_);
        }
    }

    // The bytes of content of the file of which `entry` is the first part: those of this part and
    // of the parts that the next slices begin with.
    uint64_t WholeSize(size_t index, const ArchiveEntry& entry) const {
        uint64_t size = entry.size;
        ArchiveEntry part = entry;
        while (part.FillsSlice() && ++index < set_.size()) {
            // Without the set's progress, which would jump ahead.
            const ArchiveFile file(set_.directory(), set_.NameOf(index), O_NOFOLLOW);
            if (!ArchiveReader(file).Next(&part) || !part.Continues()) {
                break;
            }
            size += part.size;
        }
        return size;
    }

    void WriteRecord(tar_header header, TypeFlag type, const std::string& text) {
        if (text.size() >= sizeof(header.name)) {
            std::memset(header.name, 0, sizeof(header.name));
            std::string_view("././@LongLink").copy(header.name, sizeof(header.name));
            WriteHeader(header, type, text.size() + 1);
            output_.Write({text.c_str(), text.size() + 1});
            FillBlock(text.size() + 1);
        }
    }

    // The stored header with what is other than it was, and with both digits of the version, which
    // make the prefix be looked at.
    void WriteHeader(tar_header header, TypeFlag type, uint64_t size) {
        Ensure(size <= kLargestFile, "a file is larger than a header can say");
        header.typeflag = type;
        I2Ocs(header.size, sizeof(header.size), static_cast<long>(size));
        std::memcpy(header.magic, "ustar", sizeof(header.magic));
        std::memcpy(header.version, "00", sizeof(header.version));
        std::memset(header.prefix, 0, sizeof(header.prefix));
        FillSum(header);
        output_.Write({bytesOf(header), sizeof(header)});
    }

    const ArchiveSet& set_;
    Output& output_;
    std::vector<char> buffer_ = std::vector<char>(kContentChunk);
    uint64_t size_ = 0;  // content of the file at hand
    uint64_t left_ = 0;  // and what of it further parts bring
};

}  // namespace

void ExportSet(const ArchiveSet& set, const std::string& out) {
    Ensure(out != "-" || isatty(STDOUT_FILENO) != 1, "no archive is written to a terminal");
    Output output(out);
    const SignalScope signals([&] { output.Interrupt(); });
    output.Open();
    Exporter(set, &output).Run();
    output.Finish();
}

}  // namespace peltexctl
