// Handlers run as the task loop runs them, and what they leave: files and log lines.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/backup_session_manager.h"
#include "tests/support/log_lines.h"
#include "tests/support/task_maker.h"
#include "tests/support/test_files.h"

namespace peltex_test {

class HandlerTest : public testing::Test {
  protected:
    std::vector<std::string> errors() const { return messagesOf(log, ANDROID_LOG_ERROR); }

    TempTree tree;
    const android::sp<TestClient> client = new TestClient();
    const android::sp<android::installd::BackupSessionManager> manager =
        new android::installd::BackupSessionManager();
    android::host::LogCapture log;
};

}  // namespace peltex_test
