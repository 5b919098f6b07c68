// What is known of the tasks that the library was given: which statuses came, which have ended.
//
// Thread-safe. Statuses are recorded on the library's threads, some of them with the library's
// lock held; nothing here calls the library.
//
// A task ends with its last status, or without one: when it is taken out of the queue, by an abort
// or by the end of its session. The library tells nobody which queued tasks a session took with
// it, so that is worked out here by the same walk over the queue. What is not known is whether a
// worker had taken a task and not yet said so; a status that arrives for a task believed dropped
// says it had, and the walk is done again without that task.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ui/events.h"

namespace peltexctl {

class TaskTracker {
  public:
    using Clock = std::chrono::steady_clock;

    // Records one call of the callback. May come before Given() for the same task.
    void Heard(const StatusEvent& event);

    // Records that the library answered a command with this task.
    void Given(int task, int session);

    // Records that an abort of the task was accepted: one that was running has status 2 by then.
    void AbortAccepted(int task);

    // Records that the session was finished.
    void SessionFinished(int session);

    // Waits until the task has ended. Returns its last code (2 if it never ran), or nothing at the
    // deadline.
    std::optional<int> WaitEnded(int task, Clock::time_point deadline);

    // Waits for a status of the task that no earlier call for that task and code has taken, and
    // takes it. Returns false at the deadline.
    bool WaitStatus(int task, int code, Clock::time_point deadline);

    // Waits until every given task has ended. Returns those that have not at the deadline.
    std::vector<int> WaitAllEnded(Clock::time_point deadline);

    // A line for each given task that has not ended: its id, and what was last heard of it.
    std::vector<std::string> DescribeUnfinished() const;

    // True if a given task ended with -1.
    bool AnyFailed() const;

  private:
    struct Task {
        int session = 0;
        bool given = false;
        bool heard = false;
        bool ended = false;
        int last_code = 0;         // of an ended task
        std::string last_words;    // its last status, as people read it
        std::map<int, int> seen;   // statuses by code
        std::map<int, int> taken;  // of those, the ones that WaitStatus() has answered with
    };

    // A finished session and the tasks that seemed queued when it was, in order.
    struct FinishedSession {
        int session;
        std::vector<int> queue;
    };

    void FindDropped();
    std::vector<int> DroppedFrom(const FinishedSession& finished) const;
    bool HasEnded(int id, const Task& task) const;
    template <typename Condition>
    bool WaitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point deadline,
                   Condition condition);

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Protected by mutex_.
    std::map<int, Task> tasks_;
    std::vector<FinishedSession> finished_;
    std::set<int> dropped_;
    Clock::time_point dropped_sure_{};  // when what dropped_ says may be relied on
};

}  // namespace peltexctl
