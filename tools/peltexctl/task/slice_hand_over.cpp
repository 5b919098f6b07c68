// Tested by tests/peltexctl/test_archive_tasks.py.
#include "task/slice_hand_over.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "ui/text.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kEnd = "end";
constexpr std::string_view kEndMark = "|end";
constexpr std::chrono::milliseconds kRepeatAfter{500};
constexpr std::chrono::seconds kKeepAliveEvery{10};

bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

class File {
  public:
    explicit File(int fd) : fd_(fd) {}
    ~File() { Close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    int fd() const { return fd_; }
    int Close() { return fd_ < 0 ? 0 : close(std::exchange(fd_, -1)); }

  private:
    int fd_;
};

std::error_code LastError() {
    return {errno, std::generic_category()};
}

// Copies the content, with the reason of a failure, which the standard library's copy keeps to
// itself.
std::error_code CopyContent(const fs::path& from, const fs::path& to, mode_t mode) {
    const File source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    File target(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (source.fd() < 0 || target.fd() < 0) {
        return LastError();
    }
    std::vector<char> buffer(size_t{1} << 20);
    ssize_t length = 0;
    while ((length = read(source.fd(), buffer.data(), buffer.size())) > 0) {
        for (ssize_t done = 0; done < length;) {
            const ssize_t count =
                write(target.fd(), buffer.data() + done, static_cast<size_t>(length - done));
            if (count < 0) {
                return LastError();
            }
            done += count;
        }
    }
    // The mode again: that of a new file lacks what the umask takes.
    if (length < 0 || fchmod(target.fd(), mode) != 0 || fsync(target.fd()) != 0 ||
        target.Close() != 0) {
        return LastError();
    }
    return {};
}

// Copies a file to another file system, with its owner and mode.
std::error_code CopyAway(const fs::path& from, const fs::path& to) {
    std::error_code error;
    struct stat info = {};
    if (stat(from.c_str(), &info) != 0) {
        return LastError();
    }
    error = CopyContent(from, to, info.st_mode & 0777);
    if (!error && chown(to.c_str(), info.st_uid, info.st_gid) != 0 && geteuid() == 0) {
        error = LastError();
    }
    if (error) {
        std::error_code ignored;
        fs::remove(to, ignored);
        return error;
    }
    fs::remove(from, error);
    return error;
}

// Returns what went wrong, empty when nothing did.
std::string Move(const std::string& from, const std::string& to) {
    std::error_code error;
    fs::create_directories(fs::path(to).parent_path(), error);
    if (!error) {
        fs::rename(from, to, error);
        if (error == std::errc::cross_device_link) {
            error = CopyAway(from, to);
        }
    }
    return error ? fmt::format("{}: could not be taken to {}: {}", from, to, error.message()) : "";
}

}  // namespace

SliceHandOver::SliceHandOver(Send send, std::string command, std::string take)
    : send_(std::move(send)), command_(std::move(command)), take_(std::move(take)) {}

void SliceHandOver::Heard(const StatusEvent& event) {
    std::unique_lock<std::mutex> settled(end_mutex_, std::defer_lock);
    if (event.code == kStatusSlicePackaged || EndsTask(event)) {
        settled.lock();
    }
    {
        const std::lock_guard lock(mutex_);
        ++heard_;
        if (event.code == kStatusSlicePackaged) {
            Slice slice = Parse(event.message);
            slice.heard = heard_;
            if (!slice.path.empty()) {
                slices_.push_back(slice.path);
                if (aborting_) {
                    kept_.KeepOrRename(slice.path);
                }
            }
            handed_.push_back(std::move(slice));
        }
    }
    if (EndsTask(event)) {
        ended_ = true;
    }
}

// The path of a slice, "|end" behind it for the last one, or "end" alone for a last one that came
// out empty.
SliceHandOver::Slice SliceHandOver::Parse(const std::string& message) {
    if (message == kEnd) {
        return {"", true, 0};
    }
    if (EndsWith(message, kEndMark)) {
        return {message.substr(0, message.size() - kEndMark.size()), true, 0};
    }
    return {message, false, 0};
}

std::string SliceHandOver::Step() {
    if (!current_) {
        current_ = NextSlice();
        if (!current_) {
            return "";
        }
        last_sent_ = Clock::now();
        if (!take_.empty() && !current_->path.empty()) {
            taking_ =
                std::async(std::launch::async, Move, current_->path, TakenPath(current_->path));
        } else if (!current_->last) {
            Continue();
        }
    }
    if (taking_.valid()) {
        if (taking_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            if (Clock::now() - last_sent_ >= kKeepAliveEvery) {
                send_("keepalive");
                last_sent_ = Clock::now();
            }
            return "";
        }
        std::string error = taking_.get();
        if (!error.empty()) {
            failed_ = true;
            return error;
        }
        if (!current_->last) {
            Continue();
        }
    }
    if (current_->last || HasMoved()) {
        current_.reset();
    } else if (Clock::now() - last_sent_ >= kRepeatAfter) {
        Continue();
    }
    return "";
}

std::string SliceHandOver::PrepareAbort() {
    std::string error = TakeHanded();
    // From here on each slice is kept as it is handed over.
    const std::lock_guard lock(mutex_);
    aborting_ = true;
    if (!slices_.empty()) {
        kept_.KeepOrRename(slices_.back());
    }
    return error;
}

std::string SliceHandOver::Finish(const std::string& check_file) {
    kept_.PutBack();
    std::string error = TakeHanded();
    if (take_.empty() || failed_ || check_file.empty()) {
        return error;
    }
    return Move(check_file, TakenPath(check_file));
}

std::string SliceHandOver::TakeHanded() {
    std::string error;
    if (taking_.valid()) {
        error = taking_.get();
        failed_ = !error.empty();
    }
    if (take_.empty() || failed_) {
        return error;
    }
    for (std::optional<Slice> slice = NextSlice(); slice && !failed_; slice = NextSlice()) {
        error = slice->path.empty() ? "" : Move(slice->path, TakenPath(slice->path));
        failed_ = !error.empty();
    }
    return error;
}

uint64_t SliceHandOver::Count() const {
    const std::lock_guard lock(mutex_);
    return slices_.size();
}

std::string SliceHandOver::DescribeLeft() const {
    const std::lock_guard lock(mutex_);
    uint64_t taken = 0;
    uint64_t here = 0;
    std::error_code error;
    for (const std::string& path : slices_) {
        const bool is_here = fs::exists(path, error);
        here += is_here ? 1 : 0;
        taken += !is_here && fs::exists(TakenPath(path), error) ? 1 : 0;
    }
    const auto count = [](uint64_t number) {
        return fmt::format("{} slice{}", number, number == 1 ? "" : "s");
    };
    if (taken + here == 0) {
        return "no slice is left";
    }
    std::string left = taken > 0 ? fmt::format("{} in {}", count(taken), take_) : "";
    if (here > 0) {
        left += fmt::format("{}{} in {}", taken > 0 ? " and " : "", count(here),
                            fs::path(slices_.back()).parent_path().string());
    }
    return left + (taken + here == 1 ? " is left" : " are left");
}

std::string SliceHandOver::TakenPath(const std::string& path) const {
    return take_.empty() ? path : (fs::path(take_) / fs::path(path).filename()).string();
}

std::optional<SliceHandOver::Slice> SliceHandOver::NextSlice() {
    const std::lock_guard lock(mutex_);
    if (handed_.empty()) {
        return std::nullopt;
    }
    Slice slice = std::move(handed_.front());
    handed_.pop_front();
    return slice;
}

bool SliceHandOver::HasMoved() const {
    const std::lock_guard lock(mutex_);
    return heard_ > current_->heard;
}

void SliceHandOver::Continue() {
    last_sent_ = Clock::now();
    const std::lock_guard lock(end_mutex_);
    if (!ended_ && !HasMoved()) {
        send_(command_);
    }
}

}  // namespace peltexctl
