// What clients have asked of the service and what it has told them, and the rules that hold between
// the two. Safe from any thread.
#pragma once

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "task/backup_task.h"

namespace peltex_soak {

using namespace android::installd;

inline constexpr int32_t kFirstId = 100;
inline constexpr size_t kMaxRunning = 2;
inline constexpr uint64_t kProgressStep = 81920;
inline constexpr size_t kMaxFaults = 50;

inline bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// What an undisturbed task has to end with.
enum class Outcome : int8_t { kAny, kSuccess, kFailure };

struct Entry {
    enum class Use : int8_t { kFree, kSession, kTask };
    Use use = Use::kFree;
    int32_t session = 0;     // a task's
    bool isClosing = false;  // a session's; marks are set before the call is made
    bool isClosed = false;   // and by its client
    uint32_t deathsBefore = 0;
    // What was asked of a task.
    BackupTaskType kind = BACKUP_FILE;
    Outcome outcome = Outcome::kAny;
    std::string line;          // of a split backup that has not ended
    bool isDisturbed = false;  // by an abort, or by the end of its session
    uint32_t abortsDone = 0;   // those that were answered with 0
    // What was told of it.
    int32_t toldSession = 0;
    int32_t code = 0;
    uint32_t started = 0, ended = 0, aborts = 0, timeouts = 0, briefs = 0, slices = 0;
    uint32_t lastSlices = 0;
    uint64_t progress = 0;
};

class Ledger {
  public:
    // Room for this many ids: it is taken at once, so that memory stays level from then on.
    explicit Ledger(size_t ids) : mEntries(ids) { mTaken.reserve(ids); }

    void fault(const std::string& text) {
        const std::lock_guard<std::mutex> lock(mLock);
        mFaults.push_back(text);
    }

    // That are over.
    uint32_t deaths() const {
        const std::lock_guard<std::mutex> lock(mLock);
        return mDeathsEnded;
    }

    void deathBegins() {
        const std::lock_guard<std::mutex> lock(mLock);
        ++mDeathsBegun;
    }

    void deathEnds() {
        const std::lock_guard<std::mutex> lock(mLock);
        ++mDeathsEnded;
    }

    // `deathsBefore`: deaths() before the session was asked for.
    void opened(int32_t session, uint32_t deathsBefore) {
        const std::lock_guard<std::mutex> lock(mLock);
        Entry& entry = at(session);
        check(entry.use == Entry::Use::kFree, session, "a session's id was never given before");
        entry.use = Entry::Use::kSession;
        entry.deathsBefore = deathsBefore;
    }

    void finishBegins(int32_t session) {
        const std::lock_guard<std::mutex> lock(mLock);
        at(session).isClosing = true;
        for (const int32_t task : mOpen) {
            at(task).isDisturbed = at(task).isDisturbed || at(task).session == session;
        }
    }

    void finishEnds(int32_t session, int32_t result) {
        const std::lock_guard<std::mutex> lock(mLock);
        Entry& entry = at(session);
        entry.isClosed = result == 0;
        check(result == 0 || (result == -1 && mDeathsBegun > entry.deathsBefore), session,
              "only a death closes a session before its client does");
    }

    bool mayBeClosed(int32_t session) {
        const std::lock_guard<std::mutex> lock(mLock);
        return at(session).isClosing || mDeathsBegun > at(session).deathsBefore;
    }

    void accepted(int32_t task, int32_t session, BackupTaskType kind, Outcome outcome,
                  const std::string& line) {
        const std::lock_guard<std::mutex> lock(mLock);
        Entry& entry = at(task);
        if (entry.use == Entry::Use::kTask && kind == BACKUP_SPLIT) {
            check(entry.kind == kind && (entry.line.empty() || entry.line == line), task,
                  "a continuation is answered with the id of the same split backup");
            return;
        }
        check(entry.use == Entry::Use::kFree, task, "a task's id was never given before");
        entry.use = Entry::Use::kTask;
        entry.session = session;
        entry.kind = kind;
        entry.outcome = outcome;
        if (entry.ended == 0) {
            entry.line = kind == BACKUP_SPLIT ? line : "";
            mOpen.insert(task);
        }
        ++mTasks;
    }

    void abortBegins(int32_t task) {
        const std::lock_guard<std::mutex> lock(mLock);
        at(task).isDisturbed = true;
    }

    void abortEnds(int32_t task, int32_t result) {
        const std::lock_guard<std::mutex> lock(mLock);
        at(task).abortsDone += result == 0 ? 1U : 0U;
    }

    // Statuses may come before their task's id has been returned, so what belongs to the task's
    // kind is left to verify().
    void told(int32_t session, int32_t task, int32_t code, const std::string& message) {
        const std::lock_guard<std::mutex> lock(mLock);
        Entry& entry = at(task);
        check(entry.toldSession == 0 || entry.toldSession == session, task,
              "a task's statuses name one session");
        entry.toldSession = session;
        const bool isRunning = entry.started == 1 && entry.ended == 0;
        check(isRunning || code <= TASK_STATUS_ABORTED, task, "what is told is of a running task");
        switch (code) {
            case TASK_STATUS_STARTED:
                check(message == "processTask start", task, "a start has its text");
                check(entry.started++ == 0 && entry.ended == 0, task, "a task starts once");
                ++mMoves;
                mTaken.push_back(task);
                check(++mRunning <= kMaxRunning, task, "two tasks run at most");
                break;
            case TASK_STATUS_SUCCESS:
            case TASK_STATUS_FAILED:
                toldEnd(task, entry, code, message);
                break;
            case TASK_STATUS_ABORTED:
                check(message.empty(), task, "an abort has no text");
                ++entry.aborts;
                break;
            case TASK_STATUS_PROGRESS: {
                const uint64_t total =
                    isNumber(message) ? strtoull(message.c_str(), nullptr, 10) : 0;
                check(total >= entry.progress + kProgressStep, task,
                      "progress grows by 81920 or more");
                entry.progress = total;
                mPaused.erase(task);
                break;
            }
            case TASK_STATUS_SLICE_PACKAGED: {
                const bool isLast =
                    message.size() >= 3 && message.compare(message.size() - 3, 3, "end") == 0;
                check(message == "end" || message[0] == '/', task, "a slice is named by its path");
                (isLast ? entry.lastSlices : entry.slices) += 1;
                isLast ? mPaused.erase(task) : mPaused.insert(task).second;
                break;
            }
            case TASK_STATUS_TIMEOUT:
                check(message == "timout caused", task, "a time-out has its text");
                ++entry.timeouts;
                mPaused.erase(task);
                break;
            case TASK_STATUS_BRIEF_SIZE:
                check(isNumber(message), task, "a brief's size is a number");
                ++entry.briefs;
                break;
            default:
                check(false, task, "statuses are -1 to 6");
        }
        mNewest = mTaken.empty() ? 0 : std::max(mNewest, mTaken.back());
        mTold.notify_all();
    }

    size_t tasks() const {
        const std::lock_guard<std::mutex> lock(mLock);
        return mTasks;
    }

    // Starts and ends told so far.
    uint64_t moves() const {
        const std::lock_guard<std::mutex> lock(mLock);
        return mMoves;
    }

    // Whether it will not run any more. An abort that was answered with 0 and told no status took
    // its task out of the queue. What is left of a closed session by newer tasks has gone with it.
    bool isOver(int32_t task) {
        const std::lock_guard<std::mutex> lock(mLock);
        const Entry& entry = at(task);
        const bool isOver = entry.ended > 0 || entry.abortsDone > entry.aborts ||
                            (entry.started == 0 && at(entry.session).isClosed && mNewest > task);
        if (isOver) {
            mOpen.erase(task);
        }
        return isOver;
    }

    // Picks a split backup that waits for its client, with its line. Returns 0 for none.
    int32_t pausedSplit(std::mt19937_64& random, std::string* line) {
        const std::lock_guard<std::mutex> lock(mLock);
        if (mPaused.empty()) {
            return 0;
        }
        const auto task = std::next(mPaused.begin(), static_cast<long>(random() % mPaused.size()));
        *line = at(*task).line;
        return line->empty() ? 0 : *task;
    }

    void waitForStatus(std::chrono::milliseconds limit) const {
        std::unique_lock<std::mutex> lock(mLock);
        mTold.wait_for(lock, limit);
    }

    void verify() {
        const std::lock_guard<std::mutex> lock(mLock);
        bool isUsed = false;
        for (size_t i = mEntries.size(); i-- > 0;) {
            const Entry& entry = mEntries[i];
            const int32_t id = kFirstId + static_cast<int32_t>(i);
            isUsed = isUsed || entry.use != Entry::Use::kFree;
            if (entry.use == Entry::Use::kTask) {
                verifyTask(id, entry);
                continue;
            }
            check(!isUsed || entry.use == Entry::Use::kSession, id, "no id is left out");
            check(entry.toldSession == 0, id, "statuses name tasks that were accepted");
            check(entry.abortsDone == 0, id, "an abort succeeds for tasks alone");
        }
        check(mRunning == 0, 0, "nothing runs at the end");
        // Tasks are taken in the order of their ids. A worker tells that it took one a moment after
        // it did, so one older task at a time may be told late.
        std::vector<int32_t> sorted = mTaken;
        std::sort(sorted.begin(), sorted.end());
        int32_t newest = 0;
        for (size_t told = 0; told < mTaken.size(); ++told) {
            newest = std::max(newest, mTaken[told]);
            const auto upTo =
                std::upper_bound(sorted.begin(), sorted.end(), newest) - sorted.begin();
            check(static_cast<size_t>(upTo) <= told + 2, mTaken[told],
                  "the oldest task comes first");
        }
    }

    const std::vector<Entry>& entries() const { return mEntries; }
    const std::vector<std::string>& faults() const { return mFaults; }

  private:
    Entry& at(int32_t id) {
        const auto index = static_cast<size_t>(id - kFirstId);
        if (id >= kFirstId && index < mEntries.size()) {
            return mEntries[index];
        }
        check(false, id, "is an id that there is room for");
        return mStray = {};
    }

    void check(bool isRight, int32_t id, const char* rule) {
        if (!isRight && mFaults.size() < kMaxFaults) {
            mFaults.push_back("id " + std::to_string(id) + ": not so: " + rule);
        }
    }

    void toldEnd(int32_t task, Entry& entry, int32_t code, const std::string& message) {
        check(entry.ended++ == 0, task, "a task ends once");
        if (message == "prepareTask error") {
            check(code == -1 && entry.started == 0, task, "what is dropped never started");
            mTaken.push_back(task);
        } else {
            check(message == "processTask finish" && entry.started == 1, task,
                  "what ends has started");
            mRunning -= entry.started;
        }
        ++mMoves;
        entry.code = code;
        entry.line.clear();
        mPaused.erase(task);
        mOpen.erase(task);
    }

    void verifyTask(int32_t id, const Entry& entry) {
        const bool isSplit = entry.kind == BACKUP_SPLIT;
        check(entry.toldSession == 0 || entry.toldSession == entry.session, id,
              "statuses name the task's session");
        check(isSplit || entry.slices + entry.lastSlices + entry.timeouts == 0, id,
              "slices and time-outs are those of split backups");
        check(entry.timeouts <= 1 && (entry.timeouts == 0 || entry.code == -1), id,
              "one time-out fails a task");
        check(entry.abortsDone >= entry.aborts, id, "each status 2 is that of an abort");
        if (entry.abortsDone > entry.aborts) {
            check(entry.abortsDone == entry.aborts + 1 && entry.started + entry.ended == 0, id,
                  "a task that was taken out of the queue never starts");
            return;
        }
        if (entry.ended == 0) {
            check(entry.started == 0 && at(entry.session).isClosed, id,
                  "a task ends, or goes with its session while it is queued");
            return;
        }
        if (entry.isDisturbed || entry.timeouts > 0) {
            return;
        }
        const bool succeeded = entry.code == 0;
        const bool isBrief = entry.kind == GET_BRIEFS_BY_DIR || entry.kind == GET_BRIEFS_BY_FILE;
        check(entry.outcome == Outcome::kAny || succeeded == (entry.outcome == Outcome::kSuccess),
              id, "an undisturbed task ends as it has to");
        check(entry.briefs == (succeeded && isBrief ? 1U : 0U), id,
              "a brief that was written tells its size");
        check(entry.lastSlices == (succeeded && isSplit ? 1U : 0U), id,
              "a split backup that succeeded handed over its last slice");
    }

    mutable std::mutex mLock;
    mutable std::condition_variable mTold;
    // Guarded by mLock.
    std::vector<Entry> mEntries;  // by id
    Entry mStray;                 // stands in for ids that were never given
    std::vector<int32_t> mTaken;  // tasks, as workers told that they took them
    int32_t mNewest = 0;          // of those
    std::set<int32_t> mPaused;
    std::set<int32_t> mOpen;  // tasks that finishing their session may still disturb
    std::vector<std::string> mFaults;
    size_t mTasks = 0;
    size_t mRunning = 0;
    uint64_t mMoves = 0;
    uint32_t mDeathsBegun = 0;
    uint32_t mDeathsEnded = 0;
};

}  // namespace peltex_soak
