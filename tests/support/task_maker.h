// Tasks as the command parser would make them.
#pragma once

#include <string>

#include "task/backup_task.h"
#include "tests/support/test_client.h"

namespace peltex_test {

inline android::sp<android::installd::BackupTask> makeTask(
    android::installd::BackupTaskType type, const std::string& source,
    const std::string& destination, const android::sp<TestClient>& client = nullptr,
    const std::string& uid = "10123", const std::string& seInfo = "default") {
    const std::string words[android::installd::kCommandWords] = {
        "cmd", "option", source, destination, seInfo, uid, ""};
    return new android::installd::BackupTask(100, 101, type, client, words);
}

}  // namespace peltex_test
