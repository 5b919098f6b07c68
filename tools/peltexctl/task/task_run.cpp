// Tested by tests/client/test_running.py.
#include "task/task_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>

#include "task/refusals.h"
#include "task/slice_hand_over.h"
#include "ui/exit_code.h"
#include "ui/library_log.h"
#include "ui/signals.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr std::chrono::milliseconds kTick{100};

std::string ExplainRefusal(int result) {
    switch (result) {
        case -1:
            return "the library could not start a worker thread";
        case -4:
            return "an equal task is waiting or running";
        default:
            return fmt::format("the library refuses the command with {}", result);
    }
}

std::string ExplainFailure(int task, const TaskJob& job) {
    return fmt::format("task {} failed: {}{}", task,
                       job.log_is_shown ? "the library's log above tells where"
                                        : "--log error shows the library's log, which tells where",
                       job.kind.Unpacks()
                           ? fmt::format("; \"peltexctl verify {}\" tells what is wrong with the "
                                         "archive",
                                         job.request.source)
                           : "");
}

// Of a task that was interrupted, whether it succeeded in spite of that or not.
std::string DescribeLeft(const TaskKind& kind, const TaskRequest& request, bool succeeded) {
    const std::string& destination = request.destination;
    if (kind.Unpacks()) {
        return fmt::format("what was unpacked is in {}{}", destination,
                           kind.RestoresSlices() ? ", the set is as it was" : "");
    }
    if (kind.HasArchive()) {
        const std::string result = kind.ResultPath(request);
        return StatOf(result) ? fmt::format("{} may lack entries, remove it", result)
                              : fmt::format("nothing is left of {}", result);
    }
    if (kind.IsMove()) {
        return succeeded ? fmt::format("everything had been moved to {} by then", destination)
                         : fmt::format("what was moved is in {}, the rest in {}", destination,
                                       request.source);
    }
    return fmt::format("{} {}", destination,
                       succeeded ? "had been completed by then" : "is not complete");
}

std::string DescribeStop(const TaskKind& kind) {
    return kind.HasArchive() ? "stopping it"
                             : fmt::format(
                                   "the library ends it when all is {}; to leave it "
                                   "unfinished interrupt it again",
                                   kind.IsBrief() ? "listed" : "copied");
}

class TaskRun {
  public:
    TaskRun(const Library& library, const TaskJob& job)
        : library_(library),
          job_(job),
          slices_(job.kind.HandsOver() ? std::make_unique<SliceHandOver>(
                                             job.request,
                                             [this](const std::string& line, bool again) {
                                                 return Send(line, again);
                                             },
                                             job.command,
                                             [this] {
                                                 ShowProgress();
                                                 return !is_interrupted_;
                                             })
                                       : nullptr),
          left_unfinished_("interrupted: " +
                           (slices_ ? "the set in " + slices_->Directory() + " is not complete"
                                    : DescribeLeft(job.kind, job.request, false)) +
                           job.left_too) {}

    int Run(TaskSummary* summary) {
        const SignalScope signals([this] { Interrupt(); });
        if (slices_) {
            slices_->Prepare();
        }
        const android::sp<ClientCallback> callback =
            new ClientCallback(1, [this](const StatusEvent& event) { Heard(event); });
        session_ = library_.start(callback);
        if (job_.events.json()) {
            job_.events.Session(session_);
        }
        job_.view.Begin(fmt::format("{}{}{}", job_.kind.subcommand,
                                    *job_.kind.kind == '\0' ? "" : " ", job_.kind.kind),
                        job_.total);
        task_ = Send(job_.command);
        int status = kTaskFailed;
        if (task_ >= kFirstId) {
            status = Follow(summary);
        } else {
            job_.view.End();
            PrintKeptLog();
            Tell(ExplainRefusal(task_));
        }
        const int closed = library_.finish(session_);
        if (job_.events.json()) {
            job_.events.Closed(session_, closed);
        }
        return status;
    }

  private:
    using Clock = std::chrono::steady_clock;

    int Send(const std::string& command, bool is_repeated = false) {
        const int result = library_.Execute(session_, command);
        if (job_.events.json() && !is_repeated) {
            job_.events.Result(command, result);
        }
        return result;
    }

    // On the library's threads.
    void Heard(const StatusEvent& event) {
        if (slices_) {
            slices_->Heard(event);
        }
        if (event.code == kStatusProgress && !job_.bytes_read) {
            job_.view.SetDone(std::strtoull(event.message.c_str(), nullptr, 10));
        }
        // People hear of progress and slices from the bar, of a failure by its reason.
        if (job_.events.json() ||
            (event.code != kStatusProgress && event.code != kStatusSlicePackaged &&
             event.code != kStatusFailed)) {
            job_.view.Aside([this, &event] { job_.events.Status(event); });
        }
        if (event.code != kStatusProgress) {
            const std::lock_guard lock(mutex_);
            has_news_ = true;
            is_aborted_ = is_aborted_ || event.code == kStatusAborted;
            if (EndsTask(event)) {
                last_code_ = event.code;
                path_refused_ = RefusesPath(event);
            }
            changed_.notify_all();
        }
    }

    void Tell(const std::string& error) {
        job_.view.Aside([this, &error] { job_.events.Error(error); });
    }

    int Follow(TaskSummary* summary) {
        const Clock::time_point start = Clock::now();
        while (!HasEnded()) {
            if (slices_ && stopping_) {
                slices_->Wake();
            } else if (slices_) {
                untaken_ = slices_->Step();
            }
            if (!stopping_ && (is_interrupted_ || !untaken_.empty())) {
                Stop();
            }
            ShowProgress();
            WaitForNews();
        }
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        job_.view.End();
        const int status = End(*last_code_ == kStatusSuccess);
        summary->task = task_;
        summary->seconds = elapsed.count();
        if (slices_) {
            summary->slices = slices_->Count();
        }
        return status;
    }

    bool HasEnded() {
        const std::lock_guard lock(mutex_);
        return last_code_.has_value();
    }

    void WaitForNews() {
        const Clock::time_point tick = Clock::now() + kTick;
        std::unique_lock lock(mutex_);
        changed_.wait_until(lock, slices_ ? std::min(tick, slices_->next_step()) : tick,
                            [this] { return has_news_; });
        has_news_ = false;
    }

    void ShowProgress() {
        if (job_.bytes_read) {
            job_.view.SetDone(job_.bytes_read());
        }
        if (slices_ && slices_->Count() > 0) {
            job_.view.SetNote(Counted(slices_->Count(), "slice", "slices"));
        }
        job_.view.Tick();
    }

    void Stop() {
        stopping_ = true;
        if (!job_.events.json() && !job_.events.quiet()) {
            job_.view.Aside([this] {
                Print(stderr, fmt::format("task {}: {}\n", task_, DescribeStop(job_.kind)));
            });
        }
        const int result = Send(fmt::format("abort {}", task_));
        const std::lock_guard lock(mutex_);
        // One that has not begun leaves the queue without a status; of a running one it has come.
        if (result == 0 && !is_aborted_ && !last_code_) {
            last_code_ = kStatusAborted;
        }
    }

    int End(bool succeeded) {
        if (slices_) {
            const std::string error = slices_->Finish(succeeded && !stopping_);
            untaken_ = untaken_.empty() ? error : untaken_;
        }
        if (is_interrupted_) {
            Tell("interrupted: " +
                 (slices_ ? slices_->DescribeLeft() + ", of a set that is not complete"
                          : DescribeLeft(job_.kind, job_.request, succeeded)));
            return kInterrupted;
        }
        if (!untaken_.empty()) {
            Tell(fmt::format("{}; {}{}; start it again with --replace", untaken_,
                             slices_->DescribeLeft(), HintAtRoom(slices_->Directory(), 1 << 20)));
            return kTaskFailed;
        }
        if (succeeded) {
            return kDone;
        }
        PrintKeptLog();
        Tell(path_refused_ ? "the library refuses a path" : ExplainFailure(task_, job_));
        return kTaskFailed;
    }

    // On the signals' thread. Who asks twice does not wait: some tasks never end, such as the copy
    // of a FIFO.
    void Interrupt() {
        if (is_interrupted_.exchange(true)) {
            EndInterrupted(left_unfinished_);
        }
        const std::lock_guard lock(mutex_);
        has_news_ = true;
        changed_.notify_all();
    }

    const Library library_;
    const TaskJob job_;
    const std::unique_ptr<SliceHandOver> slices_;  // of a split backup
    const std::string left_unfinished_;
    int session_ = 0;
    int task_ = 0;
    bool stopping_ = false;
    std::string untaken_;  // why a slice could not be taken
    std::atomic<bool> is_interrupted_{false};

    std::mutex mutex_;
    std::condition_variable changed_;
    // Protected by mutex_.
    bool has_news_ = false;
    bool is_aborted_ = false;
    bool path_refused_ = false;
    std::optional<int> last_code_;  // of the task that has ended
};

}  // namespace

int RunJob(const Library& library, const TaskJob& job, TaskSummary* summary) {
    // Never destroyed: the last callback may be on its way out.
    static TaskRun* const run = new TaskRun(library, job);
    return run->Run(summary);
}

}  // namespace peltexctl
