// One task from its command to its end: a session, the command, the events, the slices that are
// handed over, the signals that come meanwhile.
//
// Used from one thread. No callback comes after Run(), so it may go then.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ui/events.h"
#include "ui/exit_code.h"
#include "task/library.h"
#include "ui/progress_view.h"
#include "task/restored_slices.h"
#include "task/session_client.h"
#include "task/slice_hand_over.h"
#include "task/task_kinds.h"
#include "task/task_words.h"

namespace peltexctl {

class TaskRun {
  public:
    struct Result {
        int status = kTaskFailed;  // the program's exit status, as far as the task decides it
        int task = 0;
        double seconds = 0;
        std::optional<uint64_t> listed;  // bytes, by a brief's account
    };

    // `library`, `kind`, `request` and `events` must outlive the run. `total`: the bytes of content
    // to be expected, 0 if unknown. `restored`: the slices that are to be restored.
    TaskRun(const Library& library, const TaskKind& kind, const TaskRequest& request,
            EventWriter* events, uint64_t total, std::vector<std::string> restored);

    TaskRun(const TaskRun&) = delete;
    TaskRun& operator=(const TaskRun&) = delete;

    Result Run();

    // Where a file of a backup is after the run.
    std::string TakenPath(const std::string& path) const;
    // How many slices a split backup has handed over.
    uint64_t CountSlices() const { return slices_ ? slices_->Count() : 0; }

  private:
    void Heard(const StatusEvent& event);
    void Tell(const std::string& error);
    bool Took(const std::string& error);
    int Send(const std::string& command);
    Result Follow(int task);
    void Stop(int task);
    int End(int task, bool succeeded);
    void Interrupt();
    void TellLeft(Ending ending);
    std::string DescribeProgress() const;
    std::string DescribeSlices(Ending ending) const;

    const TaskKind& kind_;
    const TaskRequest& request_;
    const std::string command_;
    EventWriter& events_;
    const std::unique_ptr<SliceHandOver> slices_;  // of a split backup
    const std::vector<std::string> to_restore_;
    RestoredSlices restored_;
    ProgressView view_;
    SessionClient client_;
    int session_ = 0;
    bool stopping_ = false;
    bool untaken_ = false;  // a slice could not be taken
    std::atomic<bool> path_refused_{false};
    std::atomic<int> interrupts_{0};
    std::atomic<int64_t> listed_{-1};  // bytes; -1: nobody told
};

}  // namespace peltexctl
