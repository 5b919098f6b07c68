#include "tests/soak/soak_ledger.h"

#include <stdlib.h>

#include <algorithm>
#include <iterator>

namespace peltex_soak {

namespace {

constexpr int32_t kFirstId = 100;
constexpr size_t kMaxRunning = 2;
constexpr uint64_t kProgressStep = 81920;
constexpr size_t kMaxFaults = 50;

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

bool isBrief(Kind kind) {
    return kind == Kind::kBriefDir || kind == Kind::kBriefByFile;
}

}  // namespace

Entry& Ledger::at(int32_t id) {
    const auto index = static_cast<size_t>(id - kFirstId);
    if (id >= kFirstId && index < mEntries.size()) {
        return mEntries[index];
    }
    check(false, id, "is an id that there is room for");
    mStray = {};
    return mStray;
}

void Ledger::check(bool isRight, int32_t id, const char* rule) {
    if (!isRight && mFaults.size() < kMaxFaults) {
        mFaults.push_back("id " + std::to_string(id) + ": not so: " + rule);
    }
}

void Ledger::fault(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mLock);
    mFaults.push_back(text);
}

uint32_t Ledger::deaths() const {
    const std::lock_guard<std::mutex> lock(mLock);
    return mDeathsEnded;
}

void Ledger::deathBegins() {
    const std::lock_guard<std::mutex> lock(mLock);
    ++mDeathsBegun;
}

void Ledger::deathEnds() {
    const std::lock_guard<std::mutex> lock(mLock);
    ++mDeathsEnded;
}

bool Ledger::mayHaveDied(const Entry& session) const {
    return mDeathsBegun > session.deathsBefore;
}

void Ledger::opened(int32_t session, uint32_t deathsBefore) {
    const std::lock_guard<std::mutex> lock(mLock);
    Entry& entry = at(session);
    check(entry.use == Entry::Use::kFree, session, "a session's id was never given before");
    entry.use = Entry::Use::kSession;
    entry.deathsBefore = deathsBefore;
}

void Ledger::finishBegins(int32_t session) {
    const std::lock_guard<std::mutex> lock(mLock);
    at(session).finishBegun = true;
    for (auto task = mOpen.begin(); task != mOpen.end();) {
        Entry& entry = at(*task);
        if (entry.session != session) {
            ++task;
            continue;
        }
        entry.isDisturbed = true;
        task = mOpen.erase(task);
    }
}

void Ledger::finishEnds(int32_t session, int32_t result) {
    const std::lock_guard<std::mutex> lock(mLock);
    Entry& entry = at(session);
    entry.finished = result == 0;
    check(result == 0 || (result == -1 && mayHaveDied(entry)), session,
          "only a death closes a session before its client does");
}

bool Ledger::mayBeClosed(int32_t session) const {
    const std::lock_guard<std::mutex> lock(mLock);
    const Entry& entry = mEntries[static_cast<size_t>(session - kFirstId)];
    return entry.finishBegun || mayHaveDied(entry);
}

void Ledger::accepted(int32_t task, int32_t session, Kind kind, Outcome outcome,
                      const std::string& line) {
    const std::lock_guard<std::mutex> lock(mLock);
    Entry& entry = at(task);
    if (entry.use == Entry::Use::kTask && kind == Kind::kBackupSplit) {
        const auto split = mSplits.find(task);
        check(entry.kind == kind && (split == mSplits.end() || split->second == line), task,
              "a continuation is answered with the id of the same split backup");
        return;
    }
    check(entry.use == Entry::Use::kFree, task, "a task's id was never given before");
    entry.use = Entry::Use::kTask;
    entry.session = session;
    entry.kind = kind;
    entry.outcome = outcome;
    if (kind == Kind::kBackupSplit && entry.ended == 0) {
        mSplits[task] = line;
    }
    if (entry.ended == 0) {
        mOpen.insert(task);
    }
    ++mTasks;
}

void Ledger::abortBegins(int32_t task) {
    const std::lock_guard<std::mutex> lock(mLock);
    at(task).isDisturbed = true;
}

void Ledger::abortEnds(int32_t task, int32_t result) {
    const std::lock_guard<std::mutex> lock(mLock);
    Entry& entry = at(task);
    entry.abortsDone += result == 0 ? 1U : 0U;
    if (entry.abortsDone > entry.aborts) {
        mOpen.erase(task);
    }
}

// Statuses may come before their task's id has been returned, so what belongs to the task's kind is
// left to verify().
void Ledger::told(int32_t session, int32_t task, int32_t code, const std::string& message) {
    const std::lock_guard<std::mutex> lock(mLock);
    Entry& entry = at(task);
    check(entry.toldSession == 0 || entry.toldSession == session, task,
          "a task's statuses name one session");
    entry.toldSession = session;
    const bool isRunning = entry.started == 1 && entry.ended == 0;
    switch (code) {
        case 1:
            check(message == "processTask start", task, "a start has its text");
            check(entry.started == 0 && entry.ended == 0, task, "a task starts once");
            entry.started = 1;
            ++mMoves;
            taken(task);
            check(++mRunning <= kMaxRunning, task, "two tasks run at most");
            break;
        case 0:
        case -1:
            toldEnd(task, entry, code, message);
            break;
        case 2:
            check(message.empty(), task, "an abort has no text");
            ++entry.aborts;
            break;
        case 3:
            check(isRunning, task, "progress is that of a running task");
            toldProgress(task, entry, message);
            break;
        case 4:
            check(isRunning, task, "slices are those of a running task");
            ++entry.slices;
            if (message == "end" || endsWith(message, "|end")) {
                ++entry.lastSlices;
            } else {
                check(message[0] == '/', task, "a slice is named by its path");
                mPaused.insert(task);
            }
            break;
        case 5:
            check(isRunning && message == "timout caused", task, "a time-out has its text");
            ++entry.timeouts;
            mPaused.erase(task);
            break;
        case 6:
            check(isRunning && isNumber(message), task, "a brief's size is a number");
            ++entry.briefs;
            break;
        default:
            check(false, task, "statuses are -1 to 6");
    }
    mTold.notify_all();
}

void Ledger::taken(int32_t task) {
    mTaken.push_back(task);
    mNewest = std::max(mNewest, task);
}

void Ledger::toldProgress(int32_t task, Entry& entry, const std::string& message) {
    const uint64_t total = isNumber(message) ? strtoull(message.c_str(), nullptr, 10) : 0;
    check(total >= entry.progress + kProgressStep, task, "progress grows by 81920 or more");
    entry.progress = total;
    mPaused.erase(task);
}

void Ledger::toldEnd(int32_t task, Entry& entry, int32_t code, const std::string& message) {
    check(entry.ended == 0, task, "a task ends once");
    if (message == "prepareTask error") {
        check(code == -1 && entry.started == 0, task, "what is dropped never started");
        taken(task);
    } else {
        check(message == "processTask finish", task, "an end has its text");
        check(entry.started == 1, task, "what ends has started");
        mRunning -= entry.started;
    }
    ++entry.ended;
    ++mMoves;
    entry.code = code;
    mPaused.erase(task);
    mSplits.erase(task);
    mOpen.erase(task);
}

size_t Ledger::tasks() const {
    const std::lock_guard<std::mutex> lock(mLock);
    return mTasks;
}

uint64_t Ledger::moves() const {
    const std::lock_guard<std::mutex> lock(mLock);
    return mMoves;
}

// An abort that was answered with 0 and told no status took its task out of the queue. What is left
// of a closed session by newer tasks has gone with it.
bool Ledger::isOver(int32_t task) const {
    const std::lock_guard<std::mutex> lock(mLock);
    const Entry& entry = mEntries[static_cast<size_t>(task - kFirstId)];
    const Entry& session = mEntries[static_cast<size_t>(entry.session - kFirstId)];
    return entry.ended > 0 || entry.abortsDone > entry.aborts ||
           (entry.started == 0 && session.finished && mNewest > task);
}

bool Ledger::succeeded(int32_t task) const {
    const std::lock_guard<std::mutex> lock(mLock);
    const Entry& entry = mEntries[static_cast<size_t>(task - kFirstId)];
    return entry.ended == 1 && entry.code == 0;
}

int32_t Ledger::pausedSplit(std::mt19937_64& random, std::string* line) const {
    const std::lock_guard<std::mutex> lock(mLock);
    if (mPaused.empty()) {
        return 0;
    }
    const auto paused = std::next(mPaused.begin(), static_cast<long>(random() % mPaused.size()));
    const auto split = mSplits.find(*paused);
    if (split == mSplits.end()) {
        return 0;
    }
    *line = split->second;
    return split->first;
}

void Ledger::waitForStatus(std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(mLock);
    mTold.wait_for(lock, limit);
}

void Ledger::verify() {
    const std::lock_guard<std::mutex> lock(mLock);
    size_t used = mEntries.size();
    while (used > 0 && mEntries[used - 1].use == Entry::Use::kFree) {
        --used;
    }
    for (size_t i = 0; i < mEntries.size(); ++i) {
        const Entry& entry = mEntries[i];
        const int32_t id = kFirstId + static_cast<int32_t>(i);
        if (entry.use == Entry::Use::kTask) {
            verifyTask(id, entry);
            continue;
        }
        check(i >= used || entry.use == Entry::Use::kSession, id, "no id is left out");
        check(entry.toldSession == 0, id, "statuses name tasks that were accepted");
        check(entry.abortsDone == 0, id, "an abort succeeds for tasks alone");
    }
    check(mRunning == 0, 0, "nothing runs at the end");
    verifyOrder();
}

void Ledger::verifyTask(int32_t id, const Entry& entry) {
    check(entry.toldSession == 0 || entry.toldSession == entry.session, id,
          "statuses name the task's session");
    const bool isSplit = entry.kind == Kind::kBackupSplit;
    check(isSplit || entry.slices + entry.timeouts == 0, id,
          "slices and time-outs are those of split backups");
    check(entry.timeouts <= 1 && (entry.timeouts == 0 || entry.code == -1), id,
          "one time-out fails a task");
    check(entry.abortsDone >= entry.aborts, id, "each status 2 is that of an abort");

    const bool wasAborted = entry.abortsDone > entry.aborts;
    if (wasAborted) {
        check(entry.abortsDone == entry.aborts + 1 && entry.started == 0 && entry.ended == 0, id,
              "a task that was taken out of the queue never starts");
        return;
    }
    if (entry.ended == 0) {
        check(entry.started == 0 && at(entry.session).finished, id,
              "a task ends, or goes with its session while it is queued");
        return;
    }
    if (entry.isDisturbed || entry.timeouts > 0) {
        return;
    }
    const bool succeeded = entry.code == 0;
    check(entry.outcome == Outcome::kAny || succeeded == (entry.outcome == Outcome::kSuccess), id,
          "an undisturbed task ends as it has to");
    check(entry.briefs == (succeeded && isBrief(entry.kind) ? 1U : 0U), id,
          "a brief that was written tells its size");
    check(entry.lastSlices == (succeeded && isSplit ? 1U : 0U), id,
          "a split backup that succeeded handed over its last slice");
}

// Tasks are taken in the order of their ids. A worker tells that it took one a moment after it did,
// so one older task at a time may be told late.
void Ledger::verifyOrder() {
    std::vector<int32_t> sorted = mTaken;
    std::sort(sorted.begin(), sorted.end());
    int32_t newest = 0;
    for (size_t told = 0; told < mTaken.size(); ++told) {
        newest = std::max(newest, mTaken[told]);
        const auto upTo = std::upper_bound(sorted.begin(), sorted.end(), newest) - sorted.begin();
        check(static_cast<size_t>(upTo) <= told + 2, mTaken[told], "the oldest task comes first");
    }
}

}  // namespace peltex_soak
