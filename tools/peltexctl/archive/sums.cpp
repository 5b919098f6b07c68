// Tested by tests/peltexctl/test_sums.py.
#include "archive/sums.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "archive/export.h"
#include "ui/text.h"

namespace peltexctl {

using namespace android::installd;

namespace {

using Severity = Finding::Severity;

constexpr size_t kSumDigits = 64;
constexpr size_t kMostWaiting = 4;
constexpr size_t kReadSize = size_t{256} << 10;

struct ContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// The sum of all of the file in hexadecimal; empty when it cannot be read.
std::string SumOf(int fd) {
    const std::unique_ptr<EVP_MD_CTX, ContextFree> context(EVP_MD_CTX_new());
    std::vector<char> buffer(kReadSize);
    bool is_good = context != nullptr && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    ssize_t count = 1;
    for (off_t offset = 0; is_good && count > 0; offset += count) {
        count = pread(fd, buffer.data(), buffer.size(), offset);
        if (count == -1 && errno == EINTR) {
            count = 0;
            continue;
        }
        is_good = count >= 0 &&
                  EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(count)) == 1;
    }
    char sum[EVP_MAX_MD_SIZE] = {};
    unsigned int size = 0;
    is_good = is_good && EVP_DigestFinal_ex(context.get(), reinterpret_cast<unsigned char*>(sum),
                                            &size) == 1;
    return is_good ? Hexadecimal({sum, size}) : "";
}

// What stands behind a sum: the name, with a mark in front of the line where it holds what a line
// cannot.
std::string LineOf(const std::string& sum, const std::string& name) {
    std::string escaped;
    for (const char byte : name) {
        escaped += byte == '\n' ? "\\n" : byte == '\\' ? "\\\\" : std::string(1, byte);
    }
    return fmt::format("{}{}  {}\n", escaped == name ? "" : "\\", sum, escaped);
}

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count == -1 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
    return true;
}

}  // namespace

std::string SumsName(const std::string& name) {
    const size_t dot = name.rfind('.');
    const std::string_view last = dot == std::string::npos ? "" : std::string_view(name).substr(dot);
    const bool is_of_set =
        last == ".txt" || (last.size() > 1 && last.find_first_not_of("0123456789", 1) ==
                                                  std::string_view::npos);
    return name.substr(0, is_of_set ? dot : name.size()) + ".sha256";
}

Summer::Summer() {
    try {
        thread_ = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
    }
}

Summer::~Summer() {
    {
        const std::lock_guard lock(mutex_);
        jobs_.clear();
        ends_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Summer::Add(UniqueFd file, const std::string& name) {
    if (!thread_.joinable()) {
        return Sum({std::move(file), name});
    }
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return jobs_.size() < kMostWaiting; });
    jobs_.push_back({std::move(file), name});
    changed_.notify_all();
}

void Summer::Run() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return ends_ || !jobs_.empty(); });
        if (jobs_.empty()) {
            return;
        }
        const Job job = std::move(jobs_.front());
        jobs_.pop_front();
        changed_.notify_all();
        lock.unlock();
        Sum(job);
        lock.lock();
    }
}

void Summer::Sum(const Job& job) {
    const std::string sum = SumOf(job.file.get());
    if (sum.empty() && error_.empty()) {
        error_ = fmt::format("{}: cannot be read for its sum", job.name);
    }
    lines_ += LineOf(sum, job.name);
}

bool Summer::Finish(int directory, const std::string& name, const struct stat& like,
                    std::string* error) {
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
    *error = error_;
    if (!error->empty()) {
        return false;
    }
    const std::string unfinished = name + kUnfinished;
    unlinkat(directory, unfinished.c_str(), 0);
    const UniqueFd file(openat(directory, unfinished.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const bool is_written = file.isOpen() && WriteAll(file.get(), lines_) &&
                            fchown(file.get(), like.st_uid, like.st_gid) == 0 &&
                            fchmod(file.get(), like.st_mode & 0777) == 0 &&
                            renameat(directory, unfinished.c_str(), directory, name.c_str()) == 0;
    if (!is_written) {
        *error = fmt::format("{}: cannot be written: {}", name, ErrorText(errno));
        unlinkat(directory, unfinished.c_str(), 0);
    }
    return is_written;
}

namespace {

// What a line of a sums' file says.
struct SumLine {
    std::string_view sum;
    std::string name;
};

std::optional<SumLine> ParseLine(std::string_view line) {
    const bool is_escaped = !line.empty() && line[0] == '\\';
    line.remove_prefix(is_escaped ? 1 : 0);
    if (line.size() < kSumDigits + 3 || line[kSumDigits] != ' ' ||
        line.find_first_not_of("0123456789abcdef") != kSumDigits) {
        return std::nullopt;
    }
    SumLine parsed{line.substr(0, kSumDigits), ""};
    for (size_t i = kSumDigits + 2; i < line.size(); i++) {
        const bool is_escape = is_escaped && line[i] == '\\' && ++i < line.size();
        parsed.name += is_escape && line[i] == 'n' ? '\n' : line[i];
    }
    return parsed;
}

// Compares a set's files with the sums beside them.
class SumsCheck {
  public:
    SumsCheck(const ArchiveSet& set, const FindingSink& sink)
        : set_(set), sink_(sink), name_(SumsName(set.name())) {}

    uint64_t Run() {
        if (faccessat(set_.directory(), name_.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0 &&
            ReadSums()) {
            for (size_t i = 0; i < set_.size(); i++) {
                std::string error;
                if (const auto file = set_.OpenSlice(i, &error)) {
                    Compare(*file, set_.NameOf(i), set_.SizeOf(i), sums_[i]);
                }
            }
            if (set_.is_check_file()) {
                Compare(set_.file(), set_.name(), set_.file().size(), sums_.back());
            }
        }
        return faults_;
    }

  private:
    using Sum = std::array<char, kSumDigits>;

    bool Fault(const std::string& name, const std::string& message) {
        sink_({Severity::kFault, name, "", message});
        ++faults_;
        return false;
    }

    bool ReadSums() {
        constexpr size_t kLongestLine = 8192;
        std::string error;
        const auto file = ArchiveFile::Open(set_.directory(), name_, O_NOFOLLOW, &error);
        if (!file) {
            return Fault(name_, error);
        }
        sums_.resize(set_.size() + (set_.is_check_file() ? 1 : 0));
        LineReader lines(*file, kLongestLine);
        for (std::string line; lines.Next(&line);) {
            const std::optional<SumLine> parsed = ParseLine(line);
            if (!parsed) {
                return Fault(name_, "a line is no sum with the name of a file");
            }
            if (Sum* const sum = PlaceOf(parsed->name)) {
                parsed->sum.copy(sum->data(), sum->size());
            }
        }
        return lines.has_all() || Fault(name_, "cannot be read");
    }

    // Null for a file that is not of this set.
    Sum* PlaceOf(const std::string& name) {
        if (set_.is_check_file() && name == set_.name()) {
            return &sums_.back();
        }
        size_t index = 0;
        const char* const end = name.data() + name.size();
        std::from_chars(name.data() + name.rfind('.') + 1, end, index);
        index = set_.is_check_file() ? index : 0;
        return index < set_.size() && set_.NameOf(index) == name ? &sums_[index] : nullptr;
    }

    // A slice that has another size is told already.
    void Compare(const ArchiveFile& file, const std::string& name, uint64_t size, const Sum& sum) {
        if (file.size() != size) {
            return;
        }
        if (sum[0] == '\0') {
            Fault(name, fmt::format("has no sum in {}", name_));
        } else if (SumOf(file.fd()) != std::string_view(sum.data(), sum.size())) {
            Fault(name, fmt::format("its content is not that of its sum in {}", name_));
        }
    }

    const ArchiveSet& set_;
    const FindingSink& sink_;
    const std::string name_;
    std::vector<Sum> sums_;  // a NUL is in front where there is none
    uint64_t faults_ = 0;
};

}  // namespace

uint64_t CheckSums(const ArchiveSet& set, const FindingSink& sink) {
    return SumsCheck(set, sink).Run();
}

}  // namespace peltexctl
