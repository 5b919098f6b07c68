// Brief tasks as the task loop runs them, and what they leave.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/support/handler_test.h"

namespace peltex_test {

class BriefTest : public HandlerTest {
  protected:
    BriefTest() { manager->startBackupSession(client); }

    // Runs the handler of the type from one name under the tree to another.
    int32_t run(android::installd::BackupTaskType type, const std::string& from,
                const std::string& to) {
        android::sp<android::installd::BackupTask> task =
            makeTask(type, tree / from, tree / to, nullptr);
        return manager->processTask(task);
    }

    // The paths of a brief's records, without the tree's own, in the order of the lines.
    std::vector<std::string> pathsIn(const std::string& brief) {
        std::vector<std::string> paths;
        std::string text = readFile(tree / brief);
        for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
            const std::string line = text.substr(0, end);
            paths.push_back(
                line.substr(tree.path().size() + 1, line.find(';') - tree.path().size() - 1));
            text.erase(0, end + 1);
        }
        return paths;
    }

    // The record of an entry as it is now.
    std::string recordOf(const std::string& name) {
        const struct stat status = statOf(tree / name);
        return (tree / name) + ";" + std::to_string(status.st_mode & 07777) + ";" +
               (S_ISDIR(status.st_mode) ? "1;" : "0;") + std::to_string(status.st_size) + ";" +
               std::to_string(status.st_mtime) + "\n";
    }

    // The size notices that the manager's client got.
    std::vector<std::string> sizes() const {
        std::vector<std::string> texts;
        for (const Status& status : client->statuses()) {
            if (status.code == 6) {
                texts.push_back(status.message);
            }
        }
        return texts;
    }
};

}  // namespace peltex_test
