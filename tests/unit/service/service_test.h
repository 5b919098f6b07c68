// Sessions and workers: tasks that stay running until they are let go, clients that act when they
// are told something, and steps of it all, which sessions.md explains.
#pragma once

#include <android/log.h>
#include <fcntl.h>
#include <host/log_capture.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "service/backup_session_manager.h"
#include "tests/support/test_client.h"
#include "tests/support/test_files.h"
#include "tests/support/wrapped_calls.h"
#include "tests/unit/text_test.h"

namespace peltex_test {

// Polls, for states that nobody is told of. Returns false after a time that only failure takes.
inline bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 60000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

class ServiceTest : public TextTest {
  public:
    // Two workers that make one directory at the same time fail one of their tasks, so it is there.
    ServiceTest() {
        makeDir(tree / "out");
        setWaits(WaitLength::kEndless);
    }

  protected:
    // Ends what a test has left paused or blocked: the manager waits for its workers.
    void TearDown() override;

    int32_t execute(int32_t session, const std::string& line) {
        return manager->executeBackupTask(session, std::string(line));
    }
    // The same for two words and a name below the tree, to "out".
    int32_t execute(int32_t session, const std::string& command, const std::string& name);

    // Ends the copy of a FIFO, whether it has been opened yet or not.
    static void giveUp(const std::string& fifo);

    // Runs steps "STEP [= RESULT]; ...", with the results that sessions.md tells of.
    void play(const std::string& script);
    std::string run(const std::string& command) override;

    // What was logged with a priority.
    Lines logged(int priority) const;
    Lines errors() const { return logged(ANDROID_LOG_ERROR); }

    const android::sp<TestClient>& clientOf(const std::string& name);

    TempTree tree;
    const android::sp<TestClient> client = new TestClient();
    const android::sp<android::installd::BackupSessionManager> manager =
        new android::installd::BackupSessionManager();
    android::host::LogCapture log;
    std::map<std::string, int32_t> sessions;
    std::map<std::string, int32_t> tasks;

  private:
    std::string act(const std::string& verb, const std::string& session, const std::string& name);
    const android::sp<TestClient>& hearerOf(const std::string& task);
    std::string queued(const std::string& name, int32_t result);
    std::string told(const std::string& name);
    std::string thenWaits(const std::string& verb, const std::string& session,
                          const std::string& name);

    std::map<std::string, android::sp<TestClient>> mClients = {{"", client}, {"-", nullptr}};
    std::string mHears;  // the name of the latest
    std::vector<std::string> mFifos;
    const int mWaitsBefore = waitsBegun();
};

}  // namespace peltex_test
