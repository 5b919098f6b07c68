// Tested by tests/client/test_running.py.
#include "task/task_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <optional>
#include <vector>

#include "task/refusals.h"
#include "task/slice_taker.h"
#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick{100};
constexpr std::chrono::seconds kKeepAliveEvery{10};
constexpr std::chrono::microseconds kFirstRepeat{100};
constexpr std::chrono::milliseconds kLastRepeat{50};

// By the whole program, whose tasks that unpack read little but the archive.
uint64_t BytesRead() {
    uint64_t count = 0;
    std::ifstream("/proc/self/io").ignore(sizeof("rchar:")) >> count;
    return count;
}

// A split backup pauses after each slice but the last until it is continued, by its own command.
// The library forgets a continuation that comes before its worker waits, so it is sent again, soon
// at first, until a status shows that the backup has moved. A continuation for a backup that has
// ended would begin a second one, and one that comes late would release a slice that was not taken
// yet. Neither can happen: a continuation excludes the statuses that hand over a slice or end the
// backup, and until the last of them has been received the backup still counts as running.
class TaskRun {
  public:
    TaskRun(const Library& library, const TaskJob& job) : library_(library), job_(job) {}

    TaskResult Run() {
        const SignalScope signals([this] { Interrupt(); });
        const android::sp<ClientCallback> callback =
            new ClientCallback(1, [this](const StatusEvent& event) { Heard(event); });
        session_ = library_.start(callback);
        if (job_.events.json()) {
            job_.events.Session(session_);
        }
        job_.events.view().Begin(fmt::format("{}{}{}", job_.kind.subcommand,
                                             *job_.kind.kind == '\0' ? "" : " ", job_.kind.kind),
                                 job_.total);
        const Clock::time_point start = Clock::now();
        task_ = Send(job_.command);
        if (task_ >= kFirstId) {
            Follow();
        }
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        job_.events.view().End();
        const int closed = library_.finish(session_);
        if (job_.events.json()) {
            job_.events.Closed(session_, closed);
        }
        Judge();
        return {task_, elapsed.count(), count_};
    }

  private:
    int Send(const std::string& command, bool is_repeated = false) {
        const int result = library_.Execute(session_, command);
        if (job_.events.json() && !is_repeated) {
            job_.events.Result(command, result);
        }
        return result;
    }

    // On the library's threads.
    void Heard(const StatusEvent& event) {
        const bool has_slice = event.code == kStatusSlicePackaged;
        const bool ends = EndsTask(event);
        if (event.code == kStatusProgress && !job_.kind.Unpacks()) {
            job_.events.view().SetDone(std::strtoull(event.message.c_str(), nullptr, 10));
        }
        // People hear of progress and slices from the bar, of a failure by its reason.
        if (job_.events.json() ||
            (event.code != kStatusProgress && !has_slice && event.code != kStatusFailed)) {
            job_.events.Status(event);
        }
        std::unique_lock settled(settle_mutex_, std::defer_lock);
        if (has_slice || ends) {
            settled.lock();
        }
        const std::lock_guard lock(mutex_);
        pauses_ = has_slice && !EndsWith(event.message, kLastSlice);
        // The path of a slice, "|end" behind it for the last one, or "end" alone where that came
        // out empty.
        if (has_slice && event.message != kLastSlice) {
            const size_t end = EndsWith(event.message, "|end") ? 4 : 0;
            handed_.push_back(event.message.substr(0, event.message.size() - end));
            ++count_;
        }
        is_aborted_ = is_aborted_ || event.code == kStatusAborted;
        if (ends) {
            last_ = event;
        }
        // Progress alone is no reason to wake up.
        if (has_slice || ends) {
            changed_.notify_all();
        }
    }

    void Follow() {
        do {
            if (!stopping_) {
                TakeSlices(false);
            }
            if (!stopping_ && (is_interrupted_ || !untaken_.empty())) {
                Stop();
            }
            ShowProgress();
        } while (!EndsBy(std::min(Continue(), Clock::now() + kTick)));
        if (untaken_.empty() && job_.kind.HandsOver()) {
            TakeSlices(last_->code == kStatusSuccess && !stopping_);
        }
    }

    // Takes those that were handed over, and behind the last one what makes the set whole.
    void TakeSlices(bool is_whole) {
        std::vector<std::string> slices;
        {
            const std::lock_guard lock(mutex_);
            slices.swap(handed_);
        }
        try {
            for (const std::string& slice : slices) {
                taker_.Take(NameOf(slice));
                repeat_after_ = {};
                next_continuation_ = {};
            }
            if (is_whole) {
                taker_.Finish();
            }
        } catch (const Failure& failure) {
            untaken_ = failure.what();
        }
    }

    // Lets a backup go on whose slice was taken, and one that was asked to stop see that: an abort
    // is forgotten like a continuation when it comes before the pause, and is not repeated, since
    // each makes a status. Where it is seen first, the slice that was handed over is not packed
    // again. Returns when this is due again.
    Clock::time_point Continue() {
        const std::lock_guard settled(settle_mutex_);
        if (!job_.kind.HandsOver() || !WaitsForUs()) {
            return Clock::time_point::max();
        }
        if (Clock::now() >= next_continuation_) {
            Send(job_.command, stopping_ || repeat_after_ > Clock::duration::zero());
            repeat_after_ =
                std::clamp<Clock::duration>(2 * repeat_after_, kFirstRepeat, kLastRepeat);
            next_continuation_ = Clock::now() + repeat_after_;
        }
        return next_continuation_;
    }

    bool WaitsForUs() {
        const std::lock_guard lock(mutex_);
        return stopping_ ? !last_ : pauses_ && handed_.empty();
    }

    // Waits for something to do. Returns whether the task has ended.
    bool EndsBy(Clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        changed_.wait_until(lock, deadline, [this] {
            return last_ || (!stopping_ && (is_interrupted_ || !handed_.empty()));
        });
        return last_.has_value();
    }

    void ShowProgress() {
        if (job_.kind.Unpacks()) {
            job_.events.view().SetDone(BytesRead() - read_before_);
        }
        if (count_ > 0) {
            job_.events.view().SetNote(Counted(count_, "slice", "slices"));
        }
        job_.events.view().Tick();
    }

    // While a slice is copied.
    void Tick() {
        ShowProgress();
        if (const Clock::time_point now = Clock::now(); now - kept_alive_ >= kKeepAliveEvery) {
            kept_alive_ = now;
            Send("keepalive");
        }
        if (is_interrupted_) {
            throw Failure(kInterrupted, "interrupted");
        }
    }

    void Stop() {
        stopping_ = true;
        const char* const goal = job_.kind.IsBrief() ? "listed" : "copied";
        job_.events.Note(job_.kind.HasArchive()
                             ? "stopping it"
                             : fmt::format("the library ends it when all is {}; to leave it "
                                           "unfinished interrupt it again",
                                           goal));
        const int result = Send(fmt::format("abort {}", task_));
        const std::lock_guard lock(mutex_);
        // One that has not begun leaves the queue without a status; of a running one it has come.
        if (result == 0 && !is_aborted_ && !last_) {
            last_ = StatusEvent{session_, task_, kStatusAborted, "", 1};
        }
    }

    // Throws what keeps the task from being done.
    void Judge() {
        const int end = last_ ? last_->code : kStatusFailed;
        if (is_interrupted_) {
            throw Failure(kInterrupted, "interrupted: " + DescribeLeft(end));
        }
        if (!untaken_.empty()) {
            throw Failure(kTaskFailed, fmt::format("{}; {}{}; start it again with --replace",
                                                   untaken_, taker_.DescribeLeft(count_),
                                                   HintAtRoom(taker_.directory(), 1 << 20)));
        }
        if (end != kStatusSuccess) {
            PrintKeptLog();
            throw Failure(kTaskFailed, ExplainFailure());
        }
    }

    // What an interrupted task leaves, which may have succeeded in spite of that. Of one that goes
    // on, without an `end`, nothing is looked up: that might take long, too.
    std::string DescribeLeft(std::optional<int> end) const {
        const TaskKind& kind = job_.kind;
        const std::string& place = taker_.directory();
        const bool succeeded = end == kStatusSuccess;
        if (kind.Unpacks()) {
            return fmt::format("what was unpacked is in {}{}", place,
                               kind.RestoresSlices() ? ", the set is as it was" : "");
        }
        if (job_.kind.HandsOver()) {
            return (end ? taker_.DescribeLeft(count_) + ", of a set that" : "the set in " + place) +
                   " is not complete";
        }
        if (kind.HasArchive() && end) {
            const std::string result = kind.ResultPath(job_.request);
            return StatOf(result) ? result + " may lack entries, remove it"
                                  : "nothing is left of " + result;
        }
        if (kind.IsMove()) {
            return succeeded ? fmt::format("everything had been moved to {} by then", place)
                             : fmt::format("what was moved is in {}, the rest in {}", place,
                                           job_.request.source);
        }
        return place + (succeeded ? " had been completed by then" : " is not complete");
    }

    std::string ExplainFailure() const {
        if (task_ < kFirstId) {
            return task_ == -1   ? "the library could not start a worker thread"
                   : task_ == -4 ? "an equal task is waiting or running"
                                 : fmt::format("the library refuses the command with {}", task_);
        }
        if (RefusesPath(*last_)) {
            return "the library refuses a path";
        }
        return fmt::format(
            "task {} failed: {}{}", task_,
            job_.log_is_shown ? "the library's log above tells where"
                              : "--log error shows the library's log, which tells where",
            job_.kind.Unpacks()
                ? fmt::format("; \"peltexctl verify {}\" tells what is wrong with the archive",
                              job_.request.source)
                : "");
    }

    // On the signals' thread. Who asks twice does not wait: some tasks never end, such as the copy
    // of a FIFO.
    void Interrupt() {
        if (is_interrupted_.exchange(true)) {
            EndInterrupted("interrupted: " + DescribeLeft(std::nullopt) + job_.left_too);
        }
        const std::lock_guard lock(mutex_);
        changed_.notify_all();
    }

    static constexpr const char* kLastSlice = "end";

    const Library library_;
    const TaskJob job_;
    SliceTaker taker_{job_.request, [this] { Tick(); }};
    const uint64_t read_before_ = BytesRead();
    int session_ = 0;
    int task_ = 0;
    bool stopping_ = false;
    std::string untaken_;  // why a slice could not be taken
    Clock::duration repeat_after_{};
    Clock::time_point next_continuation_;
    Clock::time_point kept_alive_ = Clock::now();
    std::atomic<bool> is_interrupted_{false};
    std::atomic<uint64_t> count_{0};  // of the slices that were handed over

    // Held over a continuation; never waited for with the library's locks.
    std::mutex settle_mutex_;
    std::mutex mutex_;
    std::condition_variable changed_;
    // Protected by mutex_.
    bool is_aborted_ = false;
    bool pauses_ = false;              // after the slice that was handed over last
    std::vector<std::string> handed_;  // slices that were not taken yet
    std::optional<StatusEvent> last_;
};

}  // namespace

TaskResult RunJob(const Library& library, const TaskJob& job) {
    // Never destroyed: the last callback may be on its way out.
    static TaskRun* const run = new TaskRun(library, job);
    return run->Run();
}

}  // namespace peltexctl
