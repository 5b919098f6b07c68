// Tested by tests/peltexctl/test_shell.py.
#include "shell/task_tracker.h"

#include <fmt/format.h>

#include <algorithm>

namespace peltexctl {

void TaskTracker::Heard(const StatusEvent& event) {
    const std::lock_guard lock(mutex_);
    Task& task = tasks_[event.task];
    task.last_words = DescribeStatus(event);
    task.seen[event.code]++;
    if (EndsTask(event)) {
        task.ended = true;
        task.last_code = event.code;
    }
    changed_.notify_all();
}

bool TaskTracker::IsProgressDue(int id) {
    constexpr std::chrono::seconds kInterval{1};
    const std::lock_guard lock(mutex_);
    Task& task = tasks_[id];
    const Clock::time_point now = Clock::now();
    if (task.seen.count(kStatusProgress) == 0) {
        task.shown = now;
    }
    const bool is_due = now - task.shown >= kInterval;
    task.shown = is_due ? now : task.shown;
    return is_due;
}

void TaskTracker::Given(int id, int session) {
    const std::lock_guard lock(mutex_);
    Task& task = tasks_[id];
    if (!task.given) {
        task.given = true;
        task.session = session;
    }
}

void TaskTracker::AbortAccepted(int id) {
    const std::lock_guard lock(mutex_);
    Task& task = tasks_[id];
    if (task.ended || task.seen.count(kStatusAborted) > 0) {
        return;
    }
    task.ended = true;
    task.last_code = kStatusAborted;
    changed_.notify_all();
}

std::optional<int> TaskTracker::WaitEnded(int id, Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    // A task that nobody has heard of yet may still turn up.
    const auto ended = [this, id] { return tasks_[id].ended; };
    return changed_.wait_until(lock, deadline, ended) ? std::optional(tasks_[id].last_code)
                                                      : std::nullopt;
}

bool TaskTracker::WaitStatus(int id, int code, Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    const auto untaken = [this, id, code] {
        Task& task = tasks_[id];
        return task.seen[code] > task.taken[code];
    };
    if (!changed_.wait_until(lock, deadline, untaken)) {
        return false;
    }
    tasks_[id].taken[code]++;
    return true;
}

std::vector<int> TaskTracker::WaitAllEnded(const std::vector<int>& sessions,
                                           Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    std::vector<int> unfinished;
    changed_.wait_until(lock, deadline, [&] {
        unfinished.clear();
        for (const auto& [id, task] : tasks_) {
            if (task.given && !task.ended &&
                std::find(sessions.begin(), sessions.end(), task.session) != sessions.end()) {
                unfinished.push_back(id);
            }
        }
        return unfinished.empty();
    });
    return unfinished;
}

std::string TaskTracker::DescribeUnfinished() const {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    std::string text;
    if (lock.owns_lock()) {
        for (const auto& [id, task] : tasks_) {
            if (task.given && !task.ended) {
                text += fmt::format("{}task {}: {}", text.empty() ? "" : ", ", id,
                                    task.last_words.empty() ? "waiting" : task.last_words);
            }
        }
    }
    return text;
}

bool TaskTracker::AnyFailed() const {
    const std::lock_guard lock(mutex_);
    return std::any_of(tasks_.begin(), tasks_.end(), [](const auto& entry) {
        const Task& task = entry.second;
        return task.given && task.ended && task.last_code == kStatusFailed;
    });
}

}  // namespace peltexctl
