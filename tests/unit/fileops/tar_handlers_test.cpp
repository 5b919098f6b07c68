#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/handler_test.h"
#include "tests/support/tar_builder.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using android::sp;
using Lines = std::vector<std::string>;

class TarHandlersTest : public HandlerTest {
  protected:
    // Runs the handler of the type as the task loop does, between two names under the tree. What is
    // the SELinux information of the other types is the slice size of a split backup, in MiB.
    int32_t run(BackupTaskType type, const std::string& from, const std::string& to,
                const std::string& fifthWord = "1") {
        const bool isSplit = type == BACKUP_SPLIT;
        const std::string words[kCommandWords] = {"cmd",
                                                  "option",
                                                  pathOf(from),
                                                  pathOf(to),
                                                  fifthWord,
                                                  isSplit ? "seinfo" : "10123",
                                                  isSplit ? "10123" : ""};
        sp<BackupTask> task = new BackupTask(100, 101, type, client, words);
        return manager->processTask(task);
    }
};

TEST_F(TarHandlersTest, AnArchiveLiesInItsDestinationUnderItsSourcesName) {
    writeFile(tree / "com.x/file", "1");
    EXPECT_EQ(run(BACKUP_TAR, "com.x", "a/b", "default"), 0);
    EXPECT_EQ(listTree(tree / "a"), (Lines{"b/", "b/com.x.tar"}));
    EXPECT_EQ(ownerAndMode(tree / "a/b"), "10123:10123 771");
    EXPECT_EQ(ownerAndMode(tree / "a/b/com.x.tar"), "10123:10123 660");
    EXPECT_EQ(relabelled, Lines{tree / "a/b default 10123"});

    relabelled.clear();
    makeDir(tree / "back");
    EXPECT_EQ(run(RESTORE_TAR, "a/b/com.x.tar", "back"), 0);
    EXPECT_EQ(readFile(tree / "back/file"), "1");
    EXPECT_EQ(relabelled, Lines{tree / "back 1 10123"});
    EXPECT_EQ(errors(), Lines{});
}

TEST_F(TarHandlersTest, SlicesLieInTheirDestinationUnderTheirSourcesName) {
    writeFile(tree / "com.x/file", "1");
    EXPECT_EQ(run(BACKUP_SPLIT, "com.x", "a/b"), 0);
    const std::string base = tree / "a/b/com.x.tar";
    EXPECT_EQ(listTree(tree / "a"), (Lines{"b/", "b/com.x.tar.0", "b/com.x.tar.txt"}));
    EXPECT_EQ(ownerAndMode(tree / "a/b"), "10123:10123 771");
    EXPECT_EQ(ownerAndMode(base + ".txt"), "10123:10123 660");
    EXPECT_EQ(relabelled, (Lines{base + ".0 seinfo 10123", base + ".txt seinfo 10123"}));
    EXPECT_EQ(client->statusesOf(101), Lines{"4 " + base + ".0|end"});

    relabelled.clear();
    makeDir(tree / "back/com.x");
    EXPECT_EQ(run(RESTORE_SPLIT, "a/b/com.x.tar.txt", "back/com.x"), 0);
    EXPECT_EQ(readFile(tree / "back/file"), "1") << "beside the named directory, not in it";
    EXPECT_EQ(relabelled, Lines{tree / "back/com.x 1 10123"});
    EXPECT_EQ(listTree(tree / "a/b"), Lines{"com.x.tar.txt"});
}

TEST_F(TarHandlersTest, TrailingSlashesCountForWholeArchivesOnly) {
    writeFile(tree / "com.x/file", "1");
    EXPECT_EQ(run(BACKUP_SPLIT, "com.x/", "split/"), 0);
    EXPECT_EQ(listTree(tree / "split"), (Lines{"com.x.tar.0", "com.x.tar.txt"}));
    EXPECT_EQ(run(BACKUP_TAR, "com.x/", "whole/"), 0);
    EXPECT_EQ(listTree(tree / "whole"), Lines{".tar"});
}

TEST_F(TarHandlersTest, SharedStorageKeepsItsOwnLabels) {
    writeFile(tree / "a.tar", entry('0', "file", "1") + kEndBlocks);
    for (const std::string storage : {"/storage/emulated/0", "/mnt/androidwritable/0"}) {
        log.clear();
        makeDir(storage);
        EXPECT_EQ(run(RESTORE_TAR, "a.tar", storage), 0);
        EXPECT_EQ(readFile(storage + "/file"), "1");
        const Lines debug = messagesOf(log, ANDROID_LOG_DEBUG);
        EXPECT_EQ(debug[debug.size() - 3], "isStoragePath:, " + storage);
        EXPECT_EQ(debug[debug.size() - 2], "StoragePath no need to restorecon:, " + storage);
    }
    EXPECT_EQ(relabelled, Lines{});
}

TEST_F(TarHandlersTest, WhatIsRestoredIsRelabelledWhateverTheResult) {
    const struct {
        BackupTaskType type;
        int32_t result;
        std::string content;
    } rows[] = {
        {RESTORE_TAR, 0, entry('0', "file") + kEndBlocks},
        {RESTORE_TAR, -1, entry('0', "../file")},
        {RESTORE_TAR, -3, std::string(1000, 'x')},
        {RESTORE_TAR, -5, entry('0', "file")},
        {RESTORE_SPLIT, -1, "none.0|1024\n"},
    };
    makeDir(tree / "to");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.result);
        log.clear();
        relabelled.clear();
        writeFile(tree / "archive", row.content);
        EXPECT_EQ(run(row.type, "archive", "to"), row.result);
        EXPECT_EQ(relabelled.size(), 1u);
        EXPECT_EQ(errors().empty() ? "" : errors().back(),
                  row.result == 0
                      ? ""
                      : "restoreTarBase, unPack error return " + std::to_string(row.result) + ".");
    }
}

TEST_F(TarHandlersTest, LabelsThatAreRefusedFailABackupAndNoRestore) {
    refusal = EACCES;
    makeDir(tree / "com.x");
    EXPECT_EQ(run(BACKUP_TAR, "com.x", "out"), -13);
    EXPECT_EQ(errors().back(), "backupTarBase failed, prepare_data_backuped_for_task error!");
    EXPECT_TRUE(exists(tree / "out/com.x.tar"));
    EXPECT_EQ(run(RESTORE_TAR, "out/com.x.tar", "com.x"), 0);
    EXPECT_EQ(errors().back(), "restoreTarBase, restorecon_backup_dir failed, ignore that.");
    EXPECT_EQ(run(BACKUP_SPLIT, "com.x", "slices"), -1);
    EXPECT_EQ(listTree(tree / "slices"), Lines{});
}

TEST_F(TarHandlersTest, FailuresHaveTheirCodesAndMessages) {
    writeFile(tree / "file", "a file where a directory has to be");
    makeDir(tree / "com.x");
    makeDir(tree / "dir/com.x.tar");
    makeDir(tree / "dir/com.x.tar.0");
    const std::string none = "source path " + (tree / "none") + " not exist!";
    const std::string create = "create " + (tree / "file/out") + " failed, error=Not a directory";
    const std::string noInfo = " prepare_data_backuped_for_task failed, se_info is null!";
    const auto tar = [this](const std::string& from, const std::string& to) {
        return "tar, src: " + (tree / from) + ", dst: " + (tree / to);
    };
    const std::string split = "backupSplitTarBase: ";
    const struct {
        BackupTaskType type;
        int32_t result;
        std::string from;
        std::string to;
        std::string fifthWord;
        std::string lastError;
    } rows[] = {
        {BACKUP_TAR, -13, "com.x", "out", "", "backupTarBase" + noInfo},
        {BACKUP_TAR, -13, "none", "out", "s", "backupTarBase, " + none},
        {BACKUP_TAR, -13, "com.x", "file/out", "s", "backupTarBase failed," + create},
        {BACKUP_TAR, -13, "file", "out", "s",
         "backupTarBase failed to " + tar("file", "out/file.tar")},
        {BACKUP_TAR, -13, "com.x", "dir", "s",
         "backupTarBase failed to " + tar("com.x", "dir/com.x.tar")},
        {BACKUP_SPLIT, -14, "none", "out", "1", split + none},
        {BACKUP_SPLIT, -14, "com.x", "file/out", "1", split + create},
        {BACKUP_SPLIT, -1, "com.x", "dir", "1",
         split + "tar failed, src: " + (tree / "com.x") + ", dst: " + (tree / "dir/com.x.tar")},
        {RESTORE_TAR, -18, "file", "out", "", "restoreTarBase" + noInfo},
        {RESTORE_TAR, -18, "none", "out", "s", "restoreTarBase, " + none},
        {RESTORE_SPLIT, -18, "file", "out", "", "restoreTarBase" + noInfo},
        {RESTORE_SPLIT, -18, "none", "out", "s", "restoreTarBase, " + none},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lastError);
        log.clear();
        EXPECT_EQ(run(row.type, row.from, row.to, row.fifthWord), row.result);
        ASSERT_FALSE(errors().empty());
        EXPECT_EQ(errors().back(), row.lastError);
    }
}

TEST_F(TarHandlersTest, SourcesWithoutASlashHaveNoArchive) {
    ASSERT_EQ(chdir("/"), 0);
    sp<BackupTask> whole = makeTask(BACKUP_TAR, "data", tree / "out");
    EXPECT_EQ(manager->backupTarBase(whole), -13);
    sp<BackupTask> slices = makeTask(BACKUP_SPLIT, "data", tree / "out");
    EXPECT_EQ(manager->backupSplitBase(slices), -14);
    EXPECT_EQ(errors(), (Lines{"backupTarBase failed, prepare_data_backup_dir failed!",
                               "backupSplitTarBase: prepare_data_backup_dir failed!"}));
}

TEST_F(TarHandlersTest, TasksOfAnotherTypeAreRefusedSilently) {
    sp<BackupTask> copy = makeTask(BACKUP_DIR, tree / "a", tree / "b");
    EXPECT_EQ(manager->backupTarBase(copy), -13);
    EXPECT_EQ(manager->backupSplitBase(copy), -14);
    EXPECT_EQ(manager->restoreTarBase(copy), -18);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace peltex_test
