// The moment in which a worker decides to leave meets the moment in which a new task counts on it.
// Every round makes the workers leave and queues a task right then; a task that nobody takes is a
// round that does not end.
#include <gtest/gtest.h>

#include <thread>

#include "tests/unit/service/service_test.h"

namespace peltex_test {
namespace {

constexpr int kRounds = 1500;

class WorkerStressTest : public ServiceTest {
  protected:
    // Small enough to be dropped by its pre-check: the pass of a task costs next to nothing.
    int32_t addDropped(int32_t session, int number) {
        return execute(session,
                       "move x " + tree.path() + " /none/" + std::to_string(number) + " s 0");
    }
};

TEST_F(WorkerStressTest, SessionsThatEndAndBeginAtOnce) {
    for (int round = 0; round < kRounds; ++round) {
        const int32_t session = manager->startBackupSession(client);
        const int32_t task = addDropped(session, round);
        ASSERT_EQ(client->waitForEnd(task), -1) << "round " << round;
        ASSERT_EQ(manager->finishBackupSession(session), 0);
    }
}

TEST_F(WorkerStressTest, ClientsThatDieAndComeBackAtOnce) {
    for (int round = 0; round < kRounds; ++round) {
        const android::sp<TestClient> mortal = new TestClient();
        const int32_t session = manager->startBackupSession(mortal);
        const int32_t task = addDropped(session, round);
        ASSERT_EQ(mortal->waitForEnd(task), -1) << "round " << round;
        mortal->binder()->notifyDeath();
    }
}

// Aborts hit running tasks, whose workers leave after them while others keep queueing.
TEST_F(WorkerStressTest, AbortsBetweenClientsThatKeepQueueing) {
    const int32_t session = manager->startBackupSession(client);
    writeFile(tree / "file", "content");
    std::vector<std::thread> clients;
    for (int number = 0; number < 4; ++number) {
        clients.emplace_back([this, session, number] {
            for (int round = 0; round < kRounds / 4; ++round) {
                const std::string out = tree / ("out" + std::to_string(number));
                const int32_t task =
                    execute(session, "backup file " + (tree / "file") + " " + out + " s 0");
                // The last status precedes the moment in which the task leaves the queue.
                if (task == -4) {
                    continue;
                }
                ASSERT_GE(task, 100);
                if (number % 2 == 0) {
                    execute(session, "abort " + std::to_string(task));
                    continue;
                }
                ASSERT_NE(client->waitForEnd(task), TestClient::kNone) << "round " << round;
            }
        });
    }
    for (std::thread& thread : clients) {
        thread.join();
    }
    EXPECT_EQ(client->waitForEnd(addCopy(session, "last")), 0);
}

}  // namespace
}  // namespace peltex_test
