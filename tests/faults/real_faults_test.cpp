// Faults that need no seam: a full disk, one that is read only, sources that change under the task,
// a process that is killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/faults/fault_rules.h"

namespace peltex_test {
namespace {

using namespace android::installd;

class Mount {
  public:
    Mount(const std::string& path, const std::string& options) : mPath(path) {
        EXPECT_EQ(mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()), 0) << options;
    }
    // Shows what is there at the same place again.
    explicit Mount(const std::string& path) : mPath(path) {
        EXPECT_EQ(mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0) << path;
    }
    ~Mount() { EXPECT_EQ(umount2(mPath.c_str(), MNT_DETACH), 0) << mPath; }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;

    void makeReadOnly() const {
        EXPECT_EQ(mount(nullptr, mPath.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
                  0);
    }

  private:
    const std::string mPath;
};

bool isOneOf(const TaskKind& kind, std::initializer_list<BackupTaskType> types) {
    return std::count(types.begin(), types.end(), kind.type) != 0;
}

// Checks what holds for each task, and the outcome.
void expectOutcome(const TaskKind& kind, const TaskRun& run, const TaskRun& reference,
                   Outcome outcome) {
    const Rule rule = {0, Op::kCount, "", 0, outcome, nullptr};
    check(kind, run, reference, rule, "",
          [&](const std::string& about) { ADD_FAILURE() << kind.name << ": " << about; });
}

// Runs the task with its destination on a disk of its own.
TaskRun runOnDisk(TaskRunner& runner, const TaskKind& kind, const std::string& options,
                  bool isReadOnly = false) {
    runner.prepare(kind);
    const std::string out = runner.root() + "/out";
    const bool hasTarget = exists(out + "/app");
    const uid_t owner = statOf(runner.root() + "/in").st_uid;
    makeDir(out);
    const Mount disk(out, options);
    if (hasTarget) {
        makeDir(out + "/app");
        EXPECT_EQ(chown((out + "/app").c_str(), owner, owner), 0);
    }
    if (isReadOnly) {
        disk.makeReadOnly();
    }
    return runner.runPrepared(kind, {});
}

// Archives and briefs tell of whatever did not fit; copies and restores may pass it over.
bool tellsOfFullDisk(const TaskKind& kind) {
    return isOneOf(kind, {BACKUP_TAR, BACKUP_SPLIT, GET_BRIEFS_BY_DIR, GET_BRIEFS_BY_FILE});
}

TEST(RealFaults, ADiskThatFillsUp) {
    const char* const disks[] = {"size=4k",     "size=8k",     "size=12k",    "size=32k",
                                 "size=500k",   "size=1100k",  "size=2100k",  "nr_inodes=2",
                                 "nr_inodes=3", "nr_inodes=4", "nr_inodes=6", "nr_inodes=9"};
    TaskRunner::use([&](TaskRunner& runner) {
        for (const TaskKind& kind : kTaskKindTable) {
            const TaskRun reference = runner.run(kind, {});
            for (const char* disk : disks) {
                SCOPED_TRACE(disk);
                expectOutcome(kind, runOnDisk(runner, kind, disk), reference,
                              tellsOfFullDisk(kind) ? Outcome::kEither : Outcome::kAny);
            }
            SCOPED_TRACE(kind.name);
            EXPECT_FALSE(isSameResult(runOnDisk(runner, kind, disks[0]), reference));
            EXPECT_TRUE(isSameResult(runOnDisk(runner, kind, "size=8m"), reference));
        }
    });
}

// What the archive's stream holds back is written last, when the walk has ended well.
TEST(RealFaults, ADiskThatIsFullAtTheEndOfAnArchive) {
    TaskRunner::use([](TaskRunner& runner) {
        const TaskKind& kind = kTaskKindTable[BACKUP_TAR - kTaskKindTable[0].type];
        ASSERT_EQ(kind.type, BACKUP_TAR);
        const size_t size = runner.run(kind, {}).out.at("dest/app.tar").size();
        const TaskRun run = runOnDisk(runner, kind, "size=" + std::to_string(size - 4096));
        EXPECT_EQ(run.status, -1);
        EXPECT_TRUE(holds(run.errors, "TarFile::PackDir, failed to write endup block"));
        EXPECT_EQ(run.out.count("dest/app.tar"), 0u) << "no part of an archive stays";
    });
}

TEST(RealFaults, ADestinationThatIsReadOnly) {
    TaskRunner::use([](TaskRunner& runner) {
        for (const TaskKind& kind : kTaskKindTable) {
            const TaskRun run = runOnDisk(runner, kind, "size=8m", true);
            const bool isSkipped = isOneOf(kind, {RESTORE_TAR, RESTORE_SPLIT});
            expectOutcome(kind, run, {}, isSkipped ? Outcome::kLoses : Outcome::kFails);
            EXPECT_TRUE(holds(run.errors, isSkipped ? "create file fail!skip!" : "")) << kind.name;
        }
    });
}

// Only what takes its source away needs to write there.
TEST(RealFaults, ASourceThatIsReadOnly) {
    TaskRunner::use([](TaskRunner& runner) {
        for (const TaskKind& kind : kTaskKindTable) {
            const TaskRun reference = runner.run(kind, {});
            runner.prepare(kind);
            const Mount source(runner.root() + "/in");
            source.makeReadOnly();
            expectOutcome(kind, runner.runPrepared(kind, {}), reference,
                          kind.type == MOVE_DIR ? Outcome::kFails : Outcome::kUnharmed);
        }
    });
}

// The index of the first call of the operation on the entry.
size_t indexOf(const TaskRun& run, Op op, const std::string& path) {
    const auto call = std::find_if(run.calls.begin(), run.calls.end(), [&](const Call& other) {
        return other.op == op && other.path == path;
    });
    return static_cast<size_t>(call - run.calls.begin());
}

TEST(RealFaults, AFileThatChangesUnderTheTask) {
    static std::string file;
    using Change = void (*)();
    const Change grow = [] { writeFile(file, readFile(file) + "more"); };
    const Change shrink = [] { writeFile(file, "less"); };
    const Change vanish = [] { unlink(file.c_str()); };
    const struct {
        BackupTaskType type;
        Op before;
        Change change;
        int status;
        const char* error;
    } rows[] = {
        {BACKUP_FILE, Op::kOpen, grow, 0, ""},
        {BACKUP_FILE, Op::kRead, shrink, 0, ""},
        {BACKUP_FILE, Op::kOpen, vanish, -1, "Failed to open file: "},
        {BACKUP_DIR, Op::kLstat, vanish, 0, "Failed to isDir, lstat("},
        {BACKUP_DIR, Op::kOpen, vanish, 0, "Skip inaccessible file "},
        {BACKUP_DIR, Op::kRead, grow, 0, ""},
        {BACKUP_DIR, Op::kRead, shrink, 0, ""},
        {BACKUP_DIR, Op::kStat, vanish, -1, "Failed to copyDir, write file attr: "},
        {BACKUP_BY_FILE, Op::kLstat, vanish, 0, "if_file_type_legal "},
        {BACKUP_BY_FILE, Op::kOpen, vanish, 0, "Skip inaccessible file "},
        {BACKUP_BY_FILE, Op::kStat, vanish, -1, "Failed to BackupFile, write file attr: "},
        {BACKUP_TAR, Op::kLstat, vanish, -1, "TarFile::PackDir, failed to get stat of file: "},
        {BACKUP_TAR, Op::kOpen, vanish, -1, "TarFile::PackDir, failed to open src file: "},
        {BACKUP_TAR, Op::kOpen, grow, 0, ""},
        {BACKUP_TAR, Op::kOpen, shrink, -1, "failed to read data, size: 700, real: 4"},
        {BACKUP_SPLIT, Op::kOpen, vanish, -1, "TarFile::PackDir, failed to open src file: "},
        {BACKUP_SPLIT, Op::kOpen, grow, 0, ""},
        {BACKUP_SPLIT, Op::kOpen, shrink, -1, "failed to read data, size: 700, real: 4"},
        {MOVE_DIR, Op::kRead, grow, 0, ""},
        {GET_BRIEFS_BY_DIR, Op::kLstat, vanish, 0, "Failed to isDir, lstat("},
    };
    TaskRunner::use([&](TaskRunner& runner) {
        for (const auto& row : rows) {
            const TaskKind& kind = kTaskKindTable[row.type];
            SCOPED_TRACE(std::string(kind.name) + " " + operationName(row.before));
            file = runner.root() + (row.type == BACKUP_FILE ? "/in/one.f" : "/in/app/a.f");
            const TaskRun reference = runner.run(kind, {});
            const size_t at = indexOf(reference, row.before, file);
            ASSERT_LT(at, reference.calls.size());
            const TaskRun run = runner.run(kind, {at, Op::kCount, row.change});
            EXPECT_EQ(run.status, row.status);
            EXPECT_TRUE(holds(run.errors, row.error)) << row.error;
            EXPECT_TRUE(run.isNextTaskDone);
            if (row.change == grow && isOneOf(kind, {BACKUP_TAR, BACKUP_SPLIT})) {
                EXPECT_TRUE(isSameResult(run, reference)) << "it is cut to what it was";
            }
        }
    });
}

// A directory is swapped for a link to one outside, before each call once. Nothing from there is
// packed, copied or listed, and a move deletes nothing there.
TEST(RealFaults, ADirectoryThatBecomesALink) {
    TaskRunner::use([](TaskRunner& runner) {
        for (const BackupTaskType type : {BACKUP_DIR, BACKUP_TAR, RESTORE_DIR, GET_BRIEFS_BY_DIR,
                                          GET_BRIEFS_BY_FILE, MOVE_DIR}) {
            const TaskKind& kind = kTaskKindTable[type];
            const TaskRun reference = runner.run(kind, {});
            const std::string directory =
                runner.root() + (type == RESTORE_DIR ? "/in/copy/app/w.d" : "/in/app/w.d");
            const std::string secret = runner.root() + "/secret";
            const auto swap = [&] {
                rename(directory.c_str(), (runner.root() + "/gone").c_str());
                // Fails when the walk has taken the directory away already.
                static_cast<void>(symlink(secret.c_str(), directory.c_str()) == 0);
            };
            for (size_t at = 0; at < reference.calls.size(); ++at) {
                SCOPED_TRACE(std::string(kind.name) + " " + operationName(reference.calls[at].op) +
                             " " + reference.calls[at].path);
                runner.prepare(kind);
                writeFile(secret + "/w.f", "OUTSIDE");
                writeFile(secret + "/OUTSIDE.f", "");
                const TaskRun run = runner.runPrepared(kind, {at, Op::kCount, swap});
                for (const auto& [name, entry] : run.out) {
                    EXPECT_EQ((name + entry).find("OUTSIDE"), std::string::npos) << name;
                }
                EXPECT_EQ(readFile(secret + "/w.f"), "OUTSIDE");
                if (type == BACKUP_DIR || type == RESTORE_DIR) {
                    EXPECT_EQ(run.status, 0) << "a copy passes over links";
                }
                EXPECT_TRUE(run.isNextTaskDone);
            }
        }
    });
}

// What was there, without owners and modes: a directory that was just made when the process was
// killed stays as mkdir left it.
TreeState contentsOf(TreeState entries) {
    for (auto& [name, entry] : entries) {
        entry.erase(0, entry.find('\n') + 1);
    }
    return entries;
}

// Runs the task in a process of its own. Returns the signal that has ended it, negative, or its
// exit status: 0 when the task has succeeded.
int runInProcess(TaskRunner& runner, const TaskKind& kind, const Plan& plan) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(runner.runPrepared(kind, plan).status == 0 ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

TEST(RealFaults, AProcessThatIsKilledAndTheSameCommandInTheNextOne) {
    constexpr size_t kStep = 9;
    TaskRunner::use([](TaskRunner& runner) {
        const std::string out = runner.root() + "/out";
        for (const TaskKind& kind : kTaskKindTable) {
            runner.prepare(kind);
            EXPECT_EQ(runInProcess(runner, kind, {}), 0);
            const TreeState whole = contentsOf(treeStateOf(out, false));
            for (size_t at = 0;; at += kStep) {
                SCOPED_TRACE(std::string(kind.name) + " " + std::to_string(at));
                runner.prepare(kind);
                const int end =
                    runInProcess(runner, kind, {at, Op::kCount, [] { kill(getpid(), SIGKILL); }});
                if (end != -SIGKILL) {
                    EXPECT_EQ(end, 0) << "it has no more calls";
                    break;
                }
                if (!exists(runner.root() + "/" + kind.source)) {
                    continue;  // of a move that had nothing left to do
                }
                const bool isSliceGone =
                    kind.type == RESTORE_SPLIT && !exists(runner.root() + "/in/app.tar.0");
                EXPECT_EQ(runInProcess(runner, kind, {}), isSliceGone ? 1 : 0);
                EXPECT_TRUE(isSliceGone || contentsOf(treeStateOf(out, false)) == whole);
            }
        }
    });
}

}  // namespace
}  // namespace peltex_test
