// What the shell knows of the tasks that the library was given: which statuses came, which have
// ended. A task that a session takes out of the queue with its end is not told of, and never ends
// here.
//
// Thread-safe. Statuses are recorded on the library's threads, some of them with the library's
// lock held; nothing here calls the library.
#pragma once

#include <fmt/format.h>

#include <algorithm>
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
    using Seconds = std::chrono::duration<double>;

    // Records one call of the callback. May come before Given() for the same task.
    void Heard(const StatusEvent& event) {
        const std::lock_guard lock(mutex_);
        Task& task = tasks_[event.task];
        task.last_words = DescribeStatus(event);
        task.untaken[event.code]++;
        if (EndsTask(event)) {
            task.end = event.code;
        }
        changed_.notify_all();
    }

    // Whether people are to be told of this task's progress again: once a second.
    bool IsProgressDue(int id) {
        const std::lock_guard lock(mutex_);
        Task& task = tasks_[id];
        const Clock::time_point now = Clock::now();
        const bool is_due = now - task.shown >= std::chrono::seconds(1);
        task.shown = is_due ? now : task.shown;
        return is_due;
    }

    // Records that the library answered a command with this task.
    void Given(int id, int session) {
        const std::lock_guard lock(mutex_);
        Task& task = tasks_[id];
        task.session = task.session.value_or(session);
    }

    // Records that an abort of the task was accepted: one that was running has status 2 by then.
    void AbortAccepted(int id) {
        const std::lock_guard lock(mutex_);
        Task& task = tasks_[id];
        if (!task.end && task.untaken.count(kStatusAborted) == 0) {
            task.end = kStatusAborted;
            changed_.notify_all();
        }
    }

    // Waits until the task has ended. Returns its last code (2 if it never ran), or nothing where
    // that takes longer. One that nobody has heard of yet may still turn up.
    std::optional<int> WaitEnded(int id, Seconds patience) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, patience, [this, id] { return tasks_[id].end.has_value(); });
        return tasks_[id].end;
    }

    // Waits for a status of the task that no earlier call for that task and code has taken, and
    // takes it. Returns false where that takes longer.
    bool WaitStatus(int id, int code, Seconds patience) {
        std::unique_lock lock(mutex_);
        std::map<int, int>& untaken = tasks_[id].untaken;
        const bool has_come = changed_.wait_for(lock, patience, [&untaken, code] {
            return untaken.count(code) > 0 && untaken[code] > 0;
        });
        if (has_come) {
            --untaken[code];
        }
        return has_come;
    }

    // Waits until every given task of these sessions has ended. Returns those that have not by
    // then.
    std::vector<int> WaitAllEnded(const std::set<int>& sessions, Seconds patience) {
        std::unique_lock lock(mutex_);
        std::vector<int> unfinished;
        changed_.wait_for(lock, patience, [&] {
            unfinished.clear();
            for (const auto& [id, task] : tasks_) {
                if (task.IsUnfinished() && sessions.count(*task.session) > 0) {
                    unfinished.push_back(id);
                }
            }
            return unfinished.empty();
        });
        return unfinished;
    }

    // The given tasks that have not ended, and what was last heard of each; waits for nobody.
    std::string DescribeUnfinished() const {
        const std::unique_lock lock(mutex_, std::try_to_lock);
        std::string text;
        if (lock.owns_lock()) {
            for (const auto& [id, task] : tasks_) {
                if (task.IsUnfinished()) {
                    text +=
                        fmt::format("{}task {}: {}", text.empty() ? "" : ", ", id, task.last_words);
                }
            }
        }
        return text;
    }

    // True if a given task ended with -1.
    bool AnyFailed() const {
        const std::lock_guard lock(mutex_);
        return std::any_of(tasks_.begin(), tasks_.end(), [](const auto& entry) {
            return entry.second.session && entry.second.end == kStatusFailed;
        });
    }

  private:
    using Clock = std::chrono::steady_clock;

    struct Task {
        bool IsUnfinished() const { return session && !end; }

        std::optional<int> session;              // of one that was given
        std::optional<int> end;                  // the last code of one that has ended
        Clock::time_point shown = Clock::now();  // when its progress was
        std::string last_words = "waiting";      // its last status, as people read it
        // How many statuses of each code have come, less those that WaitStatus() has taken.
        std::map<int, int> untaken;
    };

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, Task> tasks_;  // protected by mutex_
};

}  // namespace peltexctl
