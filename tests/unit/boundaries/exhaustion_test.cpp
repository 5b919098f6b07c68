// What hostile input makes the library wait for, fill, hold or read: a worker's time, disk, memory,
// descriptors, stack. docs/BOUNDARIES.md has one line for each.
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <random>

#include "tests/unit/boundaries/boundary_test.h"

namespace peltex_test {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMiB = 1 << 20;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsOurs = false;
#elif defined(__has_feature)
constexpr bool kMemoryIsOurs =
    !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#else
constexpr bool kMemoryIsOurs = true;
#endif

class ExhaustionTest : public BoundaryTest {
  protected:
    // A running task that an abort does not end.
    int32_t startUnending(const std::string& command, const std::string& source,
                          const std::string& destination) {
        const int32_t task = start(command, source, destination);
        EXPECT_EQ(client->waitFor(task, 1), 1);
        EXPECT_EQ(abort(task), 0);
        return task;
    }
    bool isEnded(int32_t task) const {
        return client->waitFor(task, TestClient::kFinal, std::chrono::seconds(0)) !=
               TestClient::kNone;
    }

    // Ends a task that waits for a writer, which it has to: opening one fails without a reader.
    bool letGo(const std::string& fifo, int32_t task) const {
        EXPECT_FALSE(isEnded(task));
        bool isWaitedFor = false;
        return eventually([&] {
                   const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
                   isWaitedFor = isWaitedFor || writer != -1;
                   close(writer);
                   return isEnded(task);
               }) &&
               isWaitedFor;
    }

    // A tree of directories that fills a path, with a file at its end. Returns its depth.
    size_t makeDeepTree(const std::string& top) const {
        std::string path = top;
        size_t depth = 0;
        for (; path.size() + 4 < 2000; ++depth) {
            path += "/d";
        }
        makeDir(path);
        writeFile(path + "/f", "x");
        return depth;
    }

    static off_t blocksOf(const std::string& path) { return statOf(path).st_blocks * 512; }
};

TEST_F(ExhaustionTest, FifosAsInput) {
    makeDir(hostile + "/app");
    const struct {
        const char* command;
        std::string fifo;
        std::string source;
        std::string destination;
    } rows[] = {
        {"backup file", "fifo", "fifo", ""},
        {"restore tar", "a.tar", "a.tar", ""},
        {"restore split", "s.tar.txt", "s.tar.txt", "/app"},
        {"restore dir", "app.txt", "", "/app"},
        {"backup byfile", "list", "list", "/app"},
        {"get_brief byfile", "search", "search", "/brief"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command);
        const std::string fifo = hostile + "/" + row.fifo;
        makeFifo(fifo);
        const int32_t task =
            startUnending(row.command, row.source.empty() ? hostile : hostile + "/" + row.source,
                          to + row.destination);
        EXPECT_TRUE(letGo(fifo, task));
    }
}

TEST_F(ExhaustionTest, AFifoInACheckFile) {
    makeFifo(outside + "/fifo");
    const int32_t task =
        startUnending("restore split", write("s.tar.txt", climbingTo(outside) + "/fifo|0"), to);
    EXPECT_TRUE(letGo(outside + "/fifo", task));
}

TEST_F(ExhaustionTest, FifosAsTargets) {
    const std::string archive =
        write("a.tar", entry('0', "fifo", std::string(kMiB, 'x')) + kEndBlocks);
    const std::string file = write("file", std::string(kMiB, 'x'));
    for (const auto& [command, source, destination] :
         {std::tuple("restore tar", archive, to), std::tuple("restore file", file, to + "/fifo")}) {
        SCOPED_TRACE(command);
        unlink((to + "/fifo").c_str());
        makeFifo(to + "/fifo");
        const int reader = open((to + "/fifo").c_str(), O_RDONLY | O_NONBLOCK);
        const int32_t task = startUnending(command, source, destination);
        int unread = 0;
        EXPECT_TRUE(
            eventually([&] { return ioctl(reader, FIONREAD, &unread) == 0 && unread == 65536; }));
        EXPECT_FALSE(isEnded(task));
        char buffer[4096];
        while (!isEnded(task)) {
            [[maybe_unused]] const ssize_t length = read(reader, buffer, sizeof(buffer));
        }
        close(reader);
    }
}

TEST_F(ExhaustionTest, HolesAreFilled) {
    write("src/sparse", "");
    fs::resize_file(hostile + "/src/sparse", 8 * kMiB);
    ASSERT_EQ(blocksOf(hostile + "/src/sparse"), 0);
    EXPECT_EQ(run("backup dir", hostile + "/src", to), 0);
    EXPECT_EQ(blocksOf(to + "/src/sparse"), 8 * kMiB);

    const std::string archive = write("a.tar", Header('0', "sparse", 8 * kMiB).bytes());
    fs::resize_file(archive, kBlock + 8 * kMiB + kEndBlocks.size());
    EXPECT_LE(blocksOf(archive), 8192);
    EXPECT_EQ(run("restore tar", archive, to), 0);
    EXPECT_EQ(blocksOf(to + "/sparse"), 8 * kMiB);
}

TEST_F(ExhaustionTest, AHeaderThatPromisesMoreThanThereIs) {
    const std::string sevens(12, '7');
    const std::string archive = write(
        "a.tar", Header('0', "f").put(124, sevens).bytes() + std::string(kBlock, 'x') + kEndBlocks);
    EXPECT_EQ(run("restore tar", archive, to), -1);
    EXPECT_EQ(listTree(to), Lines{});
}

// Grows as long as the client lets it, at each of the first reports of progress.
class GrowingClient : public TestClient {
  public:
    explicit GrowingClient(std::string path) : mPath(std::move(path)) {}
    android::binder::Status onTaskStatusChanged(int32_t session, int32_t task, int32_t code,
                                                const std::string& message) override {
        if (code == 3 && mLeft > 0) {
            --mLeft;
            fs::resize_file(mPath, fs::file_size(mPath) + kMiB);
        }
        return TestClient::onTaskStatusChanged(session, task, code, message);
    }

  private:
    const std::string mPath;
    int mLeft = 10;
};

TEST_F(ExhaustionTest, AGrowingFile) {
    const std::string file = write("src/f", std::string(kMiB, 'x'));
    for (const auto& [command, copy, size] : {std::tuple("backup dir", "/src/f", 11 * kMiB),
                                              std::tuple("backup tar", "/src.tar", kMiB + 1536)}) {
        fs::resize_file(file, kMiB);
        const android::sp<GrowingClient> growing = new GrowingClient(file);
        manager->startBackupSession(growing);
        EXPECT_EQ(growing->waitForEnd(start(command, hostile + "/src", to)), 0);
        EXPECT_EQ(fs::file_size(to + copy), size) << command;
    }
}

TEST_F(ExhaustionTest, LongLinesAndRecords) {
    if (!kMemoryIsOurs) {
        GTEST_SKIP() << "the sanitizer has memory of its own";
    }
    const std::string line(16 * kMiB, 'x');
    makeDir(hostile + "/app");
    write("app.txt", "/" + line);
    const std::string list = write("list", line);
    const std::string archive =
        write("a.tar", Header('L', "n", line.size()).bytes() + line + entry('0', "f") + kEndBlocks);
    rusage before = {};
    getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(run("restore tar", archive, to), 0);
    EXPECT_EQ(run("restore dir", hostile, to + "/app"), 0);
    EXPECT_EQ(run("backup byfile", list, to + "/app"), 0);
    rusage after = {};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 8 * 1024);
}

// As small a stack as the platform gives its threads.
TEST_F(ExhaustionTest, DeepTreesOnASmallStack) {
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    pthread_attr_setstacksize(&attributes, kMiB);
    pthread_setattr_default_np(&attributes);
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
    const std::string source = hostile + "/src";
    const size_t depth = makeDeepTree(source);
    EXPECT_GT(depth, 900U);
    // To paths that are no longer than the source's own.
    const std::string out = tree / "t";
    for (const char* command : {"backup tar", "backup dir", "get_brief dir", "move dir"}) {
        EXPECT_EQ(run(command, source, out + (std::string(command) == "get_brief dir" ? "/b" : "")),
                  0)
            << command;
    }
    EXPECT_EQ(run("restore tar", out + "/src.tar", tree / "u"), 0);
}

TEST_F(ExhaustionTest, DeepTreesHoldADescriptorPerLevel) {
    const std::string source = hostile + "/src";
    makeDeepTree(source);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few = {256, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    const auto opened = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = opened();
    for (const char* command : {"backup dir", "backup tar", "move dir"}) {
        EXPECT_EQ(run(command, source, to), -1) << command;
    }
    EXPECT_EQ(opened(), before);
    EXPECT_EQ(run("backup file", write("f", "x"), to), 0);
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Every parser, over what is nearly right.
TEST_F(ExhaustionTest, AnyBytes) {
    const std::string record = outside + "/no;420;0;1;1\n";
    const struct {
        const char* command;
        std::string name;
        std::string good;
        std::string destination;
    } rows[] = {
        {"restore tar", "a.tar", longRecord('L', "n") + entry('0', "f", "x") + kEndBlocks, "/out"},
        {"restore split", "s.tar.txt", "s.tar.0|1024\ns.tar.1|1024\n", "/out/x"},
        {"restore dir", "app.txt", record + record, "/app"},
        {"backup byfile", "list", record + record, "/app"},
        {"get_brief byfile", "search", "[include]" + to + "\n[exclude]" + to + "/x\n", "/brief"},
    };
    makeDir(hostile + "/app");
    write("s.tar.0", kEndBlocks);
    std::mt19937 random(1);
    for (const auto& row : rows) {
        for (int round = 0; round < 100; ++round) {
            std::string bytes = row.good;
            for (int change = 0; change < 4; ++change) {
                bytes[random() % bytes.size()] = static_cast<char>(random());
            }
            const std::string path = write(row.name, bytes);
            const bool isDir = std::string(row.command) == "restore dir";
            const int32_t result = run(row.command, isDir ? hostile : path, to + row.destination);
            ASSERT_TRUE(result == 0 || result == -1) << row.command << ", round " << round;
        }
    }
}

}  // namespace
}  // namespace peltex_test
