// Runs random commands of many clients against the library for a long time, and looks whether what
// it tells agrees with what it was asked.
//
//   soak [TASKS [SEED]]        10000 tasks, seed 1
//
// Eight clients send tasks of every kind on small trees, noise, aborts, keep-alives, weights, open
// and close sessions, and die. The waits of a paused split backup are a hundredth of the real ones.
// What is looked for:
//
//   every accepted task ends once, or goes while it is queued: by an abort, or with its session
//   undisturbed tasks end as they have to; statuses come in their order, with their texts
//   two tasks run at most, the oldest first; ids are given once and none is left out
//   something always moves: a minute of silence ends the program
//   memory and descriptors are at the end what they were after the first fifth; only a directory's
//     brief keeps a stream; nothing outside the allowed areas has changed
//
// The seed chooses each client's commands; how they meet is up to the scheduler. Runs as root in
// the throw-away root of scripts/sandbox.sh: scripts/soak.sh starts it there.
#include <android/log.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "service/peltexinstalld.h"
#include "tests/soak/ledger.h"
#include "tests/support/fast_waits.h"
#include "tests/support/test_client.h"
#include "tests/support/test_files.h"

namespace {

namespace fs = std::filesystem;
using namespace android::installd;
using namespace peltex_soak;
using namespace peltex_test;
using namespace std::chrono_literals;

constexpr size_t kClients = 8;
constexpr auto kSilence = 60s;
constexpr size_t kMemorySlack = 4096;  // KiB
constexpr size_t kStreamSize = 8;      // KiB that a kept stream takes

const std::string kRoot = "/data/data/soak/";
const std::string kMade = kRoot + "made";

struct Recipe {
    BackupTaskType kind;
    const char* command;
    const char* source;  // "#" stands for the task's own directory, "@" for kRoot
    const char* destination;
    unsigned weight;
    Outcome outcome = Outcome::kSuccess;
};

constexpr Recipe kRecipes[] = {
    {BACKUP_FILE, "backup file", "@app/large", "#out", 13},
    {BACKUP_DIR, "backup dir", "@app", "#out", 10},
    {BACKUP_TAR, "backup tar", "@app", "#out", 13},
    {BACKUP_SPLIT, "backup split", "@big", "#out", 6},
    {RESTORE_FILE, "restore file", "@app/small", "#out/file", 13},
    {RESTORE_DIR, "restore dir", "@made", "#out/app", 9},
    {RESTORE_TAR, "restore tar", "@made/app.tar", "#out", 10},
    {RESTORE_SPLIT, "restore split", "#app.tar.txt", "#out/app", 6},
    {MOVE_DIR, "move dir", "#in", "#out", 8},
    {BACKUP_BY_FILE, "backup byfile", "@made/brief", "#out/app", 7},
    {GET_BRIEFS_BY_DIR, "get_brief dir", "@app", "#out/brief", 2},
    {GET_BRIEFS_BY_FILE, "get_brief byfile", "@search", "#out/brief", 8},
    {BACKUP_TAR, "backup tar", "/data/app/none", "#out", 2, Outcome::kFailure},
    {RESTORE_FILE, "restore file", "#none", "#out", 2, Outcome::kFailure},
    {BACKUP_FILE, "backup file", "/data/data/../x", "#out", 1, Outcome::kFailure},
};

std::string lineOf(const Recipe& recipe, const std::string& directory) {
    const auto place = [&](const char* path) {
        return path[0] == '#' ? directory + (path + 1) : path[0] == '@' ? kRoot + (path + 1) : path;
    };
    return std::string(recipe.command) + " " + place(recipe.source) + " " +
           place(recipe.destination) + (recipe.kind == BACKUP_SPLIT ? " 1" : "") + " default 10123";
}

// The process that most sessions of all clients are opened with. Safe from any thread.
class CommonProcess {
  public:
    explicit CommonProcess(Ledger& ledger) : mLedger(ledger), mProcess(make()) {}

    android::sp<TestClient> make() {
        return new TestClient([this](const Status& status) {
            mLedger.told(status.session, status.task, status.code, status.message);
        });
    }
    android::sp<TestClient> get() {
        const std::lock_guard<std::mutex> lock(mLock);
        return mProcess;
    }
    // Puts another in its place, and ends it.
    void die() {
        android::sp<TestClient> next = make();
        {
            const std::lock_guard<std::mutex> lock(mLock);
            std::swap(mProcess, next);
        }
        mLedger.deathBegins();
        next->die();
        mLedger.deathEnds();
    }

  private:
    Ledger& mLedger;
    std::mutex mLock;
    android::sp<TestClient> mProcess;
};

// For one thread.
class Client {
  public:
    Client(Ledger& ledger, CommonProcess& common, size_t number, uint64_t seed)
        : mLedger(ledger),
          mCommon(common),
          mHome(kRoot + std::to_string(number) + "/"),
          mRandom(seed * kClients + number) {}
    ~Client() {
        while (!mSessions.empty()) {
            closeSession();
        }
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Does one thing.
    void act() {
        dropFinished();
        const size_t choice = below(1766);
        choice < 1000   ? addTask(pick())
        : choice < 1080 ? addEqualTask()
        : choice < 1680 ? serveSplit()
        : choice < 1705 ? abort(std::max(100, mNewest - static_cast<int32_t>(below(30))))
        : choice < 1725 ? static_cast<void>(send("keepalive", {0, -2}))
        : choice < 1735 ? static_cast<void>(send("setweight t " + std::to_string(below(101)), {0}))
        : choice < 1755 ? sendNoise()
        : choice < 1761 ? openSession()
        : choice < 1765 ? closeSession()
                        : mCommon.die();
    }

    void addTask(const Recipe& recipe) {
        const auto isOfOpen = [this](const Job& job) {
            return std::count(mSessions.begin(), mSessions.end(), job.session) != 0;
        };
        if (std::count_if(mJobs.begin(), mJobs.end(), isOfOpen) >= 6) {
            return mLedger.waitForStatus(2ms);
        }
        const std::string directory = mHome + std::to_string(mDirectories++) + "/";
        makeDir(directory + "out");
        if (recipe.kind == MOVE_DIR) {
            writeFile(directory + "in/file", std::string(500, 'x'));
            writeFile(directory + "in/d/nested", "nested");
        } else if (recipe.kind == RESTORE_SPLIT) {
            const std::string slice = readFile(kMade + "/app.tar");
            writeFile(directory + "app.tar.0", slice);
            writeFile(directory + "app.tar.txt",
                      "app.tar.0|" + std::to_string(slice.size()) + "\n");
        }
        submit(recipe.kind, recipe.outcome, lineOf(recipe, directory), directory, false);
    }
    bool isIdle() {
        dropFinished();
        return mJobs.empty();
    }

  private:
    struct Job {
        int32_t task;
        int32_t session;
        std::string directory;  // removed when the task is over
    };

    size_t below(size_t limit) { return static_cast<size_t>(mRandom() % limit); }

    const Recipe& pick() {
        size_t left = below(110);
        const Recipe* recipe = kRecipes;
        while (left >= recipe->weight) {
            left -= recipe++->weight;
        }
        return *recipe;
    }

    void dropFinished() {
        const auto over = std::partition(mJobs.begin(), mJobs.end(), [this](const Job& job) {
            return !mLedger.isOver(job.task);
        });
        for (auto job = over; job != mJobs.end(); ++job) {
            // A backup that somebody's late continuation began may be writing there.
            std::error_code notEmpty;
            fs::remove_all(job->directory, notEmpty);
        }
        mJobs.erase(over, mJobs.end());
    }

    // Now and then with a process of its own, to which all statuses go from then on.
    void openSession() {
        if (mSessions.size() < 3) {
            const android::sp<TestClient> process = below(8) == 0 ? mCommon.make() : mCommon.get();
            const uint32_t deaths = mLedger.deaths();
            mSessions.push_back(startBackupSession(process));
            mLedger.opened(mSessions.back(), deaths);
        }
    }
    void closeSession() {
        const int32_t session = anySession();
        mLedger.finishBegins(session);
        mLedger.finishEnds(session, finishBackupSession(session));
        forget(session);
        if (finishBackupSession(session) != -1) {
            mLedger.fault("a closed session can be closed");
        }
    }
    int32_t anySession() {
        if (mSessions.empty()) {
            openSession();
        }
        return mSessions[below(mSessions.size())];
    }
    void forget(int32_t session) {
        mSessions.erase(std::remove(mSessions.begin(), mSessions.end(), session), mSessions.end());
    }

    // The line is split in place: what the service gets is a copy. Returns 0 if the session may
    // have been closed.
    int32_t send(const std::string& line, const std::vector<int32_t>& expected) {
        const int32_t session = anySession();
        const int32_t result = executeBackupTask(session, std::string(line.data(), line.size()));
        const auto isExpected = std::find(expected.begin(), expected.end(), result);
        if (result == -1 && mLedger.mayBeClosed(session)) {
            forget(session);
            return -1;
        }
        if (result < 100 && isExpected == expected.end()) {
            mLedger.fault("\"" + line.substr(0, 80) + "\" gave " + std::to_string(result));
        }
        mUsed = session;
        return result;
    }

    void submit(BackupTaskType kind, Outcome outcome, const std::string& line,
                const std::string& directory, bool mayBeRefused) {
        const int32_t task = send(line, {mayBeRefused ? -4 : 100});
        if (task >= 100) {
            mLedger.accepted(task, mUsed, kind, outcome, line);
            mJobs.push_back({task, mUsed, directory});
            mNewest = task;
        }
    }

    // Of the same few as every other client adds: some are refused, some run into each other.
    void addEqualTask() {
        const Recipe& recipe = kRecipes[below(3)];
        const std::string directory = kRoot + "common" + std::to_string(below(3)) + "/";
        makeDir(directory + "out");
        submit(recipe.kind, Outcome::kAny, lineOf(recipe, directory), "", true);
    }

    // Most paused backups are continued by whoever comes along; one in 32 is left to its time-out.
    // Behind the end of the backup, its continuation begins another one.
    void serveSplit() {
        std::string line;
        const int32_t task = mLedger.pausedSplit(mRandom, &line);
        if (task != 0 && task % 32 != 0) {
            below(16) == 0 ? abort(task) : submit(BACKUP_SPLIT, Outcome::kAny, line, "", true);
        }
    }

    void abort(int32_t task) {
        mLedger.abortBegins(task);
        mLedger.abortEnds(task, send("abort " + std::to_string(task), {0, -1}));
    }

    // Words of commands and any bytes between them: nothing that is a task.
    void sendNoise() {
        static const char* const kWords[] = {"backup", "file",       "restore",   "tar",
                                             "move",   "x",          "get_brief", "abort",
                                             "none",   "setweight",  "-1",        "keepalive",
                                             "delay",  "/data/keep", "\xff\xfe"};
        std::string line;
        for (size_t words = below(4); words > 0; --words) {
            line += kWords[below(std::size(kWords))];
            line.append(1 + below(3), below(4) == 0 ? static_cast<char>(mRandom()) : ' ');
        }
        line += std::string(below(20) == 0 ? 10000 : 0, 'x');
        send(line, {-3, -2, -1, 0});
    }

    Ledger& mLedger;
    CommonProcess& mCommon;
    const std::string mHome;
    std::mt19937_64 mRandom;
    std::vector<int32_t> mSessions;  // open, as far as this client knows
    std::vector<Job> mJobs;          // what may still be queued or running
    int32_t mUsed = 0;               // the session of the last command
    int32_t mNewest = 100;
    uint64_t mDirectories = 0;
};

// Runs one task in a session of its own, to its end.
void runTask(Ledger& ledger, CommonProcess& common, const Recipe& recipe) {
    Client client(ledger, common, kClients, 0);
    client.addTask(recipe);
    while (!client.isIdle()) {
        ledger.waitForStatus(2ms);
    }
}

// What every task reads: a small application, its archive, its copy, and lists of it.
void makeSources(Ledger& ledger, CommonProcess& common) {
    writeFile(kRoot + "app/small", std::string(100, 'x'));
    writeFile(kRoot + "app/large", std::string(100000, 'x'));
    writeFile(kRoot + "app/code.dex", "code");
    writeFile(kRoot + "app/d/nested", std::string(3000, 'x'));
    makeLink("small", kRoot + "app/link");
    makeFifo(kRoot + "app/fifo");
    writeFile(kRoot + "big/big", std::string(1200000, 'x'));
    writeFile(kRoot + "big/behind", std::string(200000, 'x'));
    makeDir(kMade);
    writeFile(kRoot + "search", "[include]" + kRoot + "app\n[include]" + kRoot +
                                    "big/big\n[exclude]" + kRoot + "app/d\n");
    for (const Recipe& recipe :
         {Recipe{BACKUP_TAR, "backup tar", "@app", "@made", 1, Outcome::kSuccess},
          Recipe{BACKUP_DIR, "backup dir", "@app", "@made", 1, Outcome::kSuccess},
          Recipe{GET_BRIEFS_BY_DIR, "get_brief dir", "@app", "@made/brief", 1}}) {
        runTask(ledger, common, recipe);
    }
}

struct Usage {
    size_t memory = 0;  // KiB
    size_t descriptors = 0;
};

Usage usageNow() {
    Usage usage;
    size_t program = 0;
    std::ifstream("/proc/self/statm") >> program >> usage.memory;
    usage.memory *= static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024;
    usage.descriptors = static_cast<size_t>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
    return usage;
}

bool workersRun() {
    for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
        if (readFile(thread.path() / "comm").rfind("BackupWorker", 0) == 0) {
            return true;
        }
    }
    return false;
}

// Waits until it is so; a minute in which no task begins or ends is a hang.
void waitUntil(const Ledger& ledger, const std::function<bool()>& isSo) {
    uint64_t seen = 0;
    for (auto since = std::chrono::steady_clock::now(); !isSo(); std::this_thread::sleep_for(5ms)) {
        const auto now = std::chrono::steady_clock::now();
        if (ledger.moves() != seen) {
            seen = ledger.moves();
            since = now;
        } else if (now - since > kSilence) {
            fprintf(stderr, "soak: nothing moves after %zu tasks\n", ledger.tasks());
            ::abort();  // a debugger or a core file shows who waits
        }
    }
}

int soak(size_t tasks, uint64_t seed) {
    writeFile("/data/keep", "keep");
    const Usage before = usageNow();
    // Sessions take ids too; they are fewer than tasks.
    Ledger ledger(2 * tasks + 1000);
    CommonProcess common(ledger);
    makeSources(ledger, common);
    std::atomic<size_t> left{kClients};
    std::vector<std::thread> clients;
    for (size_t number = 0; number < kClients; ++number) {
        clients.emplace_back([&, number] {
            {
                Client client(ledger, common, number, seed);
                while (ledger.tasks() < tasks) {
                    client.act();
                }
            }
            --left;
        });
    }
    waitUntil(ledger, [&] { return ledger.tasks() >= tasks / 5; });
    const Usage warm = usageNow();
    waitUntil(ledger, [&] { return left == 0; });
    for (std::thread& client : clients) {
        client.join();
    }
    // Behind one more task none of the earlier ones is left. With its session the workers end.
    runTask(ledger, common, {MOVE_DIR, "move dir", "@big", "@last", 1});
    waitUntil(ledger, [] { return !workersRun(); });
    const Usage end = usageNow();
    ledger.verify();

    size_t done[GET_BRIEFS_BY_FILE + 1] = {};
    size_t streams = 0;
    for (const peltex_soak::Entry& entry : ledger.entries()) {
        const bool isDone =
            entry.use == peltex_soak::Entry::Use::kTask && entry.ended > 0 && entry.code == 0;
        done[entry.kind] += isDone ? 1 : 0;
        streams += entry.kind == GET_BRIEFS_BY_DIR ? entry.briefs : 0;
    }
    printf(
        "%zu tasks, seed %llu; descriptors: %zu, then %zu and %zu of briefs; memory: %zu KiB after "
        "the first fifth, %zu at the end; done of each kind:",
        ledger.tasks(), static_cast<unsigned long long>(seed), before.descriptors,
        end.descriptors - streams, streams, warm.memory, end.memory);
    for (const size_t count : done) {
        printf(" %zu", count);
        if (count == 0) {
            ledger.fault("no task of a kind succeeds");
        }
    }
    printf("\n");
    if (end.descriptors != before.descriptors + streams) {
        ledger.fault("descriptors stayed open");
    }
    const size_t kept =
        kStreamSize * (end.descriptors - std::min(end.descriptors, warm.descriptors));
    if (SOAK_CHECKS_MEMORY && end.memory > warm.memory + kept + kMemorySlack) {
        ledger.fault("memory grows");
    }
    if (readFile("/data/keep") != "keep") {
        ledger.fault("something outside the allowed areas has changed");
    }
    for (const std::string& fault : ledger.faults()) {
        fprintf(stderr, "soak: %s\n", fault.c_str());
    }
    return ledger.faults().empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (access("/.throw-away-root", F_OK) != 0) {
        fprintf(stderr, "soak: run it with scripts/soak.sh, which gives it a root of its own\n");
        return 2;
    }
    rlimit limit = {};  // briefs of directories keep a stream each
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    // What is freed in large pieces goes back at once: by itself the allocator keeps more of it
    // with every run's luck, and memory would be level after minutes only.
    mallopt(M_MMAP_THRESHOLD, 64 * 1024);
    __android_log_set_logger([](const __android_log_message* /*unused*/) {});
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    const ScopedWaits shortWaits(WaitLength::kShort);
    return soak(argc > 1 ? strtoull(argv[1], nullptr, 10) : 10000,
                argc > 2 ? strtoull(argv[2], nullptr, 10) : 1);
}
