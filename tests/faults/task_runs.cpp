#include "tests/faults/task_runs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "tests/support/fast_waits.h"
#include "tests/support/log_lines.h"
#include "tests/support/tar_builder.h"

namespace fs = std::filesystem;

namespace peltex_test {

using namespace android::installd;

namespace {

constexpr uid_t kOwner = 10001;
constexpr char kUid[] = "10123";
constexpr size_t kMiB = 1u << 20;

// No block of it is like another.
std::string content(size_t size) {
    std::string text;
    while (text.size() < size) {
        const auto letter = static_cast<char>('a' + text.size() % 23);
        text += std::to_string(text.size()) + std::string(500, letter) + "\n";
    }
    text.resize(size);
    return text;
}

std::string longName(char letter, const char* suffix) {
    return std::string(245, letter) + suffix;
}

// A tree whose records fill a stream's buffer more than once.
void makeApp(const std::string& app) {
    writeFile(app + "/a.f", content(700), 0640);
    writeFile(app + "/empty.f", "");
    makeDir(app + "/e.d", 0700);
    writeFile(app + "/w.d/w.f", "inside");
    std::string directory = app;
    for (const char letter : {'x', 'y', 'z'}) {
        directory += "/" + longName(letter, ".d");
        makeDir(directory);
    }
    for (const char letter : {'p', 'q', 'r'}) {
        writeFile(directory + "/" + longName(letter, ".f"), content(9000));
    }
}

void makeAppWithLinks(const std::string& root) {
    makeApp(root + "/in/app");
    makeLink("a.f", root + "/in/app/s.l");
    makeLink(longName('t', ""), root + "/in/app/t.l");
}

void makeFile(const std::string& root) {
    writeFile(root + "/in/one.f", content(20000));
}

void makeLargeApp(const std::string& root) {
    makeAppWithLinks(root);
    writeFile(root + "/in/app/big.f", content(2 * kMiB + 700));
}

void makeTarredApp(const std::string& root) {
    makeAppWithLinks(root);
    writeFile(root + "/in/app/big.f", content(kMiB / 2 + 90000));
}

void makeMovedApp(const std::string& root) {
    makeApp(root + "/in/app");
}

// The record of each entry of `app`, with `path` for its path.
std::string recordsOf(const std::string& app, const std::string& path) {
    std::string records;
    for (const auto& entry : fs::recursive_directory_iterator(app)) {
        if (!entry.is_symlink()) {
            records += path + entry.path().string().substr(app.size()) + ";416;" +
                       (entry.is_directory() ? "1" : "0") + ";1;1\n";
        }
    }
    return records;
}

void makeCopiedApp(const std::string& root) {
    makeApp(root + "/in/copy/app");
    writeFile(root + "/in/copy/app.txt", recordsOf(root + "/in/copy/app", root + "/out/app"));
}

void makeListedApp(const std::string& root) {
    makeAppWithLinks(root);
    writeFile(root + "/in/list.txt", recordsOf(root + "/in/app", root + "/in/app"));
}

void makeSearchedApp(const std::string& root) {
    makeAppWithLinks(root);
    makeFile(root);
    writeFile(root + "/in/search.txt", "[include]" + root + "/in/app\n[include]" + root +
                                           "/in/one.f\n[exclude]" + root + "/in/app/e.d\n");
}

std::string owned(Header header) {
    return header.owner(kOwner, kOwner).bytes();
}

std::string file(char type, const std::string& name, const std::string& data) {
    return owned(Header(type, name, data.size()).mode(0640)) + padded(data);
}

void makeArchive(const std::string& root) {
    makeDir(root + "/out/app");
    const std::string name = longName('x', ".f");
    writeFile(root + "/in/app.tar",
              owned(Header('5', "e.d/").mode(0700)) + file('0', "a.f", content(700)) +
                  file('0', "e.d/big.f", content(kMiB / 2 + 9000)) +
                  file('0', "missing.d/b.f", content(600)) + longRecord('L', "e.d/" + name) +
                  file('0', ("e.d/" + name).substr(0, 99), content(5000)) +
                  longRecord('K', longName('t', "")) +
                  owned(Header('2', "t.l").link(longName('t', "").substr(0, 99))) +
                  file('0', "empty.f", "") + kEndBlocks);
}

void makeSlices(const std::string& root) {
    makeDir(root + "/out/app");
    const std::string big = content(100000);
    const std::string slices[] = {
        file('0', "a.f", content(700)) + file('8', "big.f", big.substr(0, 51200)) + kEndBlocks,
        file('A', "big.f", big.substr(51200)) + owned(Header('5', "e.d/").mode(0700)) + kEndBlocks};
    std::string lines;
    for (const std::string& slice : slices) {
        const std::string name = "app.tar." + std::to_string(&slice - slices);
        writeFile(root + "/in/" + name, slice);
        lines += name + "|" + std::to_string(slice.size()) + "\n";
    }
    writeFile(root + "/in/app.txt", lines);
}

// Archives and records hold times and owners, so these are the same in every run.
void settle(const std::string& directory) {
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        const char* path = entry.path().c_str();
        EXPECT_EQ(lchown(path, kOwner, kOwner), 0) << path;
        const timespec times[2] = {{1700000000, 0}, {1700000000, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, path, times, AT_SYMLINK_NOFOLLOW), 0) << path;
    }
}

int openDescriptors() {
    const fs::directory_iterator descriptors("/proc/self/fd");
    return static_cast<int>(std::distance(begin(descriptors), end(descriptors)));
}

struct Service {
    const android::sp<TestClient> client = new TestClient();
    const android::sp<BackupSessionManager> manager = new BackupSessionManager();
    const int32_t session = manager->startBackupSession(client);

    int32_t execute(const std::string& line) const {
        return manager->executeBackupTask(session, std::string(line));
    }
};

std::string lineOf(const TaskKind& kind, const std::string& root) {
    return std::string(kind.command) + " " + root + "/" + kind.source + " " + root + "/" +
           kind.destination + (kind.type == BACKUP_SPLIT ? " 1 default " : " default ") + kUid;
}

// Continues a split backup whenever it has come to a pause. Returns the task's id.
int32_t runTask(const Service& service, const TaskKind& kind, const std::string& line) {
    int waits = waitsBegun();
    const int32_t task = service.execute(line);
    const auto hasEnded = [&] {
        return service.client->waitFor(task, TestClient::kFinal, std::chrono::seconds(0)) !=
               TestClient::kNone;
    };
    while (kind.type == BACKUP_SPLIT && !hasEnded()) {
        if (waitsBegun() > waits) {
            ++waits;
            EXPECT_EQ(service.execute(line), task);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    service.client->waitForEnd(task);
    return task;
}

bool runProbe(const Service& service, const std::string& root) {
    writeFile(root + "/probe", "probe");
    const int32_t task =
        service.execute("backup file " + root + "/probe " + root + "/probed default 0");
    return service.client->waitForEnd(task) == 0 && readFile(root + "/probed/probe") == "probe";
}

// What the client was told of the task.
void readStatuses(const std::vector<Status>& statuses, int32_t task, TaskRun& run) {
    run.status = TestClient::kNone;
    int finals = 0;
    for (const Status& status : statuses) {
        if (status.task != task) {
            continue;
        }
        if (status.isFinal()) {
            run.status = ++finals == 1 ? status.code : TestClient::kNone;
        } else if (status.code == TASK_STATUS_BRIEF_SIZE) {
            run.briefSize = status.message;
        } else if (status.code == TASK_STATUS_SLICE_PACKAGED && status.message != "end") {
            const std::string path = status.message.substr(0, status.message.find('|'));
            run.slices[path.substr(path.rfind('/') + 1)] = readFile(path);
        }
    }
}

}  // namespace

const TaskKind kTaskKindTable[kTaskKinds] = {
    {BACKUP_FILE, "backup file", "backup file", "in/one.f", "out/dest", makeFile},
    {BACKUP_DIR, "backup dir", "backup dir", "in/app", "out/dest", makeAppWithLinks},
    {BACKUP_TAR, "backup tar", "backup tar", "in/app", "out/dest", makeTarredApp},
    {BACKUP_SPLIT, "backup split", "backup split", "in/app", "out/dest", makeLargeApp},
    {RESTORE_FILE, "restore file", "restore file", "in/one.f", "out/dest", makeFile},
    {RESTORE_DIR, "restore dir", "restore dir", "in/copy", "out/app", makeCopiedApp},
    {RESTORE_TAR, "restore tar", "restore tar", "in/app.tar", "out/app", makeArchive},
    {RESTORE_SPLIT, "restore split", "restore split", "in/app.txt", "out/app", makeSlices},
    {MOVE_DIR, "move", "move dir", "in/app", "out/app", makeMovedApp},
    {BACKUP_BY_FILE, "by file", "backup byfile", "in/list.txt", "out/app", makeListedApp},
    {GET_BRIEFS_BY_DIR, "brief dir", "get_brief dir", "in/app", "out/brief.txt", makeAppWithLinks},
    {GET_BRIEFS_BY_FILE, "brief by file", "get_brief byfile", "in/search.txt", "out/brief.txt",
     makeSearchedApp},
};

TreeState treeStateOf(const std::string& directory, bool withTimes) {
    TreeState entries;
    if (!exists(directory)) {
        return entries;
    }
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        const std::string path = entry.path();
        const struct stat status = statOf(path);
        std::string& text = entries[path.substr(directory.size() + 1)];
        text = ownerAndMode(path) + " " + std::to_string(status.st_mode & S_IFMT);
        if (withTimes) {
            text += " " + std::to_string(status.st_mtim.tv_sec) + "." +
                    std::to_string(status.st_mtim.tv_nsec);
        }
        text += "\n" + (entry.is_symlink()        ? fs::read_symlink(path).string()
                        : entry.is_regular_file() ? readFile(path)
                                                  : "");
    }
    return entries;
}

void TaskRunner::use(const std::function<void(TaskRunner& runner)>& body) {
    std::thread([&body] {
        TaskRunner runner;
        body(runner);
    }).join();
}

TaskRunner::TaskRunner() {
    installCallTrap(root());
}

void TaskRunner::prepare(const TaskKind& kind) const {
    for (const auto& entry : fs::directory_iterator(root())) {
        fs::remove_all(entry);
    }
    kind.prepare(root());
    settle(root());
}

TaskRun TaskRunner::runPrepared(const TaskKind& kind, const Plan& plan) {
    TaskRun run;
    run.before = treeStateOf(root() + "/in", true);
    mLog.clear();
    const Service service;
    const int descriptors = openDescriptors();
    setPlan(plan);
    const int32_t task = runTask(service, kind, lineOf(kind, root()));
    run.calls = endPlan();
    run.leftOpen = openDescriptors() - descriptors;
    for (const int priority : {ANDROID_LOG_ERROR, ANDROID_LOG_WARN}) {
        for (std::string& line : messagesOf(mLog, priority)) {
            run.errors.push_back(std::move(line));
        }
    }
    run.in = treeStateOf(root() + "/in", true);
    run.out = treeStateOf(root() + "/out", false);
    run.isNextTaskDone = runProbe(service, root());
    readStatuses(service.client->statuses(), task, run);
    return run;
}

}  // namespace peltex_test
