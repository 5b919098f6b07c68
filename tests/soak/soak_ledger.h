// What the service was asked and what it told, for the soak: every disagreement of the two is kept
// as a fault.
//
// Safe from any thread. It is told from inside callbacks, so nothing here calls the service.
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

namespace peltex_soak {

// The kinds of task, in the order of the service's own numbers.
enum class Kind : int8_t {
    kBackupFile,
    kBackupDir,
    kBackupTar,
    kBackupSplit,
    kRestoreFile,
    kRestoreDir,
    kRestoreTar,
    kRestoreSplit,
    kMove,
    kBackupByFile,
    kBriefDir,
    kBriefByFile,
};
constexpr size_t kKinds = 12;

// What an undisturbed task has to end with.
enum class Outcome : int8_t { kAny, kSuccess, kFailure };

struct Entry {
    enum class Use : int8_t { kFree, kSession, kTask };

    Use use = Use::kFree;

    // A session's. Marks are set before the call is made.
    bool finishBegun = false;
    bool finished = false;
    uint32_t deathsBefore = 0;

    // A task's: what was asked.
    Kind kind = Kind::kBackupFile;
    Outcome outcome = Outcome::kAny;
    int32_t session = 0;
    bool isDisturbed = false;  // by an abort, or by the end of its session
    uint32_t abortsDone = 0;   // those that were answered with 0

    // A task's: what was told.
    int32_t toldSession = 0;
    int32_t code = 0;
    uint32_t started = 0;
    uint32_t ended = 0;
    uint32_t aborts = 0;
    uint32_t timeouts = 0;
    uint32_t briefs = 0;
    uint32_t slices = 0;
    uint32_t lastSlices = 0;
    uint64_t progress = 0;
};

class Ledger {
  public:
    // Room for this many ids: it is taken at once, so that memory stays level from then on.
    explicit Ledger(size_t ids) : mEntries(ids) { mTaken.reserve(ids); }

    // --- Clients' calls ---

    // Deaths that are over.
    uint32_t deaths() const;
    void deathBegins();
    void deathEnds();
    // `deathsBefore`: deaths() before the session was asked for.
    void opened(int32_t session, uint32_t deathsBefore);
    void finishBegins(int32_t session);
    void finishEnds(int32_t session, int32_t result);
    // Whether something has begun that closes the session.
    bool mayBeClosed(int32_t session) const;

    void accepted(int32_t task, int32_t session, Kind kind, Outcome outcome,
                  const std::string& line);
    void abortBegins(int32_t task);
    void abortEnds(int32_t task, int32_t result);

    void fault(const std::string& text);

    // --- Callbacks ---

    void told(int32_t session, int32_t task, int32_t code, const std::string& message);

    // --- What clients ask ---

    size_t tasks() const;
    // Starts and ends told so far: the number stands still when no worker moves.
    uint64_t moves() const;
    // Whether the task will not run any more.
    bool isOver(int32_t task) const;
    bool succeeded(int32_t task) const;
    // Picks a split backup that waits for its client, with its command line. Returns 0 for none.
    int32_t pausedSplit(std::mt19937_64& random, std::string* line) const;
    // Waits for the next status, but no longer than `limit`.
    void waitForStatus(std::chrono::milliseconds limit) const;

    // --- At the end, when no worker runs any more ---

    void verify();
    // Entries from id 100 on.
    const std::vector<Entry>& entries() const { return mEntries; }
    const std::vector<std::string>& faults() const { return mFaults; }

  private:
    Entry& at(int32_t id);
    void check(bool isRight, int32_t id, const char* rule);
    bool mayHaveDied(const Entry& session) const;
    void taken(int32_t task);
    void toldProgress(int32_t task, Entry& entry, const std::string& message);
    void toldEnd(int32_t task, Entry& entry, int32_t code, const std::string& message);
    void verifyTask(int32_t id, const Entry& entry);
    void verifyOrder();

    mutable std::mutex mLock;
    mutable std::condition_variable mTold;
    // Guarded by mLock.
    std::vector<Entry> mEntries;             // by id
    Entry mStray;                            // stands in for ids that were never given
    std::vector<int32_t> mTaken;             // tasks, as workers told that they took them
    int32_t mNewest = 0;                     // of the tasks taken
    std::map<int32_t, std::string> mSplits;  // lines of split backups that have not ended
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
