#include "fileops/copy.h"
#include "fileops/create_dir.h"
#include "fileops/delete.h"
#include "fileops/relabel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/relabel_observer.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "base/permissions.h"
#include "tests/support/log_lines.h"
#include "tests/support/task_maker.h"
#include "tests/support/test_files.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using android::sp;
using Lines = std::vector<std::string>;

class FileOperationsTest : public testing::Test {
  protected:
    sp<BackupTask> task(BackupTaskType type = BACKUP_DIR) {
        return makeTask(type, tree / "from", tree / "to", client);
    }
    int copyTree(sp<BackupTask> copy) {
        return copyDir((tree / "from").c_str(), (tree / "to").c_str(), nullptr, copy);
    }
    Lines errors() const { return messagesOf(log, ANDROID_LOG_ERROR); }
    Lines warnings() const { return messagesOf(log, ANDROID_LOG_WARN); }

    TempTree tree;
    const sp<TestClient> client = new TestClient();
    android::host::LogCapture log;
};

TEST_F(FileOperationsTest, CreateDirMakesAndOwnsWhatIsMissingOnly) {
    makeDir(tree / "a", 0700);
    EXPECT_EQ(createDir((tree / "a/b/c").c_str(), 10123), 0);
    EXPECT_EQ(ownerAndMode(tree / "a"), "0:0 700");
    EXPECT_EQ(ownerAndMode(tree / "a/b"), "10123:10123 771");
    EXPECT_EQ(ownerAndMode(tree / "a/b/c"), "10123:10123 771");
    EXPECT_EQ(createDir("/", 10123), 0);
    EXPECT_EQ(createDir("", 10123), -1);
    writeFile(tree / "file", "x");
    EXPECT_EQ(createDir((tree / "file/x").c_str(), 10123), -1);
    EXPECT_EQ(errors(),
              (Lines{"Failed to createDir:path is NULL or length of path is 0",
                     "Failed to mkdir(" + (tree / "file/x") + "), error=Not a directory"}));
}

TEST_F(FileOperationsTest, CreateDirWarnsOnceOfDepth) {
    const std::string ten = tree / "4/5/6/7/8/9/10";  // /data/data/NAME are the first three
    EXPECT_EQ(createDir(ten.c_str(), 0), 0);
    EXPECT_TRUE(warnings().empty());
    EXPECT_EQ(createDir((ten + "/11/12/13").c_str(), 0), 0);
    EXPECT_EQ(warnings(), Lines{"monitor dir(" + ten + "/11/12/13) depth longer than 10."});
    EXPECT_EQ(createDir((tree.path() + std::string(3000, '/')).c_str(), 0), 0);
}

TEST_F(FileOperationsTest, CopyFilePicksItsTarget) {
    writeFile(tree / "from", "content", 0600);
    makeDir(tree / "dir");
    writeFile(tree / "old", "old and longer than the new");
    const struct {
        const char* to;
        const char* target;
    } rows[] = {{"dir", "dir/from"}, {"old", "old"}, {"new", "new"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.to);
        EXPECT_EQ(copyFile((tree / "from").c_str(), (tree / row.to).c_str(), task()), 0);
        EXPECT_EQ(readFile(tree / row.target), "content");
        EXPECT_EQ(ownerAndMode(tree / row.target), "10123:10123 771");
    }
    EXPECT_TRUE(errors().empty());
}

TEST_F(FileOperationsTest, CopyFileSaysWhatItCouldNotOpen) {
    writeFile(tree / "from", "x");
    const std::string from = tree / "from";
    EXPECT_EQ(copyFile((tree / "none").c_str(), (tree / "to").c_str(), task()), -1);
    EXPECT_EQ(copyFile(from.c_str(), (tree / "none/to").c_str(), task()), -1);
    EXPECT_EQ(copyFile(tree.path().c_str(), (tree / "to").c_str(), task()), -1);
    EXPECT_EQ(copyFile("", from.c_str(), task()), -1);
    EXPECT_EQ(
        errors(),
        (Lines{"Failed to copyFile file: " + (tree / "none") + ", error=No such file or directory",
               "Failed to open file: " + (tree / "none/to") + ", error=No such file or directory",
               "Failed to read file: " + tree.path() + ", error=Is a directory",
               "Failed to copyFile file:path is NULL or length of path is 0"}));
    EXPECT_EQ(readFile(tree / "to"), "") << "the target of a failed copy stays";
}

TEST_F(FileOperationsTest, CopyFileReadsWhatCannotSeek) {
    makeFifo(tree / "from");
    std::thread writer([this] { writeFile(tree / "from", "through a pipe"); });
    EXPECT_EQ(copyFile((tree / "from").c_str(), (tree / "to").c_str(), task()), 0);
    writer.join();
    EXPECT_EQ(readFile(tree / "to"), "through a pipe");
}

TEST_F(FileOperationsTest, ProgressIsToldAtSteps) {
    writeFile(tree / "from", std::string(81920 * 2 + 100, 'x'));
    const sp<BackupTask> copy = task();
    EXPECT_EQ(copyFile((tree / "from").c_str(), (tree / "to").c_str(), copy), 0);
    EXPECT_EQ(client->statusesOf(101), (Lines{"3 81920", "3 163840"}));
    EXPECT_EQ(copy->task_copy_len, 81920u * 2 + 100);
    EXPECT_EQ(copyFile((tree / "from").c_str(), (tree / "to").c_str(), copy), 0);
    EXPECT_EQ(client->statusesOf(101), (Lines{"3 81920", "3 163840", "3 245860", "3 327780"}))
        << "the total is the task's, in reads of 8192 bytes";
}

TEST_F(FileOperationsTest, CopyDirTakesFilesAndDirectoriesOnly) {
    writeFile(tree / "from/a/file", "1");
    writeFile(tree / "from/lib/native.so", "2");
    writeFile(tree / "from/a/lib/data", "3");
    writeFile(tree / "from/classes.dex", "4");
    makeDir(tree / "from/empty");
    makeLink("a", tree / "from/link");
    makeFifo(tree / "from/fifo");
    makeSocket(tree / "from/socket");
    EXPECT_EQ(copyTree(task()), 0);
    EXPECT_EQ(listTree(tree / "to"), (Lines{"a/", "a/file", "a/lib/", "a/lib/data", "empty/"}));
    for (const char* name : {"to", "to/a", "to/a/file", "to/empty"}) {
        EXPECT_EQ(ownerAndMode(tree / name), "10123:10123 771") << name;
    }
    EXPECT_EQ(copyTree(task(RESTORE_DIR)), 0);
    EXPECT_TRUE(exists(tree / "to/lib/native.so")) << "only a backup leaves lib out";
}

TEST_F(FileOperationsTest, CopyDirWritesARecordAfterEachEntry) {
    writeFile(tree / "from/dir/file", "12345", 0640);
    chmod((tree / "from/dir").c_str(), 01755);
    FILE* records = fopen((tree / "records").c_str(), "we");
    sp<BackupTask> copy = task();
    EXPECT_EQ(copyDir((tree / "from").c_str(), (tree / "to").c_str(), records, copy), 0);
    fclose(records);
    const struct stat file = statOf(tree / "from/dir/file");
    const struct stat dir = statOf(tree / "from/dir");
    EXPECT_EQ(readFile(tree / "records"),
              (tree / "from/dir/file") + ";416;0;5;" + std::to_string(file.st_mtime) + "\n" +
                  (tree / "from/dir") + ";1005;1;" + std::to_string(dir.st_size) + ";" +
                  std::to_string(dir.st_mtime) + "\n");
}

TEST_F(FileOperationsTest, CopyDirSkipsFilesThatResolveElsewhere) {
    writeFile(tree / "outside", "untouched");
    writeFile(tree / "from/file", "x");
    makeDir(tree / "to");
    makeLink(tree / "outside", tree / "to/file");
    sp<BackupTask> copy = task();
    std::string realTo = tree / "to";
    copy->realDestPath = realTo.data();
    EXPECT_EQ(copyDir((tree / "from").c_str(), realTo.c_str(), nullptr, copy), 0);
    EXPECT_EQ(warnings(), Lines{"Skip copy file because path is invalid, frompath: " +
                                (tree / "from/file") + ", topath: " + (tree / "to/file")});
    EXPECT_EQ(readFile(tree / "outside"), "untouched");
}

TEST_F(FileOperationsTest, CopyDirEndsAtATargetThatIsThereAndCannotBeFilled) {
    writeFile(tree / "from/file", "x");
    makeDir(tree / "to/file/file");
    EXPECT_EQ(copyTree(task()), -1);
    EXPECT_EQ(errors().back(), "Failed to copyDir, copyFile(" + (tree / "from/file") + ") error");
}

TEST_F(FileOperationsTest, AMoveRemovesAsItCopies) {
    writeFile(tree / "from/dir/file", "x");
    makeLink("x", tree / "from/kept/link");
    EXPECT_EQ(copyTree(task(MOVE_DIR)), 0);
    EXPECT_EQ(listTree(tree / "from"), (Lines{"kept/", "kept/link"}));
    EXPECT_EQ(listTree(tree / "to"), (Lines{"dir/", "dir/file", "kept/"}));
    const Lines debug = messagesOf(log, ANDROID_LOG_DEBUG);
    EXPECT_EQ(debug, Lines{"Failed to delete the Dir after copydir, deleteDir(" +
                           (tree / "from/kept") + ")"});
}

// The deepest tree that 2047 bytes can name: the walk goes as far as it can name entries, and ends.
TEST_F(FileOperationsTest, WalksEndWherePathsNoLongerFit) {
    std::string path = tree / "from";
    makeDir(path);
    ASSERT_EQ(chdir(path.c_str()), 0);
    while (path.size() < 2100) {
        const std::string name(path.size() + 101 < 2045 ? 100 : 1, 'd');
        path += "/" + name;
        ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
    }
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(copyTree(task()), -1);
    EXPECT_TRUE(exists(tree / "to"));
    EXPECT_EQ(deleteDir((tree / "from").c_str()), -1) << "what cannot be named stays";
}

// An application that takes a lease on its file must not get it left out, let alone moved away.
TEST_F(FileOperationsTest, WaitsForALeaseToBeGivenUp) {
    writeFile(tree / "from/leased", "content");
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
        const int fd = open((tree / "from/leased").c_str(), O_RDWR);
        const char told = fcntl(fd, F_SETLEASE, F_WRLCK) == 0 ? 'y' : 'n';
        if (write(ready[1], &told, 1) == 1 && told == 'y') {
            pause();
        }
        _exit(0);
    }
    char told = '\0';
    ASSERT_EQ(read(ready[0], &told, 1), 1);
    EXPECT_EQ(told, 'y');
    EXPECT_EQ(copyTree(task(MOVE_DIR)), 0);
    EXPECT_EQ(readFile(tree / "to/leased"), "content");
    int status = 0;
    EXPECT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_EQ(WTERMSIG(status), SIGIO) << "the kernel asks its holder to give it up, which ends it";
    close(ready[0]);
    close(ready[1]);
}

TEST_F(FileOperationsTest, DeleteDirLeavesLinksAndWhatIsAboveThem) {
    writeFile(tree / "from/a/file", "x");
    EXPECT_EQ(deleteDir((tree / "from").c_str()), 0);
    EXPECT_FALSE(exists(tree / "from"));
    EXPECT_EQ(deleteDir((tree / "from").c_str()), 0);
    EXPECT_EQ(deleteDir(nullptr), 0);
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_DEBUG),
              (Lines{"BackupSessionManager deleteDir, " + (tree / "from") + " not exists",
                     "BackupSessionManager deleteDir, path is NULL or length of path is 0"}));

    writeFile(tree / "target/file", "x");
    makeLink(tree / "target", tree / "from/sub/link");
    EXPECT_EQ(deleteDir((tree / "from").c_str()), -1);
    EXPECT_TRUE(exists(tree / "target/file"));
    EXPECT_EQ(errors(), (Lines{"Failed to isDir S_ISLNK:" + (tree / "from/sub/link"),
                               "Failed to deleteDir, remove(" + (tree / "from/sub") + ") error",
                               "Failed to deleteDir, deleteDir(" + (tree / "from/sub") + ") error",
                               "Failed to deleteDir, remove(" + (tree / "from") + ") error"}));
}

TEST_F(FileOperationsTest, RelabellingFailuresDoNotFailATask) {
    Lines calls;
    const android::host::ScopedRelabelObserver observer(
        [&](const char* path, const char* seInfo, uid_t uid, unsigned int flags) {
            calls.push_back(std::string(path) + " " + seInfo + " " + std::to_string(uid) + " " +
                            std::to_string(flags));
            return EACCES;
        });
    makeDir(tree / "to");
    EXPECT_EQ(prepare_data_backuped_for_task(task()), 0);
    EXPECT_EQ(calls, Lines{(tree / "to") + " default 10123 4"});
    EXPECT_EQ(
        prepare_data_backuped_for_task(makeTask(BACKUP_DIR, "a", tree / "to", client, "0", "")),
        -1);
    EXPECT_EQ(prepare_data_backuped_for_task(nullptr), -1);
    EXPECT_EQ(errors(),
              (Lines{"Failed to recursive restorecon for " + (tree / "to") +
                         " , uid(10123), se_info(default), error [Permission denied]\n",
                     "prepare_data_backuped_for_task failed, restorecon_backup_dir error!  ignore "
                     "that.",
                     "prepare_data_backuped_for_task failed, se_info is null!",
                     "prepare_data_backuped_for_task failed, task is null!"}));
}

TEST_F(FileOperationsTest, FixupSetsModeThenOwner) {
    writeFile(tree / "file", "x");
    EXPECT_EQ(fixup_permissions_dir_file((tree / "file").c_str(), 10123, 10124, 0660), 0);
    EXPECT_EQ(ownerAndMode(tree / "file"), "10123:10124 660");
    EXPECT_EQ(fixup_permissions_dir_file((tree / "none").c_str(), 1, 1, 0660), -1);
    EXPECT_EQ(fixup_permissions_dir_file(nullptr, 1, 1, 0660), -1);
    EXPECT_EQ(errors(),
              (Lines{"Failed to chmod (" + (tree / "none") + "), error=No such file or directory",
                     "fixup_backup_dir_file, path is NULL or length of path is 0"}));
}

}  // namespace
}  // namespace peltex_test
