#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

#include "tests/unit/service/service_test.h"

namespace peltex_test {
namespace {

using Lines = std::vector<std::string>;

class TaskLoopTest : public ServiceTest {
  protected:
    const int32_t session = manager->startBackupSession(client);
};

// Nice values by thread name, of all threads of this process.
std::multimap<std::string, int> threadPriorities() {
    std::multimap<std::string, int> priorities;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string tid = entry.path().filename();
        std::string name;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        priorities.emplace(name, getpriority(PRIO_PROCESS, static_cast<id_t>(std::stoi(tid))));
    }
    return priorities;
}

TEST_F(TaskLoopTest, TwoTasksRunAndTheThirdWaitsForOneToEnd) {
    const int32_t first = runBlocked(session, "one");
    const int32_t second = runBlocked(session, "two");
    const int32_t third = addBlocked(session, "three");
    const int32_t fourth = addCopy(session, "four");
    EXPECT_TRUE(client->statusesOf(third).empty());
    letGo("two");
    EXPECT_EQ(client->waitForEnd(second), 0);
    EXPECT_EQ(client->waitFor(third, 1), 1);
    EXPECT_TRUE(client->statusesOf(fourth).empty()) << "first come, first served";
    letGo("one");
    letGo("three");
    for (const int32_t task : {first, third, fourth}) {
        EXPECT_EQ(client->waitForEnd(task), 0);
    }
    EXPECT_EQ(manager->checkIsRunning(), 2);
}

TEST_F(TaskLoopTest, WorkersAreNamedByTheirIndexAsAByteAndRunInTheBackground) {
    runBlocked(session, "one");
    EXPECT_EQ(manager->checkIsRunning(), 1) << "the first task needs one worker";
    runBlocked(session, "two");
    const Lines debug = messagesOf(log, ANDROID_LOG_DEBUG);
    const std::string start = "BackupSessionManager start BackupWorker thread BackupWorkerThread_";
    EXPECT_EQ(std::count(debug.begin(), debug.end(), start), 1);
    EXPECT_EQ(std::count(debug.begin(), debug.end(), start + '\1'), 1);
    const auto priorities = threadPriorities();
    const auto workers = priorities.equal_range("BackupWorkerThr");
    ASSERT_EQ(std::distance(workers.first, workers.second), 2);
    EXPECT_EQ(workers.first->second, 10);
    EXPECT_EQ(std::next(workers.first)->second, 10);
    letGo("one");
    letGo("two");
}

TEST_F(TaskLoopTest, TasksThatFailTheirPreChecksAreDroppedWithOneStatus) {
    writeFile(tree / "file", "x");
    const std::string file = tree / "file";
    const struct {
        const char* name;
        std::string source;
        std::string destination;
        std::string error;
    } rows[] = {
        {"source elsewhere", "/etc/passwd", tree / "out",
         "is_allow_access, /etc/passwd don`t match dataPath."},
        {"destination elsewhere", file, "/sdcard/x",
         "is_allow_access, /sdcard/x don`t match dataPath."},
        {"climbing", "/data/data/com.x/../../system", tree / "out",
         "is_allow_access, illegalpath:/data/data/com.x/../../system."},
        {"source missing", tree / "none", tree / "out",
         "prepareTask error, " + (tree / "none") + " not exists"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log.clear();
        const int32_t task =
            execute(session, "backup file " + row.source + " " + row.destination + " s 0");
        EXPECT_EQ(client->waitForEnd(task), -1);
        EXPECT_EQ(client->statusesOf(task), Lines{"-1 prepareTask error"});
        EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR), Lines{row.error});
    }
}

TEST_F(TaskLoopTest, ABriefOfAMissingDirectoryGetsAsFarAsItsHandler) {
    const int32_t task =
        execute(session, "get_brief dir " + (tree / "none") + " " + (tree / "brief") + " s 0");
    client->waitForEnd(task);
    EXPECT_EQ(client->statusesOf(task).front(), "1 processTask start");
}

TEST_F(TaskLoopTest, TheFinalStatusFollowsTheHandlersResult) {
    const int32_t task = addCopy(session, "file");
    EXPECT_EQ(client->waitForEnd(task), 0);
    EXPECT_EQ(client->statusesOf(task), (Lines{"1 processTask start", "0 processTask finish"}));
    const int32_t failing =
        execute(session, "move dir " + (tree / "out") + " " + (tree / "file/into") + " s 0");
    EXPECT_EQ(client->waitForEnd(failing), -1);
    EXPECT_EQ(client->statusesOf(failing), (Lines{"1 processTask start", "-1 processTask finish"}));
}

// Both workers end after their aborted tasks, and neither was idle when the third was queued.
TEST_F(TaskLoopTest, ATaskQueuedWhileBothWorkersAreLeavingIsServed) {
    const int32_t first = runBlocked(session, "one");
    const int32_t second = runBlocked(session, "two");
    EXPECT_EQ(execute(session, "abort " + std::to_string(first)), 0);
    EXPECT_EQ(execute(session, "abort " + std::to_string(second)), 0);
    const int32_t third = addCopy(session, "three");
    letGo("one");
    letGo("two");
    EXPECT_EQ(client->waitForEnd(third), 0);
}

TEST_F(TaskLoopTest, ADestroyedManagerTakesNothingMoreAndWaitsForItsWorkers) {
    auto doomed = android::sp<android::installd::BackupSessionManager>(
        new android::installd::BackupSessionManager());
    // Of an object that is going, as long as its workers keep it: a reference to it, even a weak
    // one that is promoted for a moment, could be the last and end it on this thread.
    const android::installd::BackupSessionManager* const going = doomed.get();
    const int32_t id = doomed->startBackupSession(client);
    int32_t last = 0;
    for (const char* name : {"a", "b", "c"}) {
        addFifo(name);
        last = doomed->executeBackupTask(
            id, "backup file " + (tree / name) + " " + (tree / "out") + " s 0");
    }
    EXPECT_EQ(client->waitFor(last - 1, 1), 1);
    std::thread owner([&] { doomed.clear(); });
    EXPECT_TRUE(eventually([&] { return going->checkExit(0); }));
    for (const char* name : {"a", "b", "c"}) {
        giveUp(tree / name);
    }
    owner.join();
    EXPECT_NE(client->waitForEnd(last - 1), TestClient::kNone);
}

}  // namespace
}  // namespace peltex_test
