// One client of the soak: a thread's worth of random commands, weighted, over sessions that it
// opens and closes, and the trees that its tasks work on.
#pragma once

#include <android/os/IBackupSessionCallback.h>
#include <host/local_binder.h>

#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "tests/soak/soak_ledger.h"

namespace peltex_soak {

// A client's process as the service sees it: a callback that can die.
class Process : public android::os::IBackupSessionCallback {
  public:
    explicit Process(Ledger& ledger) : mLedger(ledger) {}

    android::binder::Status onTaskStatusChanged(int32_t session, int32_t task, int32_t code,
                                                const std::string& message) override {
        mLedger.told(session, task, code, message);
        return android::binder::Status::ok();
    }
    void die() { mBinder->notifyDeath(); }

  protected:
    android::IBinder* onAsBinder() override { return mBinder.get(); }

  private:
    Ledger& mLedger;
    const android::sp<android::host::LocalBinder> mBinder = new android::host::LocalBinder();
};

// The process that most sessions of all clients are opened with. Safe from any thread.
class CommonProcess {
  public:
    explicit CommonProcess(Ledger& ledger) : mLedger(ledger), mProcess(new Process(ledger)) {}

    android::sp<Process> get();
    // Puts another in its place, and ends it.
    void die();

  private:
    Ledger& mLedger;
    std::mutex mLock;
    android::sp<Process> mProcess;
};

// Runs one task in a session of its own, to its end. Returns whether it succeeded.
bool runTask(Ledger& ledger, Kind kind, const std::string& line);

// What every task of the soak reads: a small application, its archive, its copy, and lists of it.
// Made by the service itself. Returns false when one of those tasks fails.
bool makeSources(Ledger& ledger);

// For one thread.
class Client {
  public:
    Client(Ledger& ledger, CommonProcess& common, size_t number, uint64_t seed);
    // Closes its sessions.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Does one thing.
    void act();

  private:
    struct Job {
        int32_t task;
        int32_t session;
        std::string directory;  // removed when the task is over
    };
    struct Recipe;
    struct Action;

    size_t below(size_t limit) { return static_cast<size_t>(mRandom() % limit); }

    void openSession();
    void closeSession(int32_t session);
    void closeAnySession() { closeSession(anySession()); }
    int32_t anySession();
    // Runs a command that is answered with `expected`, unless its session has been closed.
    void command(const std::string& line, const std::vector<int32_t>& expected);
    void forget(int32_t session);
    void dropFinished();

    void addTask();
    void addEqualTask();
    void submit(Kind kind, Outcome outcome, const std::string& line, const std::string& directory,
                bool mayBeRefused);
    void serveSplit();
    void continueSplit(int32_t task, const std::string& line);
    void abortTask();
    void abort(int32_t task);
    void keepAlive();
    void setDelay();
    void setWeight();
    void sendMalformed();
    void sendToClosed();
    void die();

    static const Recipe kRecipes[];
    static const Action kActions[];

    Ledger& mLedger;
    CommonProcess& mCommon;
    const size_t mNumber;
    std::mt19937_64 mRandom;
    std::vector<int32_t> mSessions;  // open, as far as this client knows
    std::vector<Job> mJobs;          // what may still be queued or running
    std::deque<int32_t> mRecent;     // tasks to abort
    int32_t mLastClosed = 0;
    uint64_t mDirectories = 0;
};

}  // namespace peltex_soak
