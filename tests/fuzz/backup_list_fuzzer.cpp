// The backup by file list. Input: the list. It may name whatever is there, copies and records of
// its own included.
//
// What follows the application's name in a path is taken as it stands, so a list with "../" copies
// to elsewhere; any other one changes nothing outside the destination.
#include "service/backup_session_manager.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/sentinel.h"
#include "tests/fuzz/support/target.h"

namespace peltex_fuzz {

using namespace android::installd;
using android::sp;

namespace {

constexpr char kList[] = "/data/list";
constexpr char kDestination[] = "/data/out/app";

Sentinel* gSentinel;
BackupSessionManager* gManager;

void makeRoot() {
    emptyDir("/");
    for (const char* dir : {"/data", "/data/app", "/data/app/d", "/data/app/app", "/data/out"}) {
        makeDir(dir);
    }
    for (const char* file : {"/data/app/a", "/data/app/d/b", "/data/app/app/app", "/data/app/;app",
                             "/data/app/d/x.dex", "/data/keep", "/keep"}) {
        writeFile(file, file);
    }
    makeLink("d", "/data/app/link");
    writeFile(kList, "");
    makeDir(kDestination);
    delete gSentinel;
    gSentinel = new Sentinel({"/", "/keep", "/data", "/data/keep", "/data/app", "/data/app/a",
                              "/data/app/d", "/data/app/d/b", "/data/out"});
}

}  // namespace

void prepare() {
    gManager = new BackupSessionManager();
    gManager->incStrong(gManager);
    makeRoot();
}

void runInput(const std::string& input) {
    writeFile(kList, input);
    const std::string words[kCommandWords] = {"backup",  "byfile", kList, kDestination,
                                              "default", "10123",  ""};
    const sp<BackupTask> task = new BackupTask(100, 101, BACKUP_BY_FILE, nullptr, words);
    gManager->BackupByFileBase(task);
    if (input.find("../") != std::string::npos) {
        makeRoot();
        return;
    }
    gSentinel->check();
    emptyDir(kDestination);
}

}  // namespace peltex_fuzz
