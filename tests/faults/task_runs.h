// One small task of each type: what it finds, its command, and everything that a run of it leaves
// or tells.
#pragma once

#include <host/log_capture.h>

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "service/backup_session_manager.h"
#include "tests/faults/call_trap.h"
#include "tests/support/test_client.h"
#include "tests/support/test_files.h"

namespace peltex_test {

// Paths are relative to the root of a TaskRunner: what is below in/ a task finds, what is below
// out/ it makes. The suffix of a name tells what it is: .d a directory, .f a file, .l a link, .tar
// an archive, .txt a list of records, of slices or of what to search.
struct TaskKind {
    android::installd::BackupTaskType type;
    const char* name;
    const char* command;  // the first two words
    const char* source;
    const char* destination;
    void (*prepare)(const std::string& root);
};

inline void PrintTo(const TaskKind& kind, std::ostream* out) {
    *out << kind.name;
}

constexpr size_t kTaskKinds = 12;
extern const TaskKind kTaskKindTable[kTaskKinds];  // in the order of the types

// What stands below a directory, by relative path.
using TreeState = std::map<std::string, std::string>;

struct TaskRun {
    int32_t status = 0;               // of the one final notice; TestClient::kNone: not just one
    std::vector<std::string> errors;  // log lines, warnings included
    std::vector<Call> calls;
    TreeState before;  // below in/
    TreeState in;      // and after the task
    TreeState out;
    std::string briefSize;
    TreeState slices;  // that were handed over
    int leftOpen = 0;
    bool isNextTaskDone = false;
};

// Runs tasks one after another, each on a fresh tree and with a manager of its own.
class TaskRunner {
  public:
    // Runs `body` on a thread of its own with the one runner that a process may have: the trap is
    // for good.
    static void use(const std::function<void(TaskRunner& runner)>& body);

    const std::string& root() const { return mTree.path(); }

    // Makes what the task finds and nothing else.
    void prepare(const TaskKind& kind) const;

    // Runs the task on what is there under the plan, then a small backup without one.
    TaskRun runPrepared(const TaskKind& kind, const Plan& plan);

    TaskRun run(const TaskKind& kind, const Plan& plan) {
        prepare(kind);
        return runPrepared(kind, plan);
    }

  private:
    TaskRunner();

    const TempTree mTree;
    android::host::LogCapture mLog;
};

TreeState treeStateOf(const std::string& directory, bool withTimes);

}  // namespace peltex_test
