// What the parts cost, on Google Benchmark. Runs in the throw-away root: it writes to /data.
//
// | benchmark        | one iteration                                                             |
// |------------------|---------------------------------------------------------------------------|
// | Header           | the header of a directory, its name of 30 or 300 bytes, written to a sink |
// | Checksum         | the sum over one header                                                   |
// | ParseOctal       | one field of 12 bytes                                                     |
// | Record           | one permission record, formatted and written to a sink                    |
// | ParseRecord      | one permission record, taken apart; looks at its path, which is there     |
// | FilterPaths      | the reduction of a list of this many paths                                |
// | Excluded         | one path against this many rules, none of which covers it                 |
// | Command          | one command that acts at once, on an open session                         |
// | TaskStart        | from the call that queues a task until the client hears of its start;     |
// |                  | the workers are waiting. Its time is the mean, median_us the median       |
//
// The library's functions are linked as they are; Command and TaskStart go through the library's
// exported functions.

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <host/local_binder.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "brief/permission_record.h"
#include "brief/search_rules.h"
#include "service/peltexinstalld.h"
#include "tar/tar_header.h"
#include "tar/tar_stream.h"
#include "tar/whole_writer.h"

namespace {

using android::Vector;
using namespace android::installd;
using Clock = std::chrono::steady_clock;
using File = std::unique_ptr<FILE, int (*)(FILE*)>;

constexpr char kSink[] = "/dev/null";
constexpr char kDirectory[] = "/data/data/micro";

// A benchmark whose subject fails measures nothing.
void require(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "bench_micro: %s failed\n", what);
        abort();
    }
}

struct stat statusOf(const char* path) {
    struct stat status = {};
    require(stat(path, &status) == 0, path);
    return status;
}

void Header(benchmark::State& state) {
    const std::string path =
        std::string(kDirectory) + '/' + std::string(static_cast<size_t>(state.range(0)), 'n');
    const struct stat status = statusOf(kDirectory);
    const std::string root = kDirectory;
    NoCallBack callBack;
    TarStream sink;
    require(sink.open(kSink), "open");
    WholeWriter writer(sink, root, callBack);
    for (auto _ : state) {
        require(writer.AddDirectory(Place(path.c_str()), status), "AddDirectory");
    }
}
BENCHMARK(Header)->Arg(30)->Arg(300);

void Checksum(benchmark::State& state) {
    tar_header header = {};
    memset(&header, '7', sizeof(header) / 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(header);
        benchmark::DoNotOptimize(checksumOf(header));
    }
}
BENCHMARK(Checksum);

void ParseOctal(benchmark::State& state) {
    TarBlock block;
    memcpy(block.header.size, "000123456701", sizeof(block.header.size));
    for (auto _ : state) {
        benchmark::DoNotOptimize(block);
        benchmark::DoNotOptimize(ParseOctalStr(block.header.size, sizeof(block.header.size)));
    }
}
BENCHMARK(ParseOctal);

void Record(benchmark::State& state) {
    const File sink(fopen(kSink, "we"), fclose);
    const struct stat status = statusOf(kDirectory);
    for (auto _ : state) {
        require(do_backup_perm("/data/data/com.example.app/files/a/b/name.xml", status,
                               sink.get()) == 0,
                "do_backup_perm");
    }
}
BENCHMARK(Record);

void ParseRecord(benchmark::State& state) {
    const std::string record = std::string(kDirectory) + ";432;0;123456;1700000000\n";
    std::vector<char> line(record.size() + 1);
    File_info info;
    for (auto _ : state) {
        memcpy(line.data(), record.c_str(), record.size() + 1);
        require(parse_line_info(line.data(), info) == 5, "parse_line_info");
    }
}
BENCHMARK(ParseRecord);

Vector<std::string> folders(int64_t count, const char* end) {
    Vector<std::string> paths;
    for (int64_t i = 0; i < count; ++i) {
        paths.add("/data/data/com.example.app/files/folder" + std::to_string(i * 7919) + end);
    }
    return paths;
}

void FilterPaths(benchmark::State& state) {
    const Vector<std::string> paths = folders(state.range(0), "/");
    for (auto _ : state) {
        Vector<std::string> result;
        FilterPath(paths, result);
        benchmark::DoNotOptimize(result);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(FilterPaths)->Arg(10)->Arg(1000)->Arg(10000);

void Excluded(benchmark::State& state) {
    const Vector<std::string> rules = folders(state.range(0), "");
    for (auto _ : state) {
        require(!NeedFilterWithExclude("/data/data/com.example.app/files/other/name.xml", rules),
                "NeedFilterWithExclude");
    }
}
BENCHMARK(Excluded)->Arg(1)->Arg(100);

// Hears of one task at a time.
class Client : public android::os::IBackupSessionCallback {
  public:
    android::binder::Status onTaskStatusChanged(int32_t /*session*/, int32_t /*task*/, int32_t code,
                                                const std::string& /*message*/) override {
        const Clock::time_point now = Clock::now();
        const std::lock_guard<std::mutex> lock(mMutex);
        if (code == 1) {
            mStarted = now;
        } else {
            mEnded = true;
            mChanged.notify_one();
        }
        return android::binder::Status::ok();
    }

    // When the task began, once it has ended.
    Clock::time_point waitForEnd() {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this] { return mEnded; });
        mEnded = false;
        return mStarted;
    }

  protected:
    android::IBinder* onAsBinder() override { return mBinder.get(); }

  private:
    const android::sp<android::host::LocalBinder> mBinder = new android::host::LocalBinder();
    std::mutex mMutex;
    std::condition_variable mChanged;
    // Guarded by mMutex.
    Clock::time_point mStarted;
    bool mEnded = false;
};

void Command(benchmark::State& state, const char* command) {
    const int32_t session = startBackupSession(new Client());
    const std::string line = command;
    std::string own;
    for (auto _ : state) {
        own = line;  // the call splits it in place
        benchmark::DoNotOptimize(executeBackupTask(session, own));
    }
    finishBackupSession(session);
}
BENCHMARK_CAPTURE(Command, delay, "delay 5");
BENCHMARK_CAPTURE(Command, setweight, "setweight tar 50");
BENCHMARK_CAPTURE(Command, keepalive, "keepalive");
BENCHMARK_CAPTURE(Command, abort, "abort 99");
BENCHMARK_CAPTURE(Command, unknown, "no such command");

void TaskStart(benchmark::State& state) {
    const android::sp<Client> client = new Client();
    const int32_t session = startBackupSession(client);
    const std::string source = std::string(kDirectory) + "/file";
    std::vector<double> all;
    int turn = 0;
    for (auto _ : state) {
        // A task counts as running for a moment after its end: the next one is another.
        const std::string command = "backup file " + source + ' ' + kDirectory + "/out" +
                                    std::to_string(++turn % 8) + " default 10123";
        usleep(200);  // until the worker waits
        const Clock::time_point sent = Clock::now();
        require(executeBackupTask(session, command) >= 100, "executeBackupTask");
        const std::chrono::duration<double> passed = client->waitForEnd() - sent;
        all.push_back(passed.count());
        state.SetIterationTime(passed.count());
    }
    finishBackupSession(session);
    std::nth_element(all.begin(), all.begin() + static_cast<long>(all.size() / 2), all.end());
    state.counters["median_us"] = all[all.size() / 2] * 1e6;
}
BENCHMARK(TaskStart)->UseManualTime()->Iterations(2000)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    if (access("/.throw-away-root", F_OK) != 0) {
        fprintf(stderr, "bench_micro: run scripts/bench.sh, this wants a throw-away root\n");
        return 1;
    }
    mkdir("/data/data", 0771);
    mkdir(kDirectory, 0771);
    fclose(fopen((std::string(kDirectory) + "/file").c_str(), "we"));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    fflush(stdout);
    // Without the destructors of static objects: a worker may still be on its way out.
    _exit(0);
}
