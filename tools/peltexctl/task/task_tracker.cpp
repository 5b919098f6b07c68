// Tested by tests/peltexctl/test_shell.py.
#include "task/task_tracker.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace peltexctl {

namespace {

// How long after the end of a session a worker may still announce a task that it took before. The
// announcement is the first thing that it does, so this is ample.
constexpr std::chrono::milliseconds kAnnouncement{200};

}  // namespace

void TaskTracker::Heard(const StatusEvent& event) {
    const std::lock_guard lock(mutex_);
    Task& task = tasks_[event.task];
    task.heard = true;
    task.last_words = DescribeStatus(event);
    task.seen[event.code]++;
    if (EndsTask(event)) {
        task.ended = true;
        task.last_code = event.code;
    }
    if (dropped_.count(event.task) > 0) {
        FindDropped();
    }
    changed_.notify_all();
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

void TaskTracker::SessionFinished(int session) {
    const std::lock_guard lock(mutex_);
    FinishedSession finished{session, {}};
    for (const auto& [id, task] : tasks_) {
        if (task.given && !task.heard && !task.ended) {
            finished.queue.push_back(id);
        }
    }
    finished_.push_back(std::move(finished));
    dropped_sure_ = Clock::now() + kAnnouncement;
    FindDropped();
    changed_.notify_all();
}

// Walks the queues of all finished sessions again. A task that would be dropped but has a status
// was not in the queue any more: the walk of that session starts afresh without it.
void TaskTracker::FindDropped() {
    dropped_.clear();
    for (FinishedSession& finished : finished_) {
        std::vector<int> gone = DroppedFrom(finished);
        const auto heard = [this](int id) { return tasks_[id].heard; };
        for (auto running = std::find_if(gone.begin(), gone.end(), heard); running != gone.end();
             running = std::find_if(gone.begin(), gone.end(), heard)) {
            auto& queue = finished.queue;
            queue.erase(std::find(queue.begin(), queue.end(), *running));
            gone = DroppedFrom(finished);
        }
        dropped_.insert(gone.begin(), gone.end());
    }
}

// The library removes by index and goes on to the next index, so the task that moves into a
// removed one's place is passed over.
std::vector<int> TaskTracker::DroppedFrom(const FinishedSession& finished) const {
    std::vector<int> queue;
    std::copy_if(finished.queue.begin(), finished.queue.end(), std::back_inserter(queue),
                 [this](int id) { return dropped_.count(id) == 0; });
    std::vector<int> gone;
    for (size_t i = 0; i < queue.size(); i++) {
        if (tasks_.at(queue[i]).session == finished.session) {
            gone.push_back(queue[i]);
            queue.erase(queue.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    return gone;
}

std::optional<int> TaskTracker::WaitEnded(int id, Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    // A task that nobody has heard of yet may still turn up.
    const auto ended = [this, id] {
        const auto found = tasks_.find(id);
        return found != tasks_.end() && HasEnded(id, found->second);
    };
    if (!WaitUntil(lock, deadline, ended)) {
        return std::nullopt;
    }
    const Task& task = tasks_.at(id);
    return task.ended ? task.last_code : static_cast<int>(kStatusAborted);
}

bool TaskTracker::WaitStatus(int id, int code, Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    const auto untaken = [this, id, code] {
        Task& task = tasks_[id];
        return task.seen[code] > task.taken[code];
    };
    if (!WaitUntil(lock, deadline, untaken)) {
        return false;
    }
    tasks_[id].taken[code]++;
    return true;
}

std::vector<int> TaskTracker::WaitAllEnded(Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    std::vector<int> unfinished;
    WaitUntil(lock, deadline, [this, &unfinished] {
        unfinished.clear();
        for (const auto& [id, task] : tasks_) {
            if (task.given && !HasEnded(id, task)) {
                unfinished.push_back(id);
            }
        }
        return unfinished.empty();
    });
    return unfinished;
}

std::vector<std::string> TaskTracker::DescribeUnfinished() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> lines;
    for (const auto& [id, task] : tasks_) {
        if (task.given && !HasEnded(id, task)) {
            lines.push_back(
                fmt::format("task {}: {}", id, task.heard ? task.last_words : "waiting"));
        }
    }
    return lines;
}

bool TaskTracker::AnyFailed() const {
    const std::lock_guard lock(mutex_);
    return std::any_of(tasks_.begin(), tasks_.end(), [](const auto& entry) {
        const Task& task = entry.second;
        return task.given && task.ended && task.last_code == kStatusFailed;
    });
}

bool TaskTracker::HasEnded(int id, const Task& task) const {
    return task.ended || (dropped_.count(id) > 0 && Clock::now() >= dropped_sure_);
}

template <typename Condition>
bool TaskTracker::WaitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point deadline,
                            Condition condition) {
    while (!condition()) {
        const Clock::time_point now = Clock::now();
        if (now >= deadline) {
            return false;
        }
        changed_.wait_until(lock,
                            now < dropped_sure_ ? std::min(deadline, dropped_sure_) : deadline);
    }
    return true;
}

}  // namespace peltexctl
