#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/fast_waits.h"
#include "tests/unit/service/service_test.h"

namespace peltex_test {
namespace {

using Lines = std::vector<std::string>;
using std::chrono::seconds;

class SplitHandOffTest : public ServiceTest {
  protected:
    static constexpr int32_t kSlicePackaged = 4;
    static constexpr int32_t kTimeOut = 5;
    static constexpr int32_t kPause = 35;  // seconds, in seven waits

    // A paused worker would keep the manager waiting.
    void TearDown() override {
        manager->finishBackupSession(session);
        ServiceTest::TearDown();
    }

    int waitsSeen() const { return waitsBegun() - mWaitsBefore; }

    std::string line(const std::string& name) const {
        return "backup split " + (tree / name) + " " + (tree / "out") + " 1 default 10123";
    }
    std::string slice(const std::string& name, int number) const {
        return (tree / "out/" + name) + ".tar." + std::to_string(number);
    }

    // Starts a backup of so many full slices and one more, and waits for its first pause.
    int32_t runPaused(const std::string& name, int slices = 1) {
        writeFile(tree / name + "/file", std::string((static_cast<size_t>(slices) << 20) + 1, 'c'));
        const int before = waitsSeen();
        const int32_t task = execute(session, line(name));
        EXPECT_TRUE(eventually([&] { return waitsSeen() > before; }));
        return task;
    }

    // Sends a keep-alive and waits for the wait that follows it.
    void keepAlive() {
        const int before = waitsSeen();
        EXPECT_EQ(execute(session, "keepalive"), 0);
        EXPECT_TRUE(eventually([&] { return waitsSeen() > before; }));
    }

    // What the client was told of the task, without its progress.
    Lines told(int32_t task) const {
        Lines texts = client->statusesOf(task);
        const auto isProgress = [](const std::string& text) { return text[0] == '3'; };
        texts.erase(std::remove_if(texts.begin(), texts.end(), isProgress), texts.end());
        return texts;
    }

    ScopedWaits waits{WaitLength::kEndless};
    const int32_t session = manager->startBackupSession(client);

  private:
    const int mWaitsBefore = waitsBegun();
};

TEST_F(SplitHandOffTest, SlicesAreHandedOverOneByOneUnderOneId) {
    const int32_t task = runPaused("app", 2);
    const int before = waitsSeen();
    EXPECT_EQ(execute(session, line("app")), task);
    EXPECT_TRUE(eventually([&] { return waitsSeen() > before; }));
    EXPECT_EQ(told(task),
              (Lines{"1 processTask start", "4 " + slice("app", 0), "4 " + slice("app", 1)}));
    EXPECT_EQ(execute(session, line("app")), task);
    EXPECT_EQ(client->waitForEnd(task), 0);
    EXPECT_EQ(told(task).back(), "0 processTask finish");
    EXPECT_EQ(told(task)[3], "4 " + slice("app", 2) + "|end");
    EXPECT_EQ(waitsSeen() - before, 1) << "nobody waits after the last slice";
}

TEST_F(SplitHandOffTest, ProgressIsTheTotalInStepsOf80KiB) {
    writeFile(tree / "app/one", std::string(81919, 'c'));
    writeFile(tree / "app/two", std::string(81919, 'c'));
    writeFile(tree / "app/big", std::string(0x80000, 'c'));
    const int32_t task = execute(session, line("app"));
    EXPECT_EQ(client->waitForEnd(task), 0);
    long last = 0;
    for (const Status& status : client->statuses()) {
        if (status.code == 3) {
            EXPECT_GE(std::stol(status.message) - last, 81920);
            last = std::stol(status.message);
        }
    }
    EXPECT_GE(last, 0x80000);
}

TEST_F(SplitHandOffTest, AContinuationWakesTheBackupOfItsOwnPathsAlone) {
    const int32_t first = runPaused("first");
    const int32_t second = runPaused("second");
    EXPECT_NE(first, second);
    EXPECT_EQ(execute(session, line("second")), second);
    EXPECT_EQ(client->waitForEnd(second), 0);
    EXPECT_EQ(told(first), (Lines{"1 processTask start", "4 " + slice("first", 0)}));
    EXPECT_EQ(execute(manager->startBackupSession(client), line("first")), first);
    EXPECT_EQ(client->waitForEnd(first), 0);
}

// Told of a slice, the worker is still busy with it: the answer from inside that call comes too
// early.
TEST_F(SplitHandOffTest, AContinuationBeforeThePauseIsLost) {
    writeFile(tree / "app/file", std::string((1 << 20) + 1, 'c'));
    class EarlyClient : public TestClient {
      public:
        android::binder::Status onTaskStatusChanged(int32_t id, int32_t task, int32_t code,
                                                    const std::string& message) override {
            TestClient::onTaskStatusChanged(id, task, code, message);
            if (code == kSlicePackaged && mAnswer == 0) {
                mAnswer = mContinue();
            }
            return android::binder::Status::ok();
        }
        std::function<int32_t()> mContinue;
        std::atomic<int32_t> mAnswer{0};
    };
    const android::sp<EarlyClient> early = new EarlyClient();
    const int32_t own = manager->startBackupSession(early);
    early->mContinue = [&] { return execute(own, line("app")); };
    const int before = waitsSeen();
    const int32_t task = execute(own, line("app"));
    EXPECT_TRUE(eventually([&] { return waitsSeen() > before; })) << "it pauses all the same";
    EXPECT_EQ(early->mAnswer, task);
    EXPECT_EQ(execute(own, line("app")), task);
    EXPECT_EQ(early->waitForEnd(task), 0);
}

TEST_F(SplitHandOffTest, SevenWaitsWithoutAWordAbortTheTask) {
    waits.set(WaitLength::kShort);
    const int32_t task = runPaused("app");
    EXPECT_EQ(client->waitForEnd(task), -1);
    EXPECT_EQ(told(task), (Lines{"1 processTask start", "4 " + slice("app", 0), "5 timout caused",
                                 "-1 processTask finish"}));
    EXPECT_TRUE(exists(slice("app", 0)));
    EXPECT_EQ(waitsSeen(), 7);
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_INFO)[0], "timeout abort task " + std::to_string(task));
}

TEST_F(SplitHandOffTest, AKeepAliveGivesSixMoreWaits) {
    const int32_t task = runPaused("app");
    for (int i = 0; i < 9; ++i) {
        keepAlive();
    }
    EXPECT_EQ(told(task).size(), 2u) << "ten waits and no time-out";
    waits.set(WaitLength::kShort);
    keepAlive();
    EXPECT_EQ(client->waitFor(task, kTimeOut), kTimeOut);
    EXPECT_EQ(waitsSeen(), 10 + 6);
}

TEST_F(SplitHandOffTest, KeepAliveIsForTheSessionsOwnBackup) {
    EXPECT_EQ(execute(session, "keepalive"), -2);
    runPaused("app");
    EXPECT_EQ(execute(manager->startBackupSession(client), "keepalive"), -2);
    keepAlive();
}

TEST_F(SplitHandOffTest, AnAbortEndsThePauseAtOnce) {
    const int32_t task = runPaused("app");
    EXPECT_EQ(execute(session, "abort " + std::to_string(task)), 0);
    EXPECT_EQ(client->waitForEnd(task), -1);
    Lines texts = told(task);
    std::sort(texts.begin(), texts.end());  // the worker and the abort tell at the same time
    EXPECT_EQ(texts, (Lines{"-1 processTask finish", "1 processTask start", "2 ",
                            "4 " + slice("app", 0)}));
    EXPECT_TRUE(exists(slice("app", 0)));
    EXPECT_EQ(waitsSeen(), 1);
}

TEST_F(SplitHandOffTest, TheSessionsEndEndsThePauseAtOnce) {
    const int32_t task = runPaused("app");
    EXPECT_EQ(manager->finishBackupSession(session), 0);
    EXPECT_EQ(client->waitForEnd(task), -1);
    EXPECT_EQ(told(task),
              (Lines{"1 processTask start", "4 " + slice("app", 0), "-1 processTask finish"}));
    EXPECT_TRUE(exists(slice("app", 0)));
    EXPECT_TRUE(workersEnd());
}

TEST_F(SplitHandOffTest, AQueuedBackupIsNotContinuedButADuplicate) {
    runBlocked(session, "one");
    runBlocked(session, "two");
    makeDir(tree / "app");
    const int32_t task = execute(session, line("app"));
    EXPECT_GE(task, 100);
    EXPECT_EQ(execute(session, line("app")), -4);
    letGo("one");
    letGo("two");
    EXPECT_EQ(client->waitForEnd(task), 0);
}

// In real seconds; its label keeps it out of everyday runs.
TEST_F(SplitHandOffTest, RealTime35Seconds) {
    waits.set(WaitLength::kReal);
    const int32_t task = runPaused("app");
    EXPECT_EQ(client->waitFor(task, kTimeOut, seconds(kPause - 5)), TestClient::kNone);
    EXPECT_EQ(client->waitFor(task, kTimeOut, seconds(kPause)), kTimeOut);
    EXPECT_EQ(waitsSeen(), 7);
    EXPECT_EQ(client->waitForEnd(task), -1);
}

}  // namespace
}  // namespace peltex_test
