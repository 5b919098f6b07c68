// Tested by tests/peltexctl/test_archives.py.
#include "archive/export.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include "archive/new_file.h"
#include "archive/reader.h"
#include "ui/exit_code.h"
#include "ui/signals.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using namespace android::installd;

constexpr uint64_t kLargestFile = 0xFFFFFFFFF;  // what twelve octal digits hold

// Where the archive goes: into a new file beside `path`, which takes its place at the end, or
// straight to standard output or what else is no regular file.
class Output {
  public:
    explicit Output(const std::string& path) : path_(path) {}

    bool Open() {
        if (path_ == "-") {
            fd_ = UniqueFd(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
            return fd_.isOpen();
        }
        const size_t begin = path_.rfind('/') + 1;
        const std::string name = path_.substr(begin);
        directory_ = UniqueFd(open(begin == 0 ? "." : path_.substr(0, begin).c_str(),
                                   O_PATH | O_DIRECTORY | O_CLOEXEC));
        is_there_ = fstatat(directory_.get(), name.c_str(), &there_, AT_SYMLINK_NOFOLLOW) == 0;
        if (is_there_ && !S_ISREG(there_.st_mode) && !S_ISLNK(there_.st_mode)) {
            fd_ =
                UniqueFd(openat(directory_.get(), name.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
            return fd_.isOpen();
        }
        if (is_there_ && S_ISREG(there_.st_mode)) {
            mode_ &= there_.st_mode;
        }
        return file_.Create(directory_.get(), name);
    }

    // Heeds a file that the archive is made of: who cannot read it must not be able to read that
    // either. Returns false when it is the file whose place the archive would take.
    bool Heed(const ArchiveFile& source) {
        struct stat info = {};
        if (fstat(source.fd(), &info) != 0) {
            return false;
        }
        mode_ &= info.st_mode;
        struct stat own = {};
        if (file_.fd() != -1 && fstat(file_.fd(), &own) == 0 && own.st_gid != info.st_gid) {
            mode_ &= (info.st_mode & 07) << 3 | 0707;
        }
        return !is_there_ || info.st_dev != there_.st_dev || info.st_ino != there_.st_ino;
    }

    void Write(std::string_view bytes) {
        const int fd = file_.fd() != -1 ? file_.fd() : fd_.get();
        while (!bytes.empty()) {
            const ssize_t count = write(fd, bytes.data(), bytes.size());
            if (count == -1 && errno != EINTR) {
                throw std::system_error(errno, std::generic_category(), "cannot write the archive");
            }
            bytes.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
        }
    }

    // Makes it be there under its name.
    bool Finish() {
        const mode_t mask = umask(0);
        umask(mask);
        return file_.fd() == -1 || file_.Finish(mode_ & 0666 & ~mask);
    }

    [[noreturn]] void Interrupt() {
        EndInterrupted(fmt::format(file_.Discard()
                                       ? "interrupted: nothing of {} is left"
                                       : "interrupted: {} is left as far as it was written",
                                   path_));
    }

  private:
    const std::string path_;
    UniqueFd directory_;
    UniqueFd fd_;  // of what is no new file
    NewFile file_;
    bool is_there_ = false;
    struct stat there_ = {};
    mode_t mode_ = 0777;
};

void Expect(bool is_so, const char* otherwise = "the set changed while it was read") {
    if (!is_so) {
        throw std::runtime_error(otherwise);
    }
}

class Exporter {
  public:
    Exporter(const ArchiveSet& set, const std::function<void(uint64_t done)>& progress,
             Output* output)
        : set_(set), progress_(progress), output_(*output) {}

    void Run() {
        constexpr char kIsInput[] = "the output is part of the set itself";
        Expect(output_.Heed(set_.file()), kIsInput);
        for (size_t i = 0; i < set_.size(); i++) {
            std::string error;
            const std::optional<ArchiveFile> file = set_.OpenSlice(i, &error);
            Expect(file.has_value());
            Expect(output_.Heed(*file), kIsInput);
            ArchiveReader reader(*file);
            for (ArchiveEntry entry; reader.Next(&entry);) {
                if (entry.IsRestored()) {
                    CopyEntry(*file, i, entry, reader.header());
                }
            }
            Expect(reader.end() == ArchiveEnd::kEndBlocks);
        }
        Expect(left_ == 0);
        output_.Write(std::string(kEndBlocksSize, '\0'));
    }

  private:
    void FillBlock(uint64_t size) {
        output_.Write(std::string((kBlockSize - size % kBlockSize) % kBlockSize, '\0'));
    }

    void CopyEntry(const ArchiveFile& file, size_t index, const ArchiveEntry& entry,
                   const tar_header& header) {
        Expect(entry.Continues() == (left_ > 0));
        if (!entry.Continues()) {
            size_ = left_ = entry.IsFile() ? WholeSize(index, entry) : 0;
            WriteRecord(header, TYPE_LONG_LINK, entry.link);
            WriteRecord(header, TYPE_LONG_NAME, entry.name);
            WriteHeader(header, entry.IsFile() ? TYPE_REGULAR : TypeFlag{entry.type}, size_);
        }
        Expect(entry.size <= left_);
        for (uint64_t done = 0; done < entry.size;) {
            const auto count =
                static_cast<size_t>(std::min<uint64_t>(entry.size - done, buffer_.size()));
            Expect(file.ReadAt(entry.data_offset + done, buffer_.data(), count));
            output_.Write({buffer_.data(), count});
            done += count;
            progress_(done_ += count);
        }
        left_ -= entry.size;
        if (left_ == 0) {
            FillBlock(size_);
        }
    }

    // The bytes of content of the file of which `entry` is the first part: those of this part and
    // of the parts that the next slices begin with.
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
        Expect(size <= kLargestFile, "a file is larger than a header can say");
        header.typeflag = type;
        I2Ocs(header.size, sizeof(header.size), static_cast<long>(size));
        std::memcpy(header.magic, "ustar", sizeof(header.magic));
        std::memcpy(header.version, "00", sizeof(header.version));
        std::memset(header.prefix, 0, sizeof(header.prefix));
        FillSum(header);
        output_.Write({bytesOf(header), sizeof(header)});
    }

    const ArchiveSet& set_;
    const std::function<void(uint64_t done)>& progress_;
    Output& output_;
    std::vector<char> buffer_ = std::vector<char>(kContentChunk);
    uint64_t size_ = 0;  // content of the file at hand
    uint64_t left_ = 0;  // and what of it further parts bring
    uint64_t done_ = 0;
};

}  // namespace

bool ExportSet(const ArchiveSet& set, const std::string& out,
               const std::function<void(uint64_t done)>& progress, std::string* error) {
    if (out == "-" && isatty(STDOUT_FILENO) == 1) {
        *error = "no archive is written to a terminal";
        return false;
    }
    Output output(out);
    const SignalScope signals([&](int /*times*/) { output.Interrupt(); });
    try {
        if (output.Open()) {
            Exporter(set, progress, &output).Run();
            if (output.Finish()) {
                return true;
            }
        }
        *error = fmt::format("cannot write {}: {}", out, ErrorText(errno));
    } catch (const std::exception& failure) {
        *error = failure.what();
    }
    return false;
}

}  // namespace peltexctl
