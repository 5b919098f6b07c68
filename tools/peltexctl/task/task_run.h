// One task from its command to its end: a session, the command, the events, the slices that are
// handed over, the signals that come meanwhile.
//
// Used from one thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "task/session_client.h"
#include "task/slice_hand_over.h"
#include "task/task_kinds.h"
#include "ui/events.h"
#include "ui/exit_code.h"
#include "ui/progress_view.h"

namespace peltexctl {

class TaskRun {
  public:
    struct Options {
        std::string command;
        uint64_t total = 0;                    // bytes to be expected; 0 if that is not known
        std::function<uint64_t()> bytes_read;  // of a restore, whose progress tells no bytes
        std::string left_too;                  // what else an unfinished task leaves
        bool log_is_shown = false;
    };

    // All must outlive the run.
    TaskRun(const Library& library, const TaskKind& kind, const TaskRequest& request,
            const Options& options, EventWriter* events, ProgressView* view);

    TaskRun(const TaskRun&) = delete;
    TaskRun& operator=(const TaskRun&) = delete;

    // Returns the program's exit status as far as the task decides it, and fills `summary` in for
    // one that it has given an id. Throws Failure.
    int Run(TaskSummary* summary);

  private:
    using Clock = std::chrono::steady_clock;

    int Send(const std::string& command, bool is_repeated = false);
    void Heard(const StatusEvent& event);
    void Tell(const std::string& error);
    int Follow(TaskSummary* summary);
    void WaitForNews();
    void ShowProgress();
    void Stop();
    int End(bool succeeded);
    void Interrupt(int times);

    const TaskKind& kind_;
    const TaskRequest& request_;
    const Options& options_;
    const std::string command_;
    EventWriter& events_;
    ProgressView& view_;
    const std::unique_ptr<SliceHandOver> slices_;  // of a split backup
    const std::string left_unfinished_;
    SessionClient client_;
    int session_ = 0;
    int task_ = 0;
    bool stopping_ = false;
    std::string untaken_;  // why a slice could not be taken
    std::atomic<bool> is_interrupted_{false};
    std::atomic<bool> path_refused_{false};

    std::mutex mutex_;
    std::condition_variable changed_;
    // Protected by mutex_.
    bool has_news_ = false;
    bool is_aborted_ = false;
    std::optional<int> last_code_;  // of the task that has ended
};

}  // namespace peltexctl
