// Handlers run as the task loop runs them, and what they leave: files, log lines, relabelling
// calls.
#pragma once

#include <gtest/gtest.h>
#include <host/relabel_observer.h>

#include <mutex>
#include <string>
#include <vector>

#include "service/backup_session_manager.h"
#include "tests/support/log_lines.h"
#include "tests/support/task_maker.h"
#include "tests/support/test_files.h"

namespace peltex_test {

class HandlerTest : public testing::Test {
  protected:
    // A path for a task: as it is when it is absolute, below the tree otherwise.
    std::string pathOf(const std::string& name) const {
        return name[0] == '/' ? name : tree / name;
    }

    std::vector<std::string> errors() const { return messagesOf(log, ANDROID_LOG_ERROR); }

    TempTree tree;
    const android::sp<TestClient> client = new TestClient();
    const android::sp<android::installd::BackupSessionManager> manager =
        new android::installd::BackupSessionManager();
    android::host::LogCapture log;
    std::vector<std::string> relabelled;  // "PATH SEINFO UID" of each call
    int refusal = 0;                      // the errno value of calls to come, 0: they succeed
    std::mutex relabelling;               // workers call at the same time
    const android::host::ScopedRelabelObserver observer{
        [this](const char* path, const char* seInfo, uid_t uid, unsigned int) {
            const std::lock_guard<std::mutex> lock(relabelling);
            relabelled.push_back(std::string(path) + " " + seInfo + " " + std::to_string(uid));
            return refusal;
        }};
};

}  // namespace peltex_test
