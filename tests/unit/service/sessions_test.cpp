#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>

#include "tests/unit/service/service_test.h"

namespace peltex_test {
namespace {

[[maybe_unused]] const bool kAreRegistered = [] {
    registerTexts("service/sessions.md", [] { return static_cast<TextTest*>(new ServiceTest()); });
    return true;
}();

// In real seconds; its label keeps it out of everyday runs.
TEST_F(ServiceTest, RealTime35Seconds) {
    constexpr int32_t kTimeOut = 5;
    setWaits(WaitLength::kReal);
    play("open s; pause s app");
    EXPECT_EQ(client->waitFor(tasks["app"], kTimeOut, std::chrono::seconds(30)), TestClient::kNone);
    EXPECT_EQ(client->waitFor(tasks["app"], kTimeOut), kTimeOut);
    play("end app = -1; waits = 7");
}

// Told of a slice, the worker is still busy with it: the answer from inside that call is too early.
TEST_F(ServiceTest, AContinuationBeforeThePauseIsLost) {
    const android::sp<TestClient> early = new TestClient();
    std::atomic<int32_t> answer{0};
    const int32_t session = manager->startBackupSession(early);
    sessions["s"] = session;
    early->onStatus = [&](const Status& status) {
        if (status.code == 4 && answer == 0) {
            answer = execute(session, "backup split", "app");
        }
    };
    play("pause s app");
    EXPECT_EQ(answer, tasks["app"]) << "it pauses all the same";
}

// The last reference goes with the callback's replacement, or with a task that it was given.
TEST_F(ServiceTest, ACallbackIsLetGoWhereItMayCallIn) {
    play("open s; block s one two");
    const int32_t session = sessions["s"];
    for (const std::string drop : {"", "abort", "finish", "refuse", "run"}) {
        SCOPED_TRACE(drop);
        std::atomic<int32_t> answer{-1};
        android::sp<TestClient> going = new TestClient();
        going->onEnd = [&] { answer = execute(session, "delay 1"); };
        sessions["own"] = manager->startBackupSession(going);
        going.clear();
        if (drop == "refuse") {
            execute(sessions["own"], "backup file /system/x /system/y s 0");
        } else if (!drop.empty()) {
            play("copy own " + drop);
        }
        play(drop == "abort"    ? "open t; abort own abort"
             : drop == "finish" ? "open t; finish own"
             : drop == "refuse" ? "open t; free one"
                                : "open t");
        EXPECT_TRUE(eventually([&] { return answer == 0; }));
    }
}

// On the worker that is about to end, which has to be there for it or be replaced.
TEST_F(ServiceTest, ACallbackThatGoesWithItsTaskMayQueueAnother) {
    android::sp<TestClient> going = new TestClient();
    std::atomic<int32_t> queued{0};
    writeFile(tree / "next", "x");
    play("open s");
    going->onEnd = [&, session = sessions["s"]] {
        queued = execute(session, "backup file", "next");
    };
    sessions["own"] = manager->startBackupSession(going);
    play("queue own one");
    EXPECT_EQ(going->waitFor(tasks["one"], 1), 1);
    going.clear();
    play("open t; finish own; free one");
    EXPECT_TRUE(eventually([&] { return queued != 0; }));
    EXPECT_EQ(client->waitForEnd(queued), 0);
}

// It waits with the manager's lock held, for all statuses of a task that has begun to begin.
TEST_F(ServiceTest, ACallbackThatWaitsHoldsUpNoOtherWorkersStatuses) {
    const android::sp<TestClient> waiting = new TestClient();
    sessions["s"] = manager->startBackupSession(waiting);
    play("queue s one");
    const int32_t first = tasks["one"];
    EXPECT_EQ(waiting->waitFor(first, 1), 1);
    std::atomic<bool> hasBegun{false};
    std::atomic<bool> isAborting{false};
    std::atomic<int32_t> end{TestClient::kNone};
    waiting->onStatus = [&](const Status& status) {
        if (status.task == first && status.code == 2) {
            isAborting = true;
            end = waiting->waitForEnd(first + 1);
        } else if (status.task != first && status.code == 1) {
            hasBegun = true;
            eventually([&] { return isAborting.load(); });
        }
    };
    writeFile(tree / "app/file", "x");
    EXPECT_EQ(execute(sessions["s"], "backup tar", "app"), first + 1);
    EXPECT_TRUE(eventually([&] { return hasBegun.load(); }));
    play("abort s one");
    EXPECT_EQ(end, 0);
}

// Nice values of the workers, and that of this thread last.
std::vector<int> priorities() {
    std::vector<int> values;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(thread.path() / "comm"), name);
        if (name == "BackupWorkerThr") {
            const int tid = std::stoi(thread.path().filename().string());
            values.push_back(getpriority(PRIO_PROCESS, static_cast<id_t>(tid)));
        }
    }
    std::sort(values.begin(), values.end());
    values.push_back(getpriority(PRIO_PROCESS, 0));
    return values;
}

TEST_F(ServiceTest, WorkersRunInTheBackgroundAndArchivesByTheirWeight) {
    const int own = getpriority(PRIO_PROCESS, 0);
    play("open s; block s one two; say s setweight t 0");
    const Lines debug = logged(ANDROID_LOG_DEBUG);
    const std::string start = "BackupSessionManager start BackupWorker thread BackupWorkerThread_";
    EXPECT_EQ(std::count(debug.begin(), debug.end(), start), 1) << "named by the index as a byte";
    EXPECT_EQ(std::count(debug.begin(), debug.end(), start + '\1'), 1);
    EXPECT_EQ(priorities(), (std::vector<int>{10, 10, own})) << "of archives only";
    play("free two; end two");

    const android::sp<TestClient> acting = new TestClient();
    std::atomic<int> phase{0};
    std::vector<int> atTheEnd;
    acting->onStatus = [&](const Status& status) {
        if (status.code == 1) {
            phase = 1;
            eventually([&] { return phase == 2; });
        } else if (status.code == 0) {
            atTheEnd = priorities();
        }
    };
    manager->startBackupSession(acting);
    writeFile(tree / "app/file", "x");
    for (const std::string kind : {"tar", "split"}) {
        SCOPED_TRACE(kind);
        phase = 0;
        const int32_t task = execute(sessions["s"], "backup " + kind, "app");
        EXPECT_TRUE(eventually([&] { return phase == 1; }));
        play("say s setweight tar 50");
        EXPECT_EQ(priorities(), (std::vector<int>{10, kind == "tar" ? 15 : 10, own})) << "at once";
        play("say s setweight tar 0");
        phase = 2;
        EXPECT_EQ(acting->waitForEnd(task), 0);
        EXPECT_EQ(atTheEnd, (std::vector<int>{10, 19, 19})) << "of the worker, which tells it";
        EXPECT_TRUE(eventually([&] { return priorities() == std::vector<int>{10, 10, own}; }));
    }
    play("open t");
}

TEST_F(ServiceTest, ADestroyedManagerTakesNothingMoreAndWaitsForItsWorkers) {
    android::sp<android::installd::BackupSessionManager> doomed =
        new android::installd::BackupSessionManager();
    // A reference to an object that is going could be the last and end it on this thread.
    const android::installd::BackupSessionManager* const going = doomed.get();
    const int32_t id = doomed->startBackupSession(client);
    for (const std::string name : {"a", "b", "c"}) {
        makeNode(tree / name, S_IFIFO);
        tasks[name] = doomed->executeBackupTask(
            id, "backup file " + (tree / name) + " " + (tree / "out") + " s 0");
    }
    EXPECT_EQ(client->waitFor(tasks["b"], 1), 1);
    std::thread owner([&] { doomed.clear(); });
    EXPECT_TRUE(eventually([&] { return going->checkExit(0) && going->checkExit(1); }));
    for (const char* name : {"a", "b", "c"}) {
        giveUp(tree / name);
    }
    owner.join();
    play("told c");
    EXPECT_NE(client->waitForEnd(tasks["b"]), TestClient::kNone);
}

// The moment in which a worker decides to leave meets the moment in which a new task counts on it:
// a task that nobody takes is a round that does not end.
TEST_F(ServiceTest, NoTaskIsLostWhileWorkersLeave) {
    for (int round = 0; round < 2000; ++round) {
        const android::sp<TestClient> own = new TestClient();
        const int32_t session = manager->startBackupSession(own);
        // Dropped by its pre-check: the pass of a task costs next to nothing.
        ASSERT_EQ(own->waitForEnd(execute(session, "move x " + tree.path() + " /none s 0")), -1);
        round % 2 == 0 ? static_cast<void>(manager->finishBackupSession(session)) : own->die();
    }
    // Aborts hit running tasks, whose workers leave after them while others keep queueing.
    play("open s; copy s file; end file");
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        const std::string line = "backup file " + (tree / "file") + " " +
                                 (tree / "out" + std::to_string(number)) + " s 0";
        threads.emplace_back([this, number, line] {
            for (int round = 0; round < 300; ++round) {
                const int32_t task = execute(sessions.at("s"), line);
                // The last status precedes the moment in which the task leaves the queue.
                if (task != -4 && number % 2 == 0) {
                    execute(sessions.at("s"), "abort " + std::to_string(task));
                } else if (task != -4) {
                    client->waitForEnd(task);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    play("copy s last; end last");
}

}  // namespace
}  // namespace peltex_test
