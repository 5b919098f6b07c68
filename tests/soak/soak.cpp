// Runs random commands of many clients against the library for a long time, and looks whether what
// it tells agrees with what it was asked.
//
//   soak [TASKS [SEED]]        10000 tasks, seed 1
//
// Eight clients send tasks of every kind on small trees, noise, aborts, keep-alives, weights, open
// and close sessions, and die. The waits of a paused split backup are a hundredth of the real ones.
// What is looked for:
//
// - Every accepted task ends once, or goes while it is queued: by an abort, or with its session.
// - Undisturbed tasks are told what their kind is told; statuses come in their order and texts.
// - Two tasks run at most, and an id is given once.
// - An equal task is refused.
// - A death closes all sessions, and nothing else does but their clients.
// - Something always moves: a minute of silence ends the program.
// - Memory and descriptors are at the end what they were; only a directory's brief keeps a stream.
// - Nothing outside the allowed areas has changed.
//
// The seed chooses each client's commands; how they meet is up to the scheduler. Runs as root in
// the throw-away root of scripts/sandbox.sh: scripts/soak.sh starts it there.
#include <android/log.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <sstream>
#include <thread>

#include "tests/soak/ledger.h"
#include "tests/support/jail.h"
#include "tests/support/test_files.h"
#include "tests/support/wrapped_calls.h"

namespace {

namespace fs = std::filesystem;
using namespace peltex_soak;
using namespace peltex_test;
using namespace std::chrono_literals;

constexpr size_t kClients = 8;
constexpr size_t kMemorySlack = 1024 * 1024;
constexpr size_t kStreamSize = 8192;  // that a kept stream takes

const std::string kRoot = "/data/data/soak/";

// For one thread.
class Client {
  public:
    // Something that clients do.
    struct Deed {
        unsigned weight;  // how often
        void (Client::*run)(const Deed& deed);
        const char* line = "";       // "#" is the task's own directory, "@" that of all
        const char* told = nullptr;  // letters of a task that nothing can hinder
    };
    static const Deed kDeeds[];

    Client(Ledger& ledger, size_t number, uint64_t seed)
        : mLedger(ledger),
          mHome(kRoot + std::to_string(number) + "/"),
          mRandom(seed * kClients + number) {}
    ~Client() {
        while (!mSessions.empty()) {
            closeSession({});
        }
    }

    void act() {
        const Deed& deed = anyDeed();
        const bool isFull = mLedger.dropFinished() >= 6 * kClients && below(8) != 0;
        if (isFull && deed.run == &Client::addTask) {
            return std::this_thread::sleep_for(1ms);
        }
        (this->*deed.run)(deed);
    }

    void addTask(const Deed& deed) {
        const int32_t refused = deed.told == nullptr ? -4 : 0;
        used(mLedger.send(session(), newJob(deed), {refused}, deed.line, deed.told));
    }

  private:
    size_t below(size_t limit) { return static_cast<size_t>(mRandom() % limit); }
    const Deed& anyDeed();

    // With a directory that has all that a task may consume.
    Job newJob(const Deed& deed) {
        const std::string directory = mHome + std::to_string(mDirectories++) + "/";
        const std::string slice = readFile(kRoot + "made/app.tar");
        makeDir(directory + "out");
        writeFile(directory + "in/file", std::string(500, 'x'));
        writeFile(directory + "in/d/nested", "nested");
        writeFile(directory + "app.tar.0", slice);
        writeFile(directory + "app.tar.txt", "app.tar.0|" + std::to_string(slice.size()) + "\n");
        std::string line;
        for (const char* at = deed.line; *at != '\0'; ++at) {
            line += *at == '#' ? directory : *at == '@' ? kRoot : std::string(1, *at);
        }
        return {line, directory};
    }

    int32_t session() {
        if (mSessions.empty()) {
            openSession({});
        }
        return mUsed = mSessions[below(mSessions.size())];
    }
    void used(int32_t result) {
        mNewest = std::max(mNewest, result);
        if (result == kClosed) {
            mSessions.erase(std::find(mSessions.begin(), mSessions.end(), mUsed));
        }
    }
    void openSession(const Deed& /*deed*/) {
        if (mSessions.size() < 3) {
            mSessions.push_back(mLedger.open(below(8) == 0, false));
        }
    }
    void die(const Deed& /*deed*/) { mSessions.push_back(mLedger.open(true, true)); }
    void closeSession(const Deed& /*deed*/) {
        mLedger.close(session());
        used(kClosed);
    }

    // Most paused backups are continued by whoever comes along; one in 32 is left to its time-out.
    // Behind the end of the backup, its continuation begins another one.
    void serveSplit(const Deed& deed) {
        const auto [task, job] = mLedger.pausedSplit(mRandom);
        if (task != 0 && task % 32 != 0) {
            used(below(16) == 0 ? mLedger.abort(session(), task)
                                : mLedger.send(session(), {job.line, ""}, {-4}, deed.line));
        }
    }
    void abortTask(const Deed& /*deed*/) {
        const auto back = static_cast<int32_t>(below(30));
        used(mLedger.abort(session(), std::max(kFirstId, mNewest - back)));
    }
    void sendOther(const Deed& deed) { used(mLedger.send(session(), {deed.line, ""}, {0, -2})); }

    // A command with words left out, replaced or joined. Some are tasks all the same.
    void sendNoise(const Deed& /*deed*/) {
        static const char* const kWords[] = {"backup", "file", "restore", "tar",        "abort",
                                             "none",   "-1",   "delay",   "/data/keep", "\xff\xfe"};
        const Deed& deed = anyDeed();
        Job job = newJob(deed);
        std::istringstream words(std::exchange(job.line, ""));
        for (std::string word; words >> word;) {
            job.line += below(12) == 0   ? kWords[below(std::size(kWords))]
                        : below(12) == 0 ? ""
                                         : word;
            job.line.append(1 + below(3), below(16) == 0 ? static_cast<char>(mRandom()) : ' ');
        }
        job.line += std::string(below(20) == 0 ? 10000 : 0, 'x');
        used(mLedger.send(session(), job, {-4, -3, -2, -1, 0}, deed.line));
    }

    Ledger& mLedger;
    const std::string mHome;
    std::mt19937_64 mRandom;
    std::vector<int32_t> mSessions;  // open, as far as this client knows
    int32_t mUsed = 0;               // the one of the last command
    int32_t mNewest = kFirstId;
    uint64_t mDirectories = 0;
};

const Client::Deed Client::kDeeds[] = {
    {118, &Client::addTask, "backup file @app/large #out default 10123", "130"},
    {91, &Client::addTask, "backup dir @app #out default 10123", "130"},
    {118, &Client::addTask, "backup tar @app #out default 10123", "130"},
    {55, &Client::addTask, "backup split @big #out 1 default 10123", "13?43?e3?0"},
    {118, &Client::addTask, "restore file @app/small #out/file default 10123", "10"},
    {82, &Client::addTask, "restore dir @made #out/app default 10123", "130"},
    {91, &Client::addTask, "restore tar @made/app.tar #out default 10123", "10"},
    {55, &Client::addTask, "restore split #app.tar.txt #out/app default 10123", "10"},
    {73, &Client::addTask, "move dir #in #out default 10123", "10"},
    {64, &Client::addTask, "backup byfile @made/brief #out/app default 10123", "130"},
    {18, &Client::addTask, "get_brief dir @app #out/brief default 10123", "160"},
    {73, &Client::addTask, "get_brief byfile @search #out/brief default 10123", "160"},
    {18, &Client::addTask, "backup tar /data/app/none #out default 10123", "p"},
    {18, &Client::addTask, "restore file #none #out default 10123", "p"},
    {9, &Client::addTask, "backup file /data/data/../x #out default 10123", "p"},
    {27, &Client::addTask, "backup file @app/large @common default 10123"},
    {27, &Client::addTask, "backup dir @app @common default 10123"},
    {26, &Client::addTask, "backup tar @app @common default 10123"},
    {600, &Client::serveSplit, "backup split @big #out 1 default 10123"},
    {25, &Client::abortTask},
    {20, &Client::sendOther, "keepalive"},
    {5, &Client::sendOther, "setweight t 100"},
    {5, &Client::sendOther, "setweight tar 7"},
    {20, &Client::sendNoise},
    {6, &Client::openSession},
    {4, &Client::closeSession},
    {1, &Client::die},
};

const Client::Deed& Client::anyDeed() {
    for (;;) {
        const Deed& deed = kDeeds[below(std::size(kDeeds))];
        if (below(600) < deed.weight) {
            return deed;
        }
    }
}

// Runs tasks one after the other in a session of their own: each is there for a worker that waits.
void runTasks(Ledger& ledger, std::initializer_list<const char*> lines) {
    Client client(ledger, kClients, 0);
    for (const char* line : lines) {
        client.addTask({1, nullptr, line, "1[36]*0"});
        while (ledger.dropFinished() > 0) {
            std::this_thread::sleep_for(1ms);
        }
    }
}

// What every task reads: a small application, its archive, its copy, and lists of it.
void makeSources(Ledger& ledger) {
    writeFile(kRoot + "app/small", std::string(100, 'x'));
    writeFile(kRoot + "app/large", std::string(100000, 'x'));
    writeFile(kRoot + "app/code.dex", "code");
    writeFile(kRoot + "app/d/nested", std::string(3000, 'x'));
    makeLink("small", kRoot + "app/link");
    makeNode(kRoot + "app/fifo", S_IFIFO);
    writeFile(kRoot + "big/big", std::string(1200000, 'x'));
    writeFile(kRoot + "big/behind", std::string(200000, 'x'));
    makeDir(kRoot + "made");
    makeDir(kRoot + "common");
    writeFile(kRoot + "search", "[include]" + kRoot + "app\n[include]" + kRoot +
                                    "big/big\n[exclude]" + kRoot + "app/d\n");
    runTasks(ledger, {"backup tar @app @made default 10123", "backup dir @app @made default 10123",
                      "get_brief dir @app @made/brief default 10123"});
}

size_t descriptorsNow() {
    return static_cast<size_t>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

bool workersRun() {
    const fs::directory_iterator threads("/proc/self/task");
    return std::any_of(begin(threads), end(threads), [](const auto& thread) {
        return readFile(thread.path() / "comm").rfind("BackupWorker", 0) == 0;
    });
}

int soak(size_t tasks, uint64_t seed) {
    writeFile("/data/keep", "keep");
    const size_t before = descriptorsNow();
    // Sessions take ids too; they are fewer than tasks.
    Ledger ledger(2 * tasks + 1000);
    makeSources(ledger);
    std::vector<std::thread> clients;
    for (size_t number = 0; number < kClients; ++number) {
        clients.emplace_back([&, number] {
            Client client(ledger, number, seed);
            while (ledger.tasks() < tasks) {
                client.act();
            }
        });
    }
    while (ledger.tasks() < tasks / 5) {
        std::this_thread::sleep_for(1ms);
    }
    const size_t warm = mallinfo2().uordblks;
    for (std::thread& client : clients) {
        client.join();
    }
    // Behind one more task none of the earlier ones is left. With its session the workers end.
    runTasks(ledger, {"move dir @big @last default 10123"});
    while (workersRun()) {
        std::this_thread::sleep_for(1ms);
    }
    const size_t memory = mallinfo2().uordblks;
    const size_t after = descriptorsNow();

    std::map<std::string, size_t> done;
    size_t streams = 0;
    for (const auto& entry : ledger.entries()) {
        const std::string kind = entry.kind == nullptr ? "" : entry.kind;
        done[kind] += entry.last() == '0' ? 1 : 0;
        streams += entry.isTold('6') && kind.find("get_brief dir") == 0 ? 1 : 0;
    }
    printf(
        "%zu tasks, seed %llu; descriptors: %zu, then %zu and %zu of briefs; memory: %zu KiB after "
        "the first fifth, %zu at the end\n",
        ledger.tasks(), static_cast<unsigned long long>(seed), before, after - streams, streams,
        warm / 1024, memory / 1024);
    for (const Client::Deed& deed : Client::kDeeds) {
        const bool mustBe = deed.told != nullptr && deed.told[0] == '1';
        ledger.check(!mustBe || done[deed.line] > 0, 0, "one is done: " + std::string(deed.line));
    }
    ledger.check(after == before + streams, 0, "no descriptor stays open");
    ledger.check(!SOAK_CHECKS_MEMORY || memory <= warm + streams * kStreamSize + kMemorySlack, 0,
                 "memory stays level");
    ledger.check(readFile("/data/keep") == "keep", 0, "nothing outside is touched");
    return ledger.verify() == 0 ? 0 : 1;
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
    signal(SIGALRM, [](int /*unused*/) { fail("soak: nothing moves any more"); });
    __android_log_set_logger([](const __android_log_message* /*unused*/) {});
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    setWaits(WaitLength::kShort);
    return soak(argc > 1 ? strtoull(argv[1], nullptr, 10) : 10000,
                argc > 2 ? strtoull(argv[2], nullptr, 10) : 1);
}
