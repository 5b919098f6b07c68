#include <gtest/gtest.h>

#include "tests/unit/service/service_test.h"

namespace peltex_test {
namespace {

using Lines = std::vector<std::string>;

class SessionTest : public ServiceTest {};

TEST_F(SessionTest, ClosedAndUnknownSessionsCannotBeClosed) {
    const int32_t session = manager->startBackupSession(client);
    EXPECT_EQ(manager->finishBackupSession(session + 1), -1);
    EXPECT_EQ(manager->finishBackupSession(session), 0);
    EXPECT_EQ(manager->finishBackupSession(session), -1);
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR),
              (Lines{"invalid session id=101", "invalid session id=100"}));
}

TEST_F(SessionTest, TheLatestCallbackHearsOfEverySessionsTasks) {
    const int32_t session = manager->startBackupSession(client);
    const int32_t task = runBlocked(session, "one");
    const android::sp<TestClient> second = new TestClient();
    manager->startBackupSession(second);
    letGo("one");
    EXPECT_EQ(second->waitForEnd(task), 0);
    EXPECT_EQ(client->statusesOf(task), Lines{"1 processTask start"});
    EXPECT_EQ(second->statusesOf(task), Lines{"0 processTask finish"});
}

TEST_F(SessionTest, WithoutACallbackTasksRunUnheard) {
    const int32_t session = manager->startBackupSession(nullptr);
    EXPECT_GT(addCopy(session, "one"), 0);
    EXPECT_TRUE(eventually([&] { return exists(tree / "out/one"); }));
}

// As a default implementation of the interface is.
class ClientWithoutBinder : public TestClient {
  protected:
    android::IBinder* onAsBinder() override { return nullptr; }
};

TEST_F(SessionTest, AClientWithoutABinderIsServed) {
    const android::sp<TestClient> plain = new ClientWithoutBinder();
    const int32_t session = manager->startBackupSession(plain);
    EXPECT_EQ(plain->waitForEnd(addCopy(session, "one")), 0);
    EXPECT_EQ(client->waitForEnd(addCopy(manager->startBackupSession(client), "two")), 0);
}

class ClientThatCallsInWhenItGoes : public TestClient {
  public:
    explicit ClientThatCallsInWhenItGoes(std::function<void()> last) : mLast(std::move(last)) {}
    ~ClientThatCallsInWhenItGoes() override { mLast(); }

  private:
    const std::function<void()> mLast;
};

// The last reference goes with the callback's replacement, or with a task that it was given.
TEST_F(SessionTest, ACallbackIsLetGoWhereItMayCallIn) {
    const int32_t keeper = manager->startBackupSession(client);
    runBlocked(keeper, "one");
    runBlocked(keeper, "two");
    const std::string drops[] = {"replaced", "aborted", "finished", "refused", "run"};
    for (const std::string& drop : drops) {
        SCOPED_TRACE(drop);
        std::atomic<int32_t> answer{-1};
        const int32_t session = manager->startBackupSession(
            new ClientThatCallsInWhenItGoes([&] { answer = execute(keeper, "delay 1"); }));
        int32_t task = 0;
        if (drop == "refused") {
            task = execute(session, "backup file /system/x " + (tree / "out") + " s 0");
        } else if (drop != "replaced") {
            task = addCopy(session, drop);
        }
        manager->startBackupSession(client);
        if (drop == "aborted") {
            EXPECT_EQ(execute(session, "abort " + std::to_string(task)), 0);
        } else if (drop == "finished") {
            EXPECT_EQ(manager->finishBackupSession(session), 0);
        } else if (drop == "refused") {
            letGo("one");
        }
        EXPECT_TRUE(eventually([&] { return answer == 0; }));
    }
    letGo("two");
}

// On the worker that is about to end, which has to be there for it or be replaced.
TEST_F(SessionTest, ACallbackThatGoesWithItsTaskMayQueueAnother) {
    const int32_t keeper = manager->startBackupSession(client);
    std::atomic<int32_t> queued{0};
    android::sp<TestClient> going =
        new ClientThatCallsInWhenItGoes([&] { queued = addCopy(keeper, "next"); });
    const int32_t session = manager->startBackupSession(going);
    EXPECT_EQ(going->waitFor(addBlocked(session, "one"), 1), 1);
    going.clear();
    manager->startBackupSession(client);
    EXPECT_EQ(manager->finishBackupSession(session), 0);
    letGo("one");
    EXPECT_TRUE(eventually([&] { return queued > 0; }));
    EXPECT_EQ(client->waitForEnd(queued), 0);
}

class ClientThatWaits : public TestClient {
  public:
    android::binder::Status onTaskStatusChanged(int32_t session, int32_t task, int32_t code,
                                                const std::string& message) override {
        onStatus(task, code);
        return TestClient::onTaskStatusChanged(session, task, code, message);
    }

    std::function<void(int32_t task, int32_t code)> onStatus = [](int32_t, int32_t) {};
};

// It waits with the manager's lock held, for all statuses of a task that has begun to begin.
TEST_F(SessionTest, ACallbackThatWaitsHoldsUpNoOtherWorkersStatuses) {
    const android::sp<ClientThatWaits> waiting = new ClientThatWaits();
    const int32_t session = manager->startBackupSession(waiting);
    const int32_t first = addBlocked(session, "one");
    EXPECT_EQ(waiting->waitFor(first, 1), 1);
    writeFile(tree / "source/file", "x");
    std::atomic<bool> hasBegun{false};
    std::atomic<bool> isAborting{false};
    std::atomic<int32_t> end{TestClient::kNone};
    waiting->onStatus = [&](int32_t task, int32_t code) {
        if (task == first && code == 2) {
            isAborting = true;
            end = waiting->waitForEnd(first + 1);
        } else if (task != first && code == 1) {
            hasBegun = true;
            eventually([&] { return isAborting.load(); });
        }
    };
    const int32_t second =
        execute(session, "backup tar " + (tree / "source") + " " + (tree / "out") + " s 0");
    EXPECT_EQ(second, first + 1);
    EXPECT_TRUE(eventually([&] { return hasBegun.load(); }));
    EXPECT_EQ(execute(session, "abort " + std::to_string(first)), 0);
    EXPECT_EQ(end, 0);
    letGo("one");
}

// Of neighbours in the queue every second one survives: the walk steps over what moves up.
TEST_F(SessionTest, FinishDropsEverySecondOfNeighbouringPendingTasks) {
    const int32_t keeper = manager->startBackupSession(client);
    const int32_t session = manager->startBackupSession(client);
    runBlocked(keeper, "one");
    runBlocked(keeper, "two");
    const int32_t tasks[] = {addCopy(session, "a"), addCopy(session, "b"), addCopy(session, "c"),
                             addCopy(keeper, "d"), addCopy(session, "e")};
    EXPECT_EQ(manager->finishBackupSession(session), 0);
    letGo("one");
    letGo("two");
    for (const int32_t survivor : {tasks[1], tasks[3]}) {
        EXPECT_EQ(client->waitForEnd(survivor), 0);
    }
    EXPECT_EQ(manager->finishBackupSession(keeper), 0);
    EXPECT_TRUE(workersEnd());
    for (const int32_t dropped : {tasks[0], tasks[2], tasks[4]}) {
        EXPECT_TRUE(client->statusesOf(dropped).empty()) << dropped;
    }
}

TEST_F(SessionTest, FinishStopsTheSessionsRunningTaskAndItsWorker) {
    const int32_t keeper = manager->startBackupSession(client);
    const int32_t session = manager->startBackupSession(client);
    const int32_t task = runBlocked(session, "one");
    EXPECT_EQ(manager->finishBackupSession(session), 0);
    EXPECT_EQ(client->statusesOf(task), Lines{"1 processTask start"}) << "an end is not an abort";
    letGo("one");
    EXPECT_TRUE(workersEnd());
    EXPECT_EQ(client->waitForEnd(addCopy(keeper, "two")), 0) << "workers start again";
}

TEST_F(SessionTest, FinishOfTheLastSessionEndsIdleWorkersAndANewTaskStartsThem) {
    const int32_t session = manager->startBackupSession(client);
    EXPECT_EQ(client->waitForEnd(addCopy(session, "one")), 0);
    EXPECT_EQ(manager->checkIsRunning(), 1);
    EXPECT_EQ(manager->finishBackupSession(session), 0);
    EXPECT_TRUE(workersEnd());
    EXPECT_EQ(client->waitForEnd(addCopy(manager->startBackupSession(client), "two")), 0);
}

TEST_F(SessionTest, DeathOfTheClientClosesAllSessionsAndLeavesTasksAlone) {
    const int32_t sessions[] = {manager->startBackupSession(client),
                                manager->startBackupSession(client)};
    const int32_t running[] = {runBlocked(sessions[0], "one"), runBlocked(sessions[0], "two")};
    const int32_t queued = addCopy(sessions[1], "three");
    client->binder()->notifyDeath();
    EXPECT_EQ(execute(sessions[0], "delay 1"), -1);
    EXPECT_EQ(execute(sessions[1], "delay 1"), -1);
    letGo("one");
    letGo("two");
    EXPECT_EQ(client->waitForEnd(running[0]), 0);
    EXPECT_EQ(client->waitForEnd(running[1]), 0);
    EXPECT_TRUE(workersEnd());
    EXPECT_TRUE(client->statusesOf(queued).empty()) << "nobody is left to ask for it";

    const android::sp<TestClient> next = new TestClient();
    const int32_t session = manager->startBackupSession(next);
    EXPECT_EQ(next->waitForEnd(addCopy(session, "four")), 0);
    EXPECT_EQ(next->waitForEnd(queued), 0) << "the next command's workers find it";
}

TEST_F(SessionTest, DeathOfAReplacedCallbackIsNoDeath) {
    const int32_t session = manager->startBackupSession(client);
    const android::sp<TestClient> second = new TestClient();
    manager->startBackupSession(second);
    client->binder()->notifyDeath();
    EXPECT_EQ(execute(session, "delay 1"), 0);
    second->binder()->notifyDeath();
    EXPECT_EQ(execute(session, "delay 1"), -1);
}

}  // namespace
}  // namespace peltex_test
