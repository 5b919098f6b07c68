// Runs random commands of many clients against the library for a long time, and looks whether what
// it tells agrees with what it was asked.
//
//   soak [--tasks N] [--seed S]        defaults: 10000 tasks, seed 1
//
// Eight clients send tasks of every kind on small trees, aborts, keep-alives, weights and malformed
// lines, open and close sessions, and die. The waits of a paused split backup are a hundredth of
// the real ones. What is looked for:
//
//   every accepted task ends once, or goes while it is queued: by an abort, or with its session
//   undisturbed tasks end as they have to; statuses come in their order, with their texts
//   two tasks run at most, the oldest first; ids are given once and none is left out
//   something always moves: after a minute of silence the calls of all threads are printed
//   memory and descriptors are at the end what they were after the first fifth; only a
//     directory's brief keeps a stream
//
// The seed chooses each client's commands; how they meet is up to the scheduler. Runs as root in
// the throw-away root of scripts/sandbox.sh: scripts/soak.sh starts it there. Exit status: 0 when
// all was so.

#include <android/log.h>
#include <getopt.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tests/soak/soak_client.h"
#include "tests/soak/soak_ledger.h"
#include "tests/soak/soak_stacks.h"
#include "tests/support/fast_waits.h"

namespace fs = std::filesystem;

namespace {

using namespace peltex_soak;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr size_t kClients = 8;
constexpr auto kSilence = 60s;
constexpr long kMemorySlack = 4096;  // KiB
constexpr int kLargePiece = 64 * 1024;
constexpr long kStreamSize = 8;  // KiB that a kept stream takes

std::atomic<uint64_t> gLogLines{0};

void countLine(const __android_log_message* /*message*/) {
    ++gLogLines;
}

struct Usage {
    long memory = 0;  // KiB
    long descriptors = 0;
};

Usage usageNow() {
    Usage usage;
    long program = 0;
    std::ifstream("/proc/self/statm") >> program >> usage.memory;
    usage.memory *= sysconf(_SC_PAGESIZE) / 1024;
    usage.descriptors =
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    return usage;
}

bool workersRun() {
    for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(thread.path() / "comm"), name);
        if (name.rfind("BackupWorker", 0) == 0) {
            return true;
        }
    }
    return false;
}

// Ends the program when nothing has happened for a while.
class Watchdog {
  public:
    explicit Watchdog(const Ledger& ledger) : mThread([this, &ledger] { watch(ledger); }) {}
    ~Watchdog() {
        mIsOver = true;
        mThread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    void watch(const Ledger& ledger) {
        uint64_t seen = 0;
        for (auto since = Clock::now(); !mIsOver; std::this_thread::sleep_for(20ms)) {
            const uint64_t moves = ledger.moves();
            if (moves != seen) {
                seen = moves;
                since = Clock::now();
            } else if (Clock::now() - since > kSilence) {
                fprintf(stderr, "soak: nothing moves\n");
                printStacks();
                _exit(3);
            }
        }
    }

    std::atomic<bool> mIsOver{false};
    std::thread mThread;
};

// Lets the clients do what they like until so many tasks were accepted. Returns what was in use
// after the first fifth.
Usage runClients(Ledger& ledger, size_t tasks, uint64_t seed) {
    CommonProcess process(ledger);
    std::vector<std::thread> clients;
    for (size_t number = 0; number < kClients; ++number) {
        clients.emplace_back([&ledger, &process, number, tasks, seed] {
            Client client(ledger, process, number, seed * kClients + number);
            while (ledger.tasks() < tasks) {
                client.act();
            }
        });
    }
    while (ledger.tasks() < tasks / 5) {
        std::this_thread::sleep_for(5ms);
    }
    const Usage warm = usageNow();
    for (std::thread& client : clients) {
        client.join();
    }
    return warm;
}

void checkUsage(Ledger& ledger, const Usage& before, const Usage& warm, const Usage& end) {
    long streams = 0;
    for (const Entry& entry : ledger.entries()) {
        streams += entry.kind == Kind::kBriefDir ? static_cast<long>(entry.briefs) : 0;
    }
    printf("descriptors: %ld, and %ld that directory briefs keep open\n", end.descriptors - streams,
           streams);
    if (end.descriptors != before.descriptors + streams) {
        ledger.fault("there were " + std::to_string(before.descriptors) + " descriptors at first");
    }
    printf("memory: %ld KiB after the first fifth, %ld at the end\n", warm.memory, end.memory);
    const long kept = kStreamSize * std::max(0L, end.descriptors - warm.descriptors);
    if (SOAK_CHECKS_MEMORY && end.memory > warm.memory + kept + kMemorySlack) {
        ledger.fault("memory grows");
    }
}

void reportTasks(Ledger& ledger) {
    static const char* const kNames[kKinds] = {
        "backup file",  "backup dir",    "backup tar",    "backup split",
        "restore file", "restore dir",   "restore tar",   "restore split",
        "move",         "backup byfile", "get_brief dir", "get_brief byfile"};
    struct Row {
        size_t accepted = 0, done = 0, failed = 0, dropped = 0, removed = 0, timeouts = 0;
    };
    Row rows[kKinds + 1];
    size_t sessions = 0;
    for (const Entry& entry : ledger.entries()) {
        sessions += entry.use == Entry::Use::kSession ? 1 : 0;
        for (Row* row : {&rows[static_cast<size_t>(entry.kind)], &rows[kKinds]}) {
            if (entry.use == Entry::Use::kTask) {
                row->accepted += 1;
                row->done += entry.ended > 0 && entry.code == 0 ? 1 : 0;
                row->failed += entry.started > 0 && entry.code == -1 ? 1 : 0;
                row->dropped += entry.ended > entry.started ? 1 : 0;
                row->removed += entry.ended == 0 ? 1 : 0;
                row->timeouts += entry.timeouts;
            }
        }
    }
    printf("%-18s %9s %9s %9s %9s %9s %9s\n", "", "accepted", "0", "-1", "unfit", "removed",
           "time-outs");
    for (size_t i = 0; i <= kKinds; ++i) {
        const Row& row = rows[i];
        printf("%-18s %9zu %9zu %9zu %9zu %9zu %9zu\n", i < kKinds ? kNames[i] : "all",
               row.accepted, row.done, row.failed, row.dropped, row.removed, row.timeouts);
        if (row.done == 0) {
            ledger.fault("no task of a kind succeeds");
        }
    }
    printf("%zu sessions, %u deaths, %llu log lines\n", sessions, ledger.deaths(),
           static_cast<unsigned long long>(gLogLines.load()));
}

// Briefs of directories keep a stream each.
void allowDescriptors() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int soak(size_t tasks, uint64_t seed) {
    const auto begin = Clock::now();
    const Usage before = usageNow();
    // Sessions take ids too; they are fewer than tasks.
    Ledger ledger(2 * tasks + 1000);
    Usage warm;
    {
        const Watchdog watchdog(ledger);
        if (!makeSources(ledger)) {
            fprintf(stderr, "soak: the sources cannot be made\n");
            return 1;
        }
        warm = runClients(ledger, tasks, seed);
        // Behind one more task none of the earlier ones is left. With the last session the workers
        // end.
        runTask(ledger, Kind::kMove, "move dir /data/data/soak/big /data/data/soak/last default 0");
        while (workersRun()) {
            std::this_thread::sleep_for(5ms);
        }
    }
    const Usage end = usageNow();
    ledger.verify();
    const std::chrono::duration<double> took = Clock::now() - begin;
    printf("%zu tasks of %zu clients in %.0f s, seed %llu\n", ledger.tasks(), kClients,
           took.count(), static_cast<unsigned long long>(seed));
    reportTasks(ledger);
    checkUsage(ledger, before, warm, end);
    for (const std::string& fault : ledger.faults()) {
        fprintf(stderr, "soak: %s\n", fault.c_str());
    }
    return ledger.faults().empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    size_t tasks = 10000;
    uint64_t seed = 1;
    static const option kOptions[] = {
        {"tasks", required_argument, nullptr, 't'}, {"seed", required_argument, nullptr, 's'}, {}};
    for (int found = 0; (found = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        switch (found) {
            case 't':
                tasks = strtoull(optarg, nullptr, 10);
                break;
            case 's':
                seed = strtoull(optarg, nullptr, 10);
                break;
            default:
                return 2;
        }
    }
    if (access("/.throw-away-root", F_OK) != 0) {
        fprintf(stderr, "soak: run it with scripts/soak.sh, which gives it a root of its own\n");
        return 2;
    }
    allowDescriptors();
    // What is freed in large pieces goes back at once: by itself the allocator keeps more of it
    // with every run's luck, and memory would be level after minutes only.
    mallopt(M_MMAP_THRESHOLD, kLargePiece);
    __android_log_set_logger(countLine);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    const peltex_test::ScopedWaits shortWaits(peltex_test::WaitLength::kShort);
    return soak(tasks, seed);
}
