// What the shell knows of the tasks that the library was given: which statuses came, which have
// ended. A task that a session takes out of the queue with its end is not told of, and never ends
// here.
//
// Thread-safe. Statuses are recorded on the library's threads, some of them with the library's
// lock held; nothing here calls the library.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ui/events.h"

namespace peltexctl {

class TaskTracker {
  public:
    using Clock = std::chrono::steady_clock;

    // Records one call of the callback. May come before Given() for the same task.
    void Heard(const StatusEvent& event);

    // Whether people are to be told of this task's progress again: once a second.
    bool IsProgressDue(int task);

    // Records that the library answered a command with this task.
    void Given(int task, int session);

    // Records that an abort of the task was accepted: one that was running has status 2 by then.
    void AbortAccepted(int task);

    // Waits until the task has ended. Returns its last code (2 if it never ran), or nothing at the
    // deadline.
    std::optional<int> WaitEnded(int task, Clock::time_point deadline);

    // Waits for a status of the task that no earlier call for that task and code has taken, and
    // takes it. Returns false at the deadline.
    bool WaitStatus(int task, int code, Clock::time_point deadline);

    // Waits until every given task of these sessions has ended. Returns those that have not at the
    // deadline.
    std::vector<int> WaitAllEnded(const std::vector<int>& sessions, Clock::time_point deadline);

    // The given tasks that have not ended, and what was last heard of each; waits for nobody.
    std::string DescribeUnfinished() const;

    // True if a given task ended with -1.
    bool AnyFailed() const;

  private:
    struct Task {
        int session = 0;
        bool given = false;
        Clock::time_point shown{};  // when progress was
        bool ended = false;
        int last_code = 0;         // of an ended task
        std::string last_words;    // its last status, as people read it
        std::map<int, int> seen;   // statuses by code
        std::map<int, int> taken;  // of those, the ones that WaitStatus() has answered with
    };

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, Task> tasks_;  // protected by mutex_
};

}  // namespace peltexctl
