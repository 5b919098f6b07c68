// Tested by tests/client/test_running.py.
#include "task/slice_hand_over.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>
#include <vector>

#include "archive/new_file.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr std::string_view kEnd = "end";
constexpr std::string_view kEndMark = "|end";
constexpr std::chrono::microseconds kFirstRepeat{100};
constexpr std::chrono::milliseconds kLastRepeat{50};
constexpr std::chrono::seconds kKeepAliveEvery{10};

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
    if (!failed_ && summer_) {
        error = summer_->Finish(Held().get(), SumsName(base_));
        return error.empty() ? "" : Directory() + "/" + error;
    }
    return error;
}

uint64_t SliceHandOver::Count() const {
    const std::lock_guard lock(mutex_);
    return count_;
}

std::string SliceHandOver::DescribeLeft() const {
    const uint64_t count = Count();
    std::vector<std::string> places;
    for (const auto& [slices, place] :
         {std::pair(taken_, take_), std::pair(count - taken_, destination_)}) {
        if (slices > 0) {
            places.push_back(fmt::format("{} in {}", Counted(slices, "slice", "slices"), place));
        }
    }
    return count == 0
               ? "no slice is left"
               : fmt::format("{} {} left", fmt::join(places, " and "), count == 1 ? "is" : "are");
}

// Returns what went wrong.
std::string SliceHandOver::Take(const std::string& name) {
    if (name.empty()) {
        return "";
    }
    if (!from_.isOpen()) {
        from_ = OpenDirectory(destination_);
    }
    std::string error = take_.empty() ? "" : MoveAway(name);
    if (error.empty() && summer_) {
        error = summer_->Add(Held().get(), name);
    }
    failed_ = !error.empty();
    return failed_ ? fmt::format("{}/{}: could not be taken to {}: {}", destination_, name,
                                 Directory(), error)
                   : "";
}

std::string SliceHandOver::MoveAway(const std::string& name) {
    if (renameat(from_.get(), name.c_str(), to_.fd().get(), name.c_str()) != 0) {
        if (std::string error = errno == EXDEV ? CopyAway(name) : ErrorText(errno);
            !error.empty()) {
            return error;
        }
    }
    // The library may make the task's last files without a word about them.
    taken_ += name != base_ + ".txt" ? 1 : 0;
    return "";
}

// To another file system, where nothing has the name before all is there.
std::string SliceHandOver::CopyAway(const std::string& name) {
    struct stat status = {};
    const ArchiveFile from(from_.get(), name, O_NOFOLLOW);
    if (!from.fault().empty()) {
        return from.fault();
    }
    NewFile to;
    const bool is_moved = fstat(from.fd(), &status) == 0 && to.Create(to_.fd().get(), name) &&
                          CopyContent(from.fd(), to.fd()) &&
                          (fchown(to.fd(), status.st_uid, status.st_gid) == 0 || geteuid() != 0) &&
                          to.Finish(status.st_mode & 0777) &&
                          unlinkat(from_.get(), name.c_str(), 0) == 0;
    return is_moved ? "" : ErrorText(errno);
}

// Returns false when it cannot, with errno, or when it is to be given up, with ECANCELED.
bool SliceHandOver::CopyContent(int from, int to) {
    constexpr size_t kAtATime = 8 << 20;  // so that no single call takes long
    Clock::time_point alive = Clock::now();
    ssize_t length = 0;
    while ((length = sendfile(to, from, nullptr, kAtATime)) > 0) {
        if (fdatasync(to) != 0) {
            return false;
        }
        if (Clock::now() - alive >= kKeepAliveEvery) {
            alive = Clock::now();
            send_("keepalive", false);
        }
        if (!tick_()) {
            errno = ECANCELED;
            return false;
        }
    }
    return length == 0;
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
