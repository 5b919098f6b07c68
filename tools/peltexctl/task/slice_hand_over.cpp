// Tested by tests/peltexctl/test_archive_tasks.py.
#include "task/slice_hand_over.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "archive/new_file.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr std::string_view kEnd = "end";
constexpr std::string_view kEndMark = "|end";
constexpr std::chrono::microseconds kFirstRepeat{100};
constexpr std::chrono::milliseconds kLastRepeat{50};
constexpr std::chrono::seconds kKeepAliveEvery{10};

// Copies the content of an open file. Returns false when it cannot, with errno, or when `goes_on`
// says so, with ECANCELED.
bool CopyContent(const UniqueFd& from, int to, const std::function<bool()>& goes_on) {
    constexpr size_t kAtATime = 8 << 20;  // so that no single call takes long
    ssize_t length = 0;
    while ((length = sendfile(to, from.get(), nullptr, kAtATime)) > 0) {
        if (fdatasync(to) != 0) {
            return false;
        }
        if (!goes_on()) {
            errno = ECANCELED;
            return false;
        }
    }
    return length == 0;
}

}  // namespace

SliceHandOver::SliceHandOver(const TaskRequest& request, Send send, std::string command,
                             std::function<bool()> tick)
    : send_(std::move(send)),
      command_(std::move(command)),
      tick_(std::move(tick)),
      destination_(request.destination),
      take_(request.take),
      base_(NameOf(request.source) + ".tar") {
    if (request.sums) {
        summer_.emplace();
    }
}

void SliceHandOver::Prepare() {
    if (!take_.empty()) {
        to_.Make(take_, 0);
    }
}

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
            count_ += slice.name.empty() ? 0 : 1;
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
    const bool last = EndsWith(message, kEndMark);
    return {NameOf(message.substr(0, message.size() - (last ? kEndMark.size() : 0))), last, 0};
}

std::string SliceHandOver::Step() {
    if (!current_) {
        current_ = NextSlice();
        if (!current_) {
            next_step_ = Clock::time_point::max();
            return "";
        }
        if (std::string error = Take(current_->name); !error.empty()) {
            return error;
        }
        repeat_after_ = kFirstRepeat;
        if (!current_->last) {
            Continue(false);
        }
    } else if (!current_->last && !HasMoved() && Clock::now() >= next_step_) {
        repeat_after_ = std::min<Clock::duration>(2 * repeat_after_, kLastRepeat);
        Continue(true);
    }
    if (current_->last || HasMoved()) {
        current_.reset();
        next_step_ = Clock::now();  // another one may have been handed over
    }
    return "";
}

// An abort is forgotten like a continuation when it comes before the pause, and is not repeated:
// each makes a status. Where it is seen first, the slice that was handed over is not packed again.
void SliceHandOver::Wake() {
    if (next_step_ != Clock::time_point::max() && Clock::now() < next_step_) {
        return;
    }
    repeat_after_ = std::clamp<Clock::duration>(2 * repeat_after_, kFirstRepeat, kLastRepeat);
    next_step_ = Clock::now() + repeat_after_;
    const std::lock_guard lock(end_mutex_);
    if (!ended_) {
        send_(command_, true);
    }
}

std::string SliceHandOver::Finish(bool whole) {
    std::string error;
    for (std::optional<Slice> slice = NextSlice(); slice && !failed_; slice = NextSlice()) {
        error = Take(slice->name);
    }
    if (!whole || failed_) {
        return error;
    }
    error = Take(base_ + ".txt");
    struct stat like = {};
    const UniqueFd& directory = take_.empty() ? from_ : to_.fd();
    if (!error.empty() || !summer_) {
        return error;
    }
    std::string sums_error;
    if (fstatat(directory.get(), (base_ + ".txt").c_str(), &like, AT_SYMLINK_NOFOLLOW) != 0 ||
        !summer_->Finish(directory.get(), SumsName(base_), like, &sums_error)) {
        return fmt::format("{}/{}: cannot be written: {}", Directory(), SumsName(base_),
                           sums_error);
    }
    return "";
}

uint64_t SliceHandOver::Count() const {
    const std::lock_guard lock(mutex_);
    return count_;
}

std::string SliceHandOver::DescribeLeft() const {
    const uint64_t here = Count() - taken_;
    if (taken_ + here == 0) {
        return "no slice is left";
    }
    std::string left =
        taken_ > 0 ? Counted(taken_, "slice", "slices") + " in " + take_ : std::string();
    if (here > 0) {
        left += fmt::format("{}{} in {}", taken_ > 0 ? " and " : "",
                            Counted(here, "slice", "slices"), destination_);
    }
    return left + (taken_ + here == 1 ? " is left" : " are left");
}

// Returns what went wrong.
std::string SliceHandOver::Take(const std::string& name) {
    std::string error;
    if (name.empty()) {
        return error;
    }
    if (!from_.isOpen()) {
        from_ = OpenDirectory(destination_);
    }
    if (!take_.empty()) {
        error = MoveAway(name);
    }
    if (error.empty() && summer_) {
        struct stat status = {};
        UniqueFd file = OpenRegularAt(take_.empty() ? from_ : to_.fd(), name, &status);
        if (file.isOpen()) {
            summer_->Add(std::move(file), name);
        } else {
            error = ErrorText(errno);
        }
    }
    failed_ = !error.empty();
    return failed_ ? fmt::format("{}/{}: could not be taken to {}: {}", destination_, name,
                                 Directory(), error)
                   : "";
}

std::string SliceHandOver::MoveAway(const std::string& name) {
    // The library may make the task's last files without a word about them.
    const bool is_slice = name != base_ + ".txt";
    std::string error;
    if (renameat(from_.get(), name.c_str(), to_.fd().get(), name.c_str()) != 0) {
        error = errno == EXDEV ? CopyAway(name) : ErrorText(errno);
    }
    taken_ += error.empty() && is_slice ? 1 : 0;
    return error;
}

// To another file system, where nothing has the name before all is there.
std::string SliceHandOver::CopyAway(const std::string& name) {
    struct stat status = {};
    const UniqueFd from = OpenRegularAt(from_, name, &status);
    Clock::time_point alive = Clock::now();
    const auto goes_on = [&] {
        if (Clock::now() - alive >= kKeepAliveEvery) {
            alive = Clock::now();
            send_("keepalive", false);
        }
        return tick_();
    };
    NewFile to;
    const bool is_moved =
        from.isOpen() && to.Create(to_.fd().get(), name) && CopyContent(from, to.fd(), goes_on) &&
        (fchown(to.fd(), status.st_uid, status.st_gid) == 0 || geteuid() != 0) &&
        to.Finish(status.st_mode & 0777) && unlinkat(from_.get(), name.c_str(), 0) == 0;
    return is_moved ? "" : ErrorText(errno);
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

void SliceHandOver::Continue(bool is_repeated) {
    next_step_ = Clock::now() + repeat_after_;
    const std::lock_guard lock(end_mutex_);
    if (!ended_ && !HasMoved()) {
        send_(command_, is_repeated);
    }
}

}  // namespace peltexctl
