// The service as clients use it: what they have asked of it, what it has told them, and the rules
// that hold between the two. Safe from any thread.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "service/peltexinstalld.h"
#include "tests/support/jail.h"
#include "tests/support/test_client.h"

namespace peltex_soak {

using peltex_test::Status;
using peltex_test::TestClient;

inline constexpr int32_t kFirstId = 100;
inline constexpr int32_t kClosed = -100;  // a command's result when a death has closed its session
inline constexpr unsigned kSilence = 60;  // seconds in which nothing moves

// Statuses have their texts, and a letter each: their code, "f" for a failure, "p" for a task that
// was dropped, "e" for the last slice.
inline char letterOf(const Status& status) {
    static const std::regex kTexts(
        "(-1 prepareTask error)|(-1 processTask finish)|(0 processTask finish)|"
        "(1 processTask start)|(2 )|(3 [0-9]+)|(4 (?:/[^]*\\|)?end)|(4 /[^]*)|(5 timout caused)|"
        "(6 [0-9]+)|([^]*)");
    std::smatch groups;
    const std::string text = std::to_string(status.code) + " " + status.message;
    std::regex_match(text, groups, kTexts);
    return "pf0123e456?"[std::find(groups.begin() + 1, groups.end(), text) - groups.begin() - 1];
}

// A task's letters but for aborts: it goes while it is queued, is dropped, or runs to its end.
inline const std::regex kTask("(p|1[346e]*(0|5?f))?");

// What is known of an id.
struct Entry {
    const char* kind = nullptr;      // a task's line before paths are filled in, "" for a session
    size_t deaths = 0;               // that came before the session
    bool isClosed = false;           // the session by its client; set before the call is made
    int32_t session = 0;             // of the task
    const char* expected = nullptr;  // its letters unless something disturbs it; null for any
    bool isDisturbed = false;        // by an abort, or by the end of its session
    int quietAborts = 0;             // answered with 0, but no status tells of them
    std::string told;                // letters but '2'; one '3' for all in a row

    bool isTold(char letter) const { return told.find(letter) != std::string::npos; }
    char last() const { return told.empty() ? ' ' : told.back(); }
    bool hasEnded() const { return isTold('p') || isTold('f') || isTold('0'); }
};

// An accepted task that may still run.
struct Job {
    std::string line;
    std::string directory;  // removed when the task is over
};

class Ledger {
  public:
    // Room for this many ids: it is taken at once, so that memory stays level from then on.
    explicit Ledger(size_t ids) : mEntries(ids) {}

    void check(bool isRight, int32_t id, const std::string& rule) {
        if (!isRight) {
            fprintf(stderr, "soak: id %d: not so: %s\n", id, rule.c_str());
            if (++mFaults > 100) {
                peltex_test::fail("soak: that is enough");
            }
        }
    }

    // Opens a session, with the process that opened the one before it or with a new one, to which
    // all statuses go from then on; the old one may die.
    int32_t open(bool isNew, bool dies) {
        const std::lock_guard<std::mutex> opening(mOpening);
        if (isNew || mProcess == nullptr) {
            const android::sp<TestClient> old = mProcess;
            mProcess = new TestClient([this](const Status& status) { told(status); });
            if (dies) {
                ++mDeathsBegun;
                old->die();
                ++mDeathsEnded;
            }
        }
        const int32_t session = startBackupSession(mProcess);
        const std::lock_guard<std::mutex> lock(mLock);
        give(session, "").deaths = mDeathsEnded;
        return session;
    }

    void close(int32_t session) {
        const auto finish = [&] { return finishBackupSession(session); };
        setClosed(session, true);
        setClosed(session, call(session, finish, "finish", {0}) == 0);
        check(finish() == -1, session, "a session is closed once");
    }

    // Sends a command, which gives a task's id or one of the results.
    int32_t send(int32_t session, const Job& job, std::initializer_list<int32_t> results,
                 const char* kind = "", const char* expected = nullptr) {
        // The line is split in place: what the service gets is a copy.
        const std::string line(job.line.data(), job.line.size());
        const auto execute = [&] { return executeBackupTask(session, line); };
        const int32_t result = call(session, execute, job.line, results);
        if (result >= kFirstId) {
            accept(result, session, job, kind, expected);
        }
        return result;
    }

    int32_t abort(int32_t session, int32_t task) {
        addAborts(task, 0);
        const int32_t result = send(session, {"abort " + std::to_string(task), ""}, {0, -1});
        addAborts(task, result == 0 ? 1 : 0);
        return result;
    }

    // Forgets what will not run any more. What is left of a closed session by newer tasks has gone
    // with it. Returns how many tasks may still run.
    size_t dropFinished() {
        const std::lock_guard<std::mutex> lock(mLock);
        for (auto job = mJobs.begin(); job != mJobs.end();) {
            const Entry& entry = at(job->first);
            const bool isGone = entry.told.empty() && at(entry.session).isClosed;
            if (entry.hasEnded() || entry.quietAborts > 0 || (isGone && mNewest > job->first)) {
                // A backup that somebody's late continuation began may be writing there.
                std::error_code notEmpty;
                std::filesystem::remove_all(job->second.directory, notEmpty);
                job = mJobs.erase(job);
            } else {
                ++job;
            }
        }
        return mJobs.size();
    }

    // Picks a split backup that waits for its client, with its line. Returns 0 for none.
    std::pair<int32_t, Job> pausedSplit(std::mt19937_64& random) {
        const std::lock_guard<std::mutex> lock(mLock);
        std::pair<int32_t, Job> picked;
        size_t paused = 0;
        for (const auto& job : mJobs) {
            if (at(job.first).last() == '4' && random() % ++paused == 0) {
                picked = job;
            }
        }
        return picked;
    }

    size_t tasks() const { return mTasks; }
    const std::vector<Entry>& entries() const { return mEntries; }

    // When all is over. Returns how many faults there were.
    int verify() {
        for (size_t i = 0; i < mEntries.size(); ++i) {
            verify(kFirstId + static_cast<int32_t>(i), mEntries[i]);
        }
        return mFaults;
    }

  private:
    // A death closes all sessions, and nothing else does but their clients.
    int32_t call(int32_t session, const std::function<int32_t()>& command, const std::string& line,
                 std::initializer_list<int32_t> results) {
        const size_t deaths = mDeathsEnded;
        const int32_t result = command();
        const std::lock_guard<std::mutex> lock(mLock);
        if (result == -1 && mDeathsBegun > at(session).deaths) {
            return kClosed;
        }
        const bool isResult =
            result >= kFirstId || std::count(results.begin(), results.end(), result) != 0;
        check(isResult && deaths == at(session).deaths, session,
              line.substr(0, 80) + " gives " + std::to_string(result));
        return result;
    }

    void accept(int32_t task, int32_t session, const Job& job, const char* kind,
                const char* expected) {
        const std::lock_guard<std::mutex> lock(mLock);
        if (const auto known = mJobs.find(task); known != mJobs.end()) {
            return check(known->second.line == job.line, task, "a continuation is of one backup");
        }
        if (at(task).isTold('4') && at(task).hasEnded()) {
            return;  // the backup that was continued
        }
        for (const auto& [other, otherJob] : mJobs) {
            const bool isThere = !at(other).hasEnded() && !at(other).isDisturbed;
            check(job.line != otherJob.line || !isThere || at(at(other).session).isClosed, task,
                  "an equal task is refused");
        }
        setSession(give(task, kind), session);
        at(task).expected = expected;
        mJobs.emplace(task, job);
        ++mTasks;
    }

    // May come before the task's id has been returned, so most is left to verify().
    void told(const Status& status) {
        const std::lock_guard<std::mutex> lock(mLock);
        Entry& entry = at(status.task);
        setSession(entry, status.session);
        const char letter = letterOf(status);
        if (letter == '2') {
            --entry.quietAborts;
            return;
        }
        alarm(kSilence);
        if (letter != '3' || entry.last() != '3') {
            entry.told += letter;
        }
        check(entry.told.size() < 100, status.task, "a task comes to its end");
        if (letter == '1' || letter == 'p') {
            mNewest = std::max(mNewest, status.task);
        }
        mRunning += letter == '1' ? 1 : letter == '0' || letter == 'f' ? -1 : 0;
        check(mRunning <= 2, status.task, "two tasks run at most");
        entry.isDisturbed |= entry.hasEnded() && at(status.session).isClosed;
    }

    void verify(int32_t id, const Entry& entry) {
        const bool isQuiet = entry.told.empty();
        const bool isTask = entry.kind != nullptr && *entry.kind != '\0';
        check(isTask || (isQuiet && entry.quietAborts == 0), id, "tasks are told of and aborted");
        check(std::regex_match(entry.told, kTask), id, "statuses have an order: " + entry.told);
        check(entry.quietAborts == 0 || (entry.quietAborts == 1 && isQuiet), id,
              "an abort is told, or takes a task out of the queue");
        check(!isTask || !isQuiet || entry.quietAborts == 1 || at(entry.session).isClosed, id,
              "a task ends, or goes with its session while it is queued");
        const bool isFree = !isQuiet && !entry.isDisturbed && !entry.isTold('5');
        if (isFree && entry.expected != nullptr) {
            const std::regex& letters =
                mPatterns.try_emplace(entry.expected, entry.expected).first->second;
            check(std::regex_match(entry.told, letters), id,
                  entry.kind + (" is told " + entry.told));
        }
    }

    // Ends the program where there is no room.
    Entry& at(int32_t id) { return mEntries.at(static_cast<size_t>(id - kFirstId)); }

    Entry& give(int32_t id, const char* kind) {
        check(at(id).kind == nullptr, id, "an id is given once");
        at(id).kind = kind;
        return at(id);
    }

    void setSession(Entry& entry, int32_t session) {
        check(entry.session == 0 || entry.session == session, session, "a task has one session");
        entry.session = session;
    }

    void setClosed(int32_t session, bool isClosed) {
        const std::lock_guard<std::mutex> lock(mLock);
        at(session).isClosed = isClosed;
    }

    void addAborts(int32_t task, int times) {
        const std::lock_guard<std::mutex> lock(mLock);
        at(task).isDisturbed = true;
        at(task).quietAborts += times;
    }

    std::mutex mOpening;
    android::sp<TestClient> mProcess;  // guarded by mOpening
    std::mutex mLock;
    // Guarded by mLock.
    std::vector<Entry> mEntries;   // by id
    int32_t mNewest = 0;           // of the tasks that a worker told it took
    std::map<int32_t, Job> mJobs;  // what may still run
    std::map<const char*, std::regex> mPatterns;
    int mRunning = 0;
    std::atomic<size_t> mTasks{0};
    std::atomic<size_t> mDeathsBegun{0};
    std::atomic<size_t> mDeathsEnded{0};
    std::atomic<int> mFaults{0};
};

}  // namespace peltex_soak
