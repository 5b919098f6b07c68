// Command lines into sessions, carried out by the workers. Input: a line of answers, then lines:
//
//   +       opens a session with a new client, =  with the present one; either is then the present
//   -       finishes the present session; the one opened before it is then the present
//   !       the present client dies
//   .       answers split backups that wait, until none does
//   other   a command to the present session; with & before it, the next line does not wait until
//           the workers have come to rest
//
// The answers are taken one by one: 'c' continues, 'k' keeps alive, 'a' aborts, 'f' finishes the
// session; anything else, and the end of the line, lets the wait time out.
//
// What commands may reach by design is what lies in the allowed areas, what is above
// one of them by a trailing "/..", and what a link leads to that they name.
#include <time.h>
#include <unistd.h>

#include <map>
#include <set>
#include <vector>

#include "service/backup_session_manager.h"
#include "tar/tar_file.h"
#include "tests/fuzz/support/archive_input.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/jail.h"
#include "tests/fuzz/support/sentinel.h"
#include "tests/fuzz/support/streams.h"
#include "tests/fuzz/support/target.h"
#include "tests/fuzz/support/waits.h"
#include "tests/support/test_client.h"

namespace peltex_fuzz {

using namespace android::installd;
using android::sp;
using peltex_test::Status;
using peltex_test::TestClient;

namespace {

constexpr off_t kMoreThanASlice = 1100000;
constexpr size_t kMostLines = 40;

Sentinel* gSentinel;
std::map<std::string, std::string> gArchives;  // by path

void makeAreas() {
    for (const char* dir :
         {"/system", "/data", "/data/data", "/data/data/app", "/data/data/app/d",
          "/data/data/app/lib", "/data/data/in", "/data/data/in/app", "/data/data/in/app/d",
          "/data/data/out", "/data/data/big", "/data/user", "/data/misc", "/data/misc/wifi", "/mnt",
          "/mnt/androidwritable", "/storage", "/storage/emulated"}) {
        makeDir(dir);
    }
    for (const char* file :
         {"/keep", "/system/keep", "/data/keep", "/data/data/app/a", "/data/data/app/b.dex",
          "/data/data/app/d/c", "/data/data/app/lib/x", "/data/data/in/app/a",
          "/data/data/in/app/d/c", "/data/user/u", "/data/misc/wifi/w", "/storage/emulated/s"}) {
        writeFile(file, file);
    }
    makeLink("/system/keep", "/data/data/app/lnk");
    makeLink("/system", "/data/data/app/lnkdir");
    writeFile("/data/data/big/f", "");
    if (truncate("/data/data/big/f", kMoreThanASlice) != 0) {
        fail("truncate");
    }
    writeFile("/data/data/in/app.txt", "/data/data/app/a;384;0;16;1\n/data/data/app/d;448;1;0;1\n");
    writeFile("/data/data/in/list", "/data/data/app/a;384;0;16;1\n/data/data/app/d;448;1;0;1\n");
    writeFile("/data/data/in/search", "[include]/data/data/app\n[exclude]/data/data/app/d\n");
}

// Archives of the application as the library makes them.
void packApplication() {
    AbortingCallBack callBack;
    std::string words[TarFile::kSplitArguments] = {"", "", "", "", "1", "default", "0"};
    if (!TarFile(&callBack).PackDir("/data/data/app", "/data/data/in/app.tar") ||
        !TarFile(&callBack, 0).PackSplitDir("/data/data/app", "/data/data/in/set.tar", words, 0)) {
        fail("the target's own archives");
    }
    for (const char* name : {"app.tar", "set.tar.0", "set.tar.txt"}) {
        const std::string path = std::string("/data/data/in/") + name;
        gArchives[path] = readFile(path);
    }
}

void makeRoot() {
    emptyDir("/");
    makeAreas();
    for (const auto& archive : gArchives) {
        writeFile(archive.first, archive.second);
    }
    delete gSentinel;
    gSentinel = new Sentinel({"/", "/keep", "/system", "/system/keep", "/data/keep"});
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size() && lines.size() < kMostLines;) {
        const size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end - at));
        at = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

class Run {
  public:
    Run() { line("+"); }

    void answers(const std::string& answers) { mAnswers = answers; }

    void line(const std::string& line) {
        const bool isOne = line.size() == 1;
        if (isOne && line[0] == '+') {
            mClients.push_back(new TestClient());
            open();
        } else if (isOne && line[0] == '=') {
            open();
        } else if (isOne && line[0] == '-') {
            finish();
        } else if (isOne && line[0] == '!') {
            mClients.back()->binder()->notifyDeath();
        } else if (isOne && line[0] == '.') {
            answerAll();
        } else if (!line.empty() && line[0] == '&') {
            execute(present(), line.substr(1));
            return;
        } else {
            execute(present(), line);
        }
        settle();
    }

    // Ends what waits.
    void answerAll() {
        for (settle(); isTimedWaiting(); settle()) {
            answer();
        }
    }

    bool hasRun() const { return !mTasks.empty(); }
    size_t briefs() const { return mBriefs; }

  private:
    struct Sent {
        int32_t session;
        std::string line;
    };

    int32_t present() const { return mSessions.empty() ? 0 : mSessions.back(); }

    void open() { mSessions.push_back(mManager->startBackupSession(mClients.back())); }

    void finish() {
        mManager->finishBackupSession(present());
        if (!mSessions.empty()) {
            mSessions.pop_back();
        }
    }

    void execute(int32_t session, const std::string& line) {
        const std::string words = line;  // which are separated in place
        const int32_t result = mManager->executeBackupTask(session, words);
        if (result >= 100) {
            mTasks.insert({result, {session, line}});
            mBriefs += line.find("get_brief") == std::string::npos ? 0 : 1;
        }
    }

    void answer() {
        const char answer = mAnswers.empty() ? '\0' : mAnswers[0];
        mAnswers.erase(0, 1);
        const int32_t task = waitingTask();
        const Sent& sent = mTasks.at(task);
        if (answer == 'c') {
            execute(sent.session, sent.line);
        } else if (answer == 'k') {
            execute(sent.session, "keepalive");
        } else if (answer == 'a') {
            execute(sent.session, "abort " + std::to_string(task));
        } else if (answer == 'f') {
            mManager->finishBackupSession(sent.session);
        } else {
            lapseTimedWaits();
        }
    }

    // The first task that has told of a slice and not of its end. Of one task several clients may
    // hear, so what they were told has no order among them.
    int32_t waitingTask() const {
        std::set<int32_t> packing;
        std::set<int32_t> ended;
        for (const sp<TestClient>& client : mClients) {
            for (const Status& status : client->statuses()) {
                if (status.code == TASK_STATUS_SLICE_PACKAGED) {
                    packing.insert(status.task);
                } else if (status.isFinal()) {
                    ended.insert(status.task);
                }
            }
        }
        for (const int32_t task : packing) {
            if (ended.count(task) == 0) {
                return task;
            }
        }
        fail("a worker waits that has told nobody of a slice");
    }

    // Until every worker waits or has ended. Who waits is woken by this thread alone, so the order
    // of the two questions matters.
    void settle() const {
        constexpr timespec kStep = {0, 10000};
        while (waitingThreads() != static_cast<size_t>(mManager->checkIsRunning())) {
            nanosleep(&kStep, nullptr);
        }
    }

    const sp<BackupSessionManager> mManager = new BackupSessionManager();
    std::string mAnswers;
    std::vector<int32_t> mSessions;
    std::vector<sp<TestClient>> mClients;
    std::map<int32_t, Sent> mTasks;
    size_t mBriefs = 0;
};

}  // namespace

void prepare() {
    makeAreas();
    packApplication();
    makeRoot();
}

void runInput(const std::string& input) {
    size_t briefs = 0;
    bool hasRun = false;
    {
        Run run;
        const std::vector<std::string> lines = linesOf(input);
        for (size_t i = 0; i < lines.size(); ++i) {
            if (i == 0) {
                run.answers(lines[0]);
            } else {
                run.line(lines[i]);
            }
        }
        run.answerAll();
        briefs = run.briefs();
        hasRun = run.hasRun();
    }
    resetWaits();
    // A brief of a directory leaves its stream open.
    if (const size_t streams = closeOpenStreams(); streams > briefs) {
        fail("%zu streams stayed open", streams - briefs);
    }
    if (input.find("lnk") == std::string::npos && input.find("/..") == std::string::npos) {
        gSentinel->check();
    }
    if (hasRun) {
        makeRoot();
    }
}

}  // namespace peltex_fuzz
