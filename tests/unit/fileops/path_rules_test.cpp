#include "base/path_rules.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "service/backup_session_manager.h"
#include "tests/support/log_lines.h"
#include "tests/support/test_files.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using Lines = std::vector<std::string>;

TEST(IsAllowAccess, ComparesPrefixesWithoutComponents) {
    const struct {
        const char* path;
        const char* error;  // null: allowed
    } rows[] = {
        {"/data/data/com.x", nullptr},
        {"/data/database", nullptr},
        {"/data/user_de/0/com.x", nullptr},
        {"/data/misc/wifi_old", nullptr},
        {"/data/misc/apexdata/com.android.wifi/x", nullptr},
        {"/storage/emulated/0", nullptr},
        {"/mnt/androidwritable/0", nullptr},
        {"/data/data/com.x/..", nullptr},
        {"/data/data/./x", nullptr},
        {"/data/data/a../b", "is_allow_access, illegalpath:/data/data/a../b."},
        {"/data/data/com.x/../../system",
         "is_allow_access, illegalpath:/data/data/com.x/../../system."},
        {"/data/app/x", "is_allow_access, /data/app/x don`t match dataPath."},
        {"/data/misc/apexdata/com.android.wif",
         "is_allow_access, /data/misc/apexdata/com.android.wif don`t match dataPath."},
        {"data/data", "is_allow_access, data/data don`t match dataPath."},
        {"", "is_allow_access, path is NULL or length of path is 0"},
        {nullptr, "is_allow_access, path is NULL or length of path is 0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path == nullptr ? "null" : row.path);
        const android::host::LogCapture log;
        EXPECT_EQ(is_allow_access(row.path), row.error == nullptr);
        EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR),
                  row.error == nullptr ? Lines{} : Lines{row.error});
    }
}

TEST(IsStoragePath, KnowsBothNamesOfSharedStorage) {
    const android::sp<BackupSessionManager> manager = new BackupSessionManager();
    const android::host::LogCapture log;
    EXPECT_TRUE(manager->isStoragePath("/storage/emulated/0/x"));
    EXPECT_TRUE(manager->isStoragePath("/mnt/androidwritable"));
    EXPECT_FALSE(manager->isStoragePath("/storage/emulate"));
    EXPECT_FALSE(manager->isStoragePath("/data/storage/emulated"));
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_DEBUG), (Lines{"isStoragePath:, /storage/emulated/0/x",
                                                         "isStoragePath:, /mnt/androidwritable"}));
}

class EntryRulesTest : public testing::Test {
  protected:
    void SetUp() override {
        writeFile(tree / "file", "x");
        writeFile(tree / "classes.dex", "x");
        writeFile(tree / "x.DEX", "x");
        writeFile(tree / ".dex", "x");
        writeFile(tree / "b.dex/readme", "x");
        writeFile(tree / "a.dex.bak", "x");
        makeLink("file", tree / "link");
        makeLink("b.dex", tree / "dirlink");
        makeFifo(tree / "fifo");
        makeSocket(tree / "socket");
    }

    TempTree tree;
};

TEST_F(EntryRulesTest, KindsAndFilters) {
    const struct {
        const char* name;
        int dir;
        int filter;
        const char* filterMessage;
    } rows[] = {
        {"file", 0, 0, nullptr},
        {"classes.dex", 0, -1, nullptr},
        {".dex", 0, -1, nullptr},
        {"x.DEX", 0, 0, nullptr},
        {"a.dex.bak", 0, 0, nullptr},
        {"b.dex/readme", 0, 0, nullptr},
        {"b.dex", 1, -1, nullptr},
        {"link", -1, -1, "Failed to filterFile S_ISLNK:"},
        {"dirlink", -1, -1, "Failed to filterFile S_ISLNK:"},
        {"fifo", 0, -1, "Failed to filterFile S_ISFIFO:"},
        {"socket", 0, -1, "Failed to filterFile S_ISSOCK:"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = tree / row.name;
        EXPECT_EQ(isDir(path.c_str()), row.dir);
        const android::host::LogCapture log;
        EXPECT_EQ(filterFile(path.c_str()), row.filter);
        EXPECT_EQ(linesOf(log), row.filterMessage == nullptr ? Lines{}
                                                             : Lines{"E BackupSessionManager: " +
                                                                     (row.filterMessage + path)});
    }
    EXPECT_EQ(filterFile("/dev/null"), 0) << "devices are kept";
}

TEST_F(EntryRulesTest, WhatCannotBeExaminedIsLoggedAndLeftAlone) {
    const android::host::LogCapture log;
    const std::string none = tree / "none";
    EXPECT_EQ(isDir(none.c_str()), -1);
    EXPECT_EQ(isDir((tree / "dirlink").c_str()), -1);
    EXPECT_EQ(isDir(""), -1);
    EXPECT_EQ(filterFile(none.c_str()), -1);
    EXPECT_EQ(filterFile(nullptr), -1);
    EXPECT_EQ(filterDir(nullptr), -1);
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR),
              (Lines{"Failed to isDir, lstat(" + none + "), error=No such file or directory",
                     "Failed to isDir S_ISLNK:" + (tree / "dirlink"),
                     "Failed to isDir, path is NULL or length of path is 0",
                     "Failed to filterFile, lstat(" + none + "), error=No such file or directory",
                     "filterFile, filePath is NULL or length of filePath is 0",
                     "filterDir, dirName is NULL or length of dirName is 0"}));
}

TEST_F(EntryRulesTest, OnlyLibIsALibraryDirectory) {
    EXPECT_EQ(filterDir("lib"), 1);
    EXPECT_EQ(filterDir("lib64"), 0);
    EXPECT_EQ(filterDir("Lib"), 0);
}

TEST_F(EntryRulesTest, CheckFilePathCatchesWhatResolvesOutsideItsRoot) {
    makeDir(tree / "root/in");
    writeFile(tree / "root/in/file", "x");
    makeLink(tree / "file", tree / "root/out");
    const std::string root = tree / "root";
    const android::host::LogCapture log;
    EXPECT_EQ(CheckFilePath((root + "/in/file").c_str(), root.c_str()), 0);
    EXPECT_EQ(CheckFilePath((root + "/in/../none").c_str(), root.c_str()), 0) << "yet to be made";
    EXPECT_EQ(CheckFilePath((root + "/out").c_str(), nullptr), 0);
    EXPECT_EQ(CheckFilePath((root + "/out").c_str(), root.c_str()), -1);
    EXPECT_EQ(messagesOf(log, ANDROID_LOG_ERROR),
              Lines{"Failed to checkFilePath, path: " + root +
                    "/out, realPath: " + (tree / "file") + ", realOrgPath: " + root + "."});
}

TEST(GetAppName, IsTheTextAfterTheLastSlash) {
    EXPECT_EQ(GetAppNameByFullPath("/data/data/com.x"), "com.x");
    EXPECT_EQ(GetAppNameByFullPath("/data/data/com.x/"), "");
    EXPECT_EQ(GetAppNameByFullPath("com.x"), "");
    EXPECT_EQ(GetAppNameByFullPath(nullptr), "");
}

}  // namespace
}  // namespace peltex_test
