#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/handler_test.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using android::sp;
using Lines = std::vector<std::string>;

class CopyHandlersTest : public HandlerTest {
  protected:
    // Runs the handler of the type as the task loop does, between two names under the tree.
    int32_t run(BackupTaskType type, const std::string& from, const std::string& to,
                const std::string& seInfo = "default") {
        sp<BackupTask> task = makeTask(type, pathOf(from), pathOf(to), client, "10123", seInfo);
        return manager->processTask(task);
    }
};

TEST_F(CopyHandlersTest, AFileGoesIntoItsDestinationDirectory) {
    writeFile(tree / "file", "content");
    EXPECT_EQ(run(BACKUP_FILE, "file", "a/b"), 0);
    EXPECT_EQ(readFile(tree / "a/b/file"), "content");
    EXPECT_EQ(ownerAndMode(tree / "a/b"), "10123:10123 771");
    EXPECT_EQ(listTree(tree / "a"), (Lines{"b/", "b/file"})) << "no record of a single file";
    EXPECT_EQ(relabelled, Lines{(tree / "a/b") + " default 10123"});
    EXPECT_EQ(run(RESTORE_FILE, "a/b/file", "c"), 0);
    EXPECT_EQ(ownerAndMode(tree / "c/file"), "10123:10123 771");
    EXPECT_EQ(relabelled.size(), 1u) << "a restored file is not relabelled";
}

TEST_F(CopyHandlersTest, ADirectoryComesBackWithItsModes) {
    writeFile(tree / "com.x/files/a;b", "1", 0640);
    writeFile(tree / "com.x/two\nlines", "2", 04755);
    makeDir(tree / "com.x/private", 0700);
    EXPECT_EQ(run(BACKUP_DIR, "com.x", "backup"), 0);
    EXPECT_EQ(ownerAndMode(tree / "backup/com.x.txt"), "10123:10123 771");
    EXPECT_EQ(modeOf(tree / "backup/com.x/private"), 0771u);

    // The records name the places that were backed up, so that is where a restore sets modes.
    const Lines names = listTree(tree / "com.x");
    for (const std::string& name : names) {
        chmod((tree / "com.x/" + name).c_str(), 0);
    }
    relabelled.clear();
    EXPECT_EQ(run(RESTORE_DIR, "backup", "com.x"), 0);
    EXPECT_EQ(listTree(tree / "com.x"), names);
    EXPECT_EQ(ownerAndMode(tree / "com.x/files/a;b"), "10123:10123 640");
    EXPECT_EQ(modeOf(tree / "com.x/two\nlines"), 04755u);
    EXPECT_EQ(modeOf(tree / "com.x/private"), 0700u);
    EXPECT_EQ(relabelled, Lines{(tree / "com.x") + " default 0"}) << "for the owner it has";
    EXPECT_EQ(errors(), Lines{});
}

TEST_F(CopyHandlersTest, ASourceThatEndsInASlashHasNoName) {
    writeFile(tree / "com.x/file", "1");
    EXPECT_EQ(run(BACKUP_DIR, "com.x/", "backup"), 0);
    EXPECT_EQ(listTree(tree / "backup"), (Lines{".txt", "file"}));
}

TEST_F(CopyHandlersTest, ARestoreNeedsItsFilesAndNotTheirRecords) {
    EXPECT_EQ(run(RESTORE_DIR, "backup", "com.x"), -17);
    writeFile(tree / "backup/com.x/file", "1");
    log.clear();
    EXPECT_EQ(run(RESTORE_DIR, "backup", "com.x"), 0);
    EXPECT_EQ(errors(), (Lines{"failed to open info_file",
                               "restore failed, restore file info from " +
                                   (tree / "backup/com.x.txt") + " error, ignore that."}));
    EXPECT_EQ(modeOf(tree / "com.x/file"), 0771u);
}

TEST_F(CopyHandlersTest, SharedStorageKeepsItsOwnModesAndLabels) {
    writeFile(tree / "backup/com.x/file", "1");
    writeFile(tree / "backup/com.x.txt", "no record at all");
    const std::string storage = "/storage/emulated/0/com.x";
    EXPECT_EQ(run(RESTORE_DIR, "backup", storage), 0);
    EXPECT_EQ(ownerAndMode(storage + "/file"), "10123:10123 771");
    EXPECT_EQ(errors(), Lines{});
    EXPECT_EQ(relabelled, Lines{});
    const Lines debug = messagesOf(log, ANDROID_LOG_DEBUG);
    EXPECT_EQ(debug[debug.size() - 2], "StoragePath no need to restorecon:, " + storage);
}

TEST_F(CopyHandlersTest, AMoveLeavesNothingBehind) {
    writeFile(tree / "com.x/a/file", "1");
    writeFile(tree / "com.x/lib/native.so", "2");
    EXPECT_EQ(run(MOVE_DIR, "com.x", "moved/here"), 0);
    EXPECT_EQ(listTree(tree / "moved/here"), (Lines{"a/", "a/file", "lib/", "lib/native.so"}));
    EXPECT_FALSE(exists(tree / "com.x"));
    EXPECT_EQ(relabelled, Lines{(tree / "moved/here") + " default 10123"});
}

TEST_F(CopyHandlersTest, AMoveWithALinkFailsAtTheEnd) {
    writeFile(tree / "com.x/file", "1");
    makeLink("file", tree / "com.x/link");
    EXPECT_EQ(run(MOVE_DIR, "com.x", "moved"), -19);
    EXPECT_EQ(listTree(tree / "moved"), Lines{"file"});
    EXPECT_EQ(listTree(tree / "com.x"), Lines{"link"});
    EXPECT_EQ(errors().back(), "move failed, deleteDir error!");
}

TEST_F(CopyHandlersTest, FailuresHaveTheirCodesAndMessages) {
    writeFile(tree / "file", "a file where a directory has to be");
    makeDir(tree / "dir/com.x.txt");
    makeDir(tree / "com.x");
    const std::string blocked = tree / "file/out";
    const struct {
        BackupTaskType type;
        std::string from;
        std::string to;
        std::string seInfo;
        int32_t result;
        std::string lastError;
    } rows[] = {
        {BACKUP_FILE, "file", "file/out", "s", -11, "backup failed, createDir error"},
        {BACKUP_FILE, "none", "out", "s", -11, "backup failed, copyFile error"},
        {BACKUP_FILE, "file", "out", "", -11,
         "backup failed, prepare_data_backuped_for_task error!"},
        {BACKUP_DIR, "com.x", "file/out", "s", -1,
         "backup failed,create " + blocked + "/com.x failed, error=Not a directory"},
        {BACKUP_DIR, "com.x", "dir", "s", -12,
         "backup failed,fopen [" + (tree / "dir/com.x.txt") + "] error\n"},
        {BACKUP_DIR, "none", "out", "s", -12, "backup failed, copyDir error!"},
        {BACKUP_DIR, "com.x", "out", "", -12,
         "backup failed, prepare_data_backuped_for_task error!"},
        {RESTORE_FILE, "file", "file/out", "s", -16, "restore failed, createDir error"},
        {RESTORE_FILE, "none", "out", "s", -16, "restore failed, copyFile error"},
        {RESTORE_DIR, "none", "out", "s", -17, "restore failed, copyDir error!"},
        {MOVE_DIR, "com.x", "file/out", "s", -19,
         "move failed,create " + blocked + " failed, error=Not a directory"},
        {MOVE_DIR, "none", "out", "s", -19, "move failed, copyDir error!"},
        {MOVE_DIR, "com.x", "out", "", -19, "move failed, prepare_data_backuped_for_task error!"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lastError);
        log.clear();
        EXPECT_EQ(run(row.type, row.from, row.to, row.seInfo), row.result);
        ASSERT_FALSE(errors().empty());
        EXPECT_EQ(errors().back(), row.lastError);
    }
}

TEST_F(CopyHandlersTest, NamesWithoutASlashHaveNoBackupDirectory) {
    sp<BackupTask> backup = makeTask(BACKUP_DIR, "com.x", tree / "out");
    EXPECT_EQ(manager->backupDirBase(backup), -12);
    sp<BackupTask> restore = makeTask(RESTORE_DIR, tree / "out", "com.x");
    EXPECT_EQ(manager->restoreDirBase(restore), -17);
    EXPECT_EQ(errors(), (Lines{"backup failed,prepare_data_backup_dir failed!",
                               "restore failed,prepare_data_backup_dir failed!"}));
}

TEST_F(CopyHandlersTest, TasksOfAnotherTypeAreRefusedSilently) {
    sp<BackupTask> brief = makeTask(GET_BRIEFS_BY_DIR, tree / "a", tree / "b");
    EXPECT_EQ(manager->backupFileBase(brief), -11);
    EXPECT_EQ(manager->backupDirBase(brief), -12);
    EXPECT_EQ(manager->restoreFileBase(brief), -16);
    EXPECT_EQ(manager->restoreDirBase(brief), -17);
    EXPECT_EQ(manager->moveDirBase(brief), -19);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace peltex_test
