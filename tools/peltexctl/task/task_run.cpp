// Tested by tests/peltexctl/test_archive_tasks.py and test_signals.py.
#include "task/task_run.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <utility>

#include "ui/signals.h"

namespace peltexctl {

namespace {

using Clock = TaskTracker::Clock;

constexpr std::chrono::milliseconds kTick{20};

}  // namespace

TaskRun::TaskRun(const Library& library, const TaskKind& kind, const TaskRequest& request,
                 EventWriter* events, uint64_t total, std::vector<std::string> restored)
    : kind_(kind),
      request_(request),
      command_(kind.compose(kind, request)),
      events_(*events),
      slices_(kind.HandsOver() ? std::make_unique<SliceHandOver>(
                                     [this](const std::string& line) { return Send(line); },
                                     command_, request.take)
                               : nullptr),
      to_restore_(std::move(restored)),
      view_({kind.CountsBytes(), kind.CountsBytes() ? total : 0},
            [this] { return DescribeProgress(); }),
      client_(library, [this](const StatusEvent& event) { Heard(event); }) {}

TaskRun::Result TaskRun::Run() {
    const SignalScope signals([this] { view_.Report(); }, [this] { Interrupt(); });
    restored_.Keep(to_restore_);
    session_ = client_.Open();
    if (events_.json()) {
        events_.Session(session_);
    }
    const int task = Send(command_);
    Result result;
    if (task > 0) {
        result = Follow(task);
    } else {
        Tell(ExplainRefusal(task, request_));
    }
    const int closed = client_.Finish(session_);
    if (events_.json()) {
        events_.Closed(session_, closed);
    }
    return result;
}

std::string TaskRun::TakenPath(const std::string& path) const {
    return slices_ ? slices_->TakenPath(path) : path;
}

int TaskRun::Send(const std::string& command) {
    const int result = client_.Execute(session_, command);
    if (events_.json()) {
        events_.Result(command, result);
    }
    return result;
}

void TaskRun::Heard(const StatusEvent& event) {
    if (slices_) {
        slices_->Heard(event);
    }
    view_.Heard(event);
    if (RefusesPath(event)) {
        path_refused_ = true;
    }
    if (event.code == kStatusBriefSize) {
        listed_ = std::strtoll(event.message.c_str(), nullptr, 10);
    }
    // People hear of progress and slices from the bar, of a failure by its reason.
    if (events_.json() || (event.code != kStatusProgress && event.code != kStatusSlicePackaged &&
                           event.code != kStatusFailed)) {
        view_.Aside([this, &event] { events_.Status(event); });
    }
}

void TaskRun::Tell(const std::string& error) {
    view_.Aside([this, &error] { events_.Error(error); });
}

bool TaskRun::Took(const std::string& error) {
    if (!error.empty()) {
        untaken_ = true;
        Tell(error);
    }
    return error.empty();
}

TaskRun::Result TaskRun::Follow(int task) {
    const Clock::time_point start = Clock::now();
    std::optional<int> code;
    while (!(code = client_.tasks().WaitEnded(task, Clock::now() + kTick))) {
        const bool may_go_on = interrupts_ == 0 && (!slices_ || stopping_ || Took(slices_->Step()));
        if (!may_go_on && !stopping_) {
            Stop(task);
        }
        if (!events_.json()) {
            view_.Tick();
        }
    }
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    Result result;
    result.status = End(task, *code == kStatusSuccess);
    result.task = task;
    result.seconds = elapsed.count();
    if (listed_ >= 0) {
        result.listed = static_cast<uint64_t>(listed_);
    }
    return result;
}

void TaskRun::Stop(int task) {
    stopping_ = true;
    if (!to_restore_.empty() && !restored_.are_kept()) {
        TellLeft(Ending::kUnfinished);
        _exit(kInterrupted);
    }
    if (slices_) {
        Took(slices_->PrepareAbort());
    }
    if (!events_.json()) {
        view_.Aside([this, task] {
            fmt::print(stderr, "task {}: {}\n", task,
                       kind_.HasArchive() ? "stopping it"
                                          : "the library ends it when all is copied; to leave it "
                                            "unfinished interrupt it again");
        });
    }
    Send(fmt::format("abort {}", task));
}

int TaskRun::End(int task, bool succeeded) {
    const bool whole = succeeded && !stopping_;
    if (slices_) {
        Took(slices_->Finish(whole ? kind_.file(request_) : ""));
    }
    restored_.PutBack();
    if (interrupts_ > 0) {
        TellLeft(succeeded ? Ending::kSucceeded : Ending::kFailed);
        return kInterrupted;
    }
    if (untaken_) {
        Tell(fmt::format("{}; make room or give another --take DIR, and start the backup again",
                         slices_->DescribeLeft()));
    } else if (path_refused_) {
        Tell(ExplainPathRefusal(request_));
    } else if (!succeeded) {
        Tell(ExplainFailure(task, kind_, request_));
    }
    return succeeded && !untaken_ ? kDone : kTaskFailed;
}

// On the signals' thread. Who asks twice does not wait: some tasks never end, such as the copy of a
// FIFO.
void TaskRun::Interrupt() {
    if (interrupts_++ > 0) {
        TellLeft(Ending::kUnfinished);
        _exit(kInterrupted);
    }
}

void TaskRun::TellLeft(Ending ending) {
    Tell("interrupted: " + DescribeLeft(kind_, request_, ending, DescribeSlices(ending)));
}

std::string TaskRun::DescribeProgress() const {
    if (restored_.are_kept()) {
        return restored_.DescribeProgress();
    }
    const uint64_t count = CountSlices();
    return count > 0 ? fmt::format("{} slice{}", count, count == 1 ? "" : "s") : "";
}

std::string TaskRun::DescribeSlices(Ending ending) const {
    if (slices_) {
        return slices_->DescribeLeft() + (stopping_ ? ", of a set that is not complete" : "");
    }
    if (to_restore_.empty()) {
        return "";
    }
    if (ending != Ending::kUnfinished) {
        return "the slices are as before";
    }
    return restored_.are_kept() ? "the slices are kept as NAME.kept: the same restore finds them"
                                : "the slices that were not unpacked are as before";
}

}  // namespace peltexctl
