// A manager of its own per test, a client, and tasks that stay running until they are let go.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "service/backup_session_manager.h"
#include "tests/support/log_lines.h"
#include "tests/support/test_client.h"
#include "tests/support/test_files.h"

namespace peltex_test {

// Polls, for states that nobody is told of. Returns false after a time that only failure takes.
inline bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 3000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class ServiceTest : public testing::Test {
  protected:
    // Two workers that make one directory at the same time fail one of their tasks, so it is there.
    void SetUp() override { makeDir(tree / "out"); }

    // Lets go whatever a failed test has left running: the manager waits for its workers.
    void TearDown() override {
        for (const std::string& fifo : mFifos) {
            giveUp(fifo);
        }
    }

    void addFifo(const std::string& name) {
        makeFifo(tree / name);
        mFifos.push_back(tree / name);
    }

    // Ends the copy of a FIFO, whether it has been opened yet or not.
    static void giveUp(const std::string& fifo) {
        const int writer = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
        unlink(fifo.c_str());
        close(writer);
    }

    int32_t execute(int32_t session, const std::string& line) {
        return manager->executeBackupTask(session, std::string(line));
    }

    // Queues the copy of a small file named `name`.
    int32_t addCopy(int32_t session, const std::string& name) {
        writeFile(tree / name, name);
        return execute(session, "backup file " + (tree / name) + " " + (tree / "out") + " s 0");
    }

    // Queues the copy of a FIFO: the task runs until letGo() gives the FIFO a writer.
    int32_t addBlocked(int32_t session, const std::string& name) {
        addFifo(name);
        return execute(session, "backup file " + (tree / name) + " " + (tree / "out") + " s 0");
    }
    void letGo(const std::string& name) { close(open((tree / name).c_str(), O_WRONLY)); }

    // The same, and waits until a worker runs it.
    int32_t runBlocked(int32_t session, const std::string& name) {
        const int32_t task = addBlocked(session, name);
        EXPECT_EQ(client->waitFor(task, 1), 1);
        return task;
    }

    bool workersEnd() {
        return eventually([this] { return manager->checkIsRunning() == 0; });
    }

    android::host::LogCapture log;
    TempTree tree;
    const android::sp<TestClient> client = new TestClient();
    const android::sp<android::installd::BackupSessionManager> manager =
        new android::installd::BackupSessionManager();

  private:
    std::vector<std::string> mFifos;
};

}  // namespace peltex_test
