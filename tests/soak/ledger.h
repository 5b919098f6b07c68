// What clients have asked of the service and what it has told them, and the rules that hold between
// the two. Safe from any thread.
#pragma once

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "task/backup_task.h"

namespace peltex_soak {

using android::installd::BackupTaskType;

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
    BackupTaskType kind = android::installd::BACKUP_FILE;
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

    // --- Clients' calls ---
    uint32_t deaths() const;  // that are over
    void deathBegins();
    void deathEnds();
    void opened(int32_t session, uint32_t deathsBefore);  // deaths() before it was asked for
    void finishBegins(int32_t session);
    void finishEnds(int32_t session, int32_t result);
    bool mayBeClosed(int32_t session);
    void accepted(int32_t task, int32_t session, BackupTaskType kind, Outcome outcome,
                  const std::string& line);
    void abortBegins(int32_t task);
    void abortEnds(int32_t task, int32_t result);
    void fault(const std::string& text);

    void told(int32_t session, int32_t task, int32_t code, const std::string& message);

    // --- What clients ask ---
    size_t tasks() const;
    uint64_t moves() const;     // starts and ends told so far
    bool isOver(int32_t task);  // it will not run any more
    // Picks a split backup that waits for its client, with its line. Returns 0 for none.
    int32_t pausedSplit(std::mt19937_64& random, std::string* line);
    void waitForStatus(std::chrono::milliseconds limit) const;

    // --- At the end, when no worker runs any more ---
    void verify();
    const std::vector<Entry>& entries() const { return mEntries; }
    const std::vector<std::string>& faults() const { return mFaults; }

  private:
    Entry& at(int32_t id);
    void check(bool isRight, int32_t id, const char* rule);
    void toldEnd(int32_t task, Entry& entry, int32_t code, const std::string& message);
    void verifyTask(int32_t id, const Entry& entry);

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
