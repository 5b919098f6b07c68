// Tested by tests/peltexctl/test_archive_tasks.py and test_signals.py.
#include "task/task_run.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "task/refusals.h"
#include "ui/library_log.h"
#include "ui/signals.h"
#include "ui/terminal.h"
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

std::string ExplainFailure(int task, const TaskKind& kind, const TaskRequest& request,
                           bool log_is_shown) {
    std::string text =
        fmt::format("task {} failed: {}", task,
                    log_is_shown ? "the library's log above tells where"
                                 : "--log error shows the library's log, which tells where");
    if (kind.Unpacks()) {
        text += fmt::format("; \"peltexctl verify {}\" tells what is wrong with the archive",
                            request.source);
    }
    return text;
}

// Of a task that was interrupted, whether it succeeded in spite of that or not.
std::string DescribeLeft(const TaskKind& kind, const TaskRequest& request, bool succeeded) {
    const std::string result = kind.ResultPath(request);
    if (kind.Unpacks()) {
        return fmt::format("what was unpacked is in {}{}", request.destination,
                           kind.RestoresSlices() ? ", the set is as it was" : "");
    }
    if (kind.HasArchive()) {
        return StatOf(result) ? fmt::format("{} may lack entries, remove it", result)
                              : fmt::format("nothing is left of {}", result);
    }
    if (succeeded) {
        return kind.IsMove()
                   ? fmt::format("everything had been moved to {} by then", request.destination)
                   : fmt::format("{} had been completed by then", request.destination);
    }
    return kind.IsMove() ? fmt::format("what was moved is in {}, the rest in {}",
                                       request.destination, request.source)
                         : fmt::format("{} is not complete", request.destination);
}

std::string DescribeStop(const TaskKind& kind) {
    return kind.HasArchive() ? "stopping it"
                             : fmt::format(
                                   "the library ends it when all is {}; to leave it "
                                   "unfinished interrupt it again",
                                   kind.IsBrief() ? "listed" : "copied");
}

}  // namespace

TaskRun::TaskRun(const Library& library, const TaskKind& kind, const TaskRequest& request,
                 const Options& options, EventWriter* events, ProgressView* view)
    : kind_(kind),
      request_(request),
      options_(options),
      command_(options.command),
      events_(*events),
      view_(*view),
      slices_(kind.HandsOver()
                  ? std::make_unique<SliceHandOver>(
                        request,
                        [this](const std::string& line, bool again) { return Send(line, again); },
                        command_,
                        [this] {
                            ShowProgress();
                            return !is_interrupted_;
                        })
                  : nullptr),
      left_unfinished_("interrupted: " +
                       (slices_ ? "the set in " + slices_->Directory() + " is not complete"
                                : DescribeLeft(kind, request, false)) +
                       options.left_too),
      client_(library, [this](const StatusEvent& event) { Heard(event); }) {}

int TaskRun::Run(TaskSummary* summary) {
    const SignalScope signals([this](int times) { Interrupt(times); });
    if (slices_) {
        slices_->Prepare();
    }
    session_ = client_.Open();
    if (events_.json()) {
        events_.Session(session_);
    }
    view_.Begin(fmt::format("{}{}{}", kind_.subcommand, *kind_.kind == '\0' ? "" : " ", kind_.kind),
                options_.total);
    task_ = Send(command_);
    int status = kTaskFailed;
    if (task_ >= kFirstId) {
        status = Follow(summary);
    } else {
        view_.End();
        PrintKeptLog();
        Tell(ExplainRefusal(task_));
    }
    const int closed = client_.Finish(session_);
    if (events_.json()) {
        events_.Closed(session_, closed);
    }
    return status;
}

int TaskRun::Send(const std::string& command, bool is_repeated) {
    const int result = client_.Execute(session_, command);
    if (events_.json() && !is_repeated) {
        events_.Result(command, result);
    }
    return result;
}

void TaskRun::Heard(const StatusEvent& event) {
    if (slices_) {
        slices_->Heard(event);
    }
    if (event.code == kStatusProgress && !options_.bytes_read) {
        view_.SetDone(std::strtoull(event.message.c_str(), nullptr, 10));
    }
    if (RefusesPath(event)) {
        path_refused_ = true;
    }
    // People hear of progress and slices from the bar, of a failure by its reason.
    if (events_.json() || (event.code != kStatusProgress && event.code != kStatusSlicePackaged &&
                           event.code != kStatusFailed)) {
        view_.Aside([this, &event] { events_.Status(event); });
    }
    if (event.code != kStatusProgress) {
        const std::lock_guard lock(mutex_);
        has_news_ = true;
        is_aborted_ = is_aborted_ || event.code == kStatusAborted;
        if (EndsTask(event)) {
            last_code_ = event.code;
        }
        changed_.notify_all();
    }
}

void TaskRun::Tell(const std::string& error) {
    view_.Aside([this, &error] { events_.Error(error); });
}

int TaskRun::Follow(TaskSummary* summary) {
    const Clock::time_point start = Clock::now();
    const auto has_ended = [this] {
        const std::lock_guard lock(mutex_);
        return last_code_.has_value();
    };
    while (!has_ended()) {
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
    view_.End();
    const int status = End(*last_code_ == kStatusSuccess);
    summary->task = task_;
    summary->seconds = elapsed.count();
    if (slices_) {
        summary->slices = slices_->Count();
    }
    return status;
}

void TaskRun::WaitForNews() {
    const Clock::time_point tick = Clock::now() + kTick;
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, slices_ ? std::min(tick, slices_->next_step()) : tick,
                        [this] { return has_news_; });
    has_news_ = false;
}

void TaskRun::ShowProgress() {
    if (options_.bytes_read) {
        view_.SetDone(options_.bytes_read());
    }
    if (slices_ && slices_->Count() > 0) {
        view_.SetNote(Counted(slices_->Count(), "slice", "slices"));
    }
    view_.Tick();
}

void TaskRun::Stop() {
    stopping_ = true;
    if (!events_.json() && !events_.quiet()) {
        view_.Aside(
            [this] { Print(stderr, fmt::format("task {}: {}\n", task_, DescribeStop(kind_))); });
    }
    const int result = Send(fmt::format("abort {}", task_));
    const std::lock_guard lock(mutex_);
    // One that has not begun leaves the queue without a status; of a running one it has come.
    if (result == 0 && !is_aborted_ && !last_code_) {
        last_code_ = kStatusAborted;
    }
}

int TaskRun::End(bool succeeded) {
    if (slices_) {
        const std::string error = slices_->Finish(succeeded && !stopping_);
        untaken_ = untaken_.empty() ? error : untaken_;
    }
    if (is_interrupted_) {
        Tell("interrupted: " + (slices_
                                    ? slices_->DescribeLeft() + ", of a set that is not complete"
                                    : DescribeLeft(kind_, request_, succeeded)));
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
    Tell(path_refused_ ? "the library refuses a path"
                       : ExplainFailure(task_, kind_, request_, options_.log_is_shown));
    return kTaskFailed;
}

// On the signals' thread. Who asks twice does not wait: some tasks never end, such as the copy of a
// FIFO.
void TaskRun::Interrupt(int times) {
    if (times > 1) {
        EndInterrupted(left_unfinished_);
    }
    is_interrupted_ = true;
    const std::lock_guard lock(mutex_);
    has_news_ = true;
    changed_.notify_all();
}

}  // namespace peltexctl
