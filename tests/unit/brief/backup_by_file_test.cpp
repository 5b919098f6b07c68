#include <unistd.h>

#include <algorithm>

#include "tests/unit/brief/brief_test.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using Lines = std::vector<std::string>;

class BackupByFileTest : public BriefTest {
  protected:
    // Backs up by the lines given into bk/com.a.
    int32_t backup(const std::string& lines) {
        writeFile(tree / "brief", lines);
        log.clear();
        return run(BACKUP_BY_FILE, "brief", "bk/com.a");
    }
    std::string folder() const { return tree / "bk/com.a/com.a"; }
    std::string records() const { return readFile(folder() + ".txt"); }
};

TEST_F(BackupByFileTest, CopiesWhatABriefListsAndRecordsItInItsOrder) {
    writeFile(tree / "com.a/files/x", "1", 0600);
    writeFile(tree / "com.a/files/sub/y;z", "2");
    writeFile(tree / "com.a/unlisted", "3");
    const std::string lines =
        recordOf("com.a/files/sub/y;z") + recordOf("com.a/files") + recordOf("com.a/files/x");
    EXPECT_EQ(backup(lines), 0);
    EXPECT_EQ(listTree(folder()), (Lines{"files/", "files/sub/", "files/sub/y;z", "files/x"}));
    EXPECT_EQ(records(), lines) << "the source's own, not the copy's";
    EXPECT_EQ(ownerAndMode(folder() + "/files/x"), "10123:10123 771");
    EXPECT_EQ(ownerAndMode(folder() + ".txt"), "10123:10123 771");
}

TEST_F(BackupByFileTest, AnEmptyBriefIsASuccess) {
    EXPECT_EQ(backup(""), 0);
    EXPECT_EQ(listTree(tree / "bk/com.a"), (Lines{"com.a.txt", "com.a/"}));
    EXPECT_EQ(records(), "");
}

TEST_F(BackupByFileTest, LinesThatCannotBeTakenAreSkipped) {
    writeFile(tree / "com.a/good", "1");
    writeFile(tree / "com.a/classes.dex", "2");
    makeLink("good", tree / "com.a/link");
    const std::string tail = ";420;0;1;1\n";
    const std::string good = recordOf("com.a/good");
    const Lines skipped = {
        "no record\n",
        (tree / "com.a/none") + tail,
        (tree / "com.a/link") + tail,
        (tree / "com.a/classes.dex") + tail,
        (tree / "com.a/good") + ";9999;0;1;1\n",
        "/" + std::string(5000, 'x') + tail,
        std::string("\0\1;;;;\n", 7),
        "\r\n",
    };
    for (const std::string& line : skipped) {
        SCOPED_TRACE(line.substr(0, 60));
        EXPECT_EQ(backup(line + good), 0);
        EXPECT_EQ(records(), good);
    }
    EXPECT_EQ(backup("ab;cd\n"), 0);
    EXPECT_EQ(errors(), Lines{"miss info from this line(ab), skip it"});
}

TEST_F(BackupByFileTest, APathWithoutTheNameMapsToTheFolderItself) {
    writeFile(tree / "other/file", "1");
    EXPECT_EQ(backup(recordOf("other")), 0);
    EXPECT_EQ(records(), recordOf("other"));
    EXPECT_EQ(backup(recordOf("other/file")), 0);
    EXPECT_EQ(listTree(folder()), Lines{"file"}) << "a copy to a directory goes into it";
}

// Each line records the attribute file in itself, and the last copies it over the brief.
TEST_F(BackupByFileTest, ABriefThatFeedsItselfEnds) {
    std::string lines;
    for (int i = 0; i < 4000; ++i) {
        lines += folder() + ".txt;0;1;;\n";
    }
    lines += folder() + ".txt;0;;;\n";
    writeFile(folder() + "/com.a.txt", lines);
    EXPECT_EQ(run(BACKUP_BY_FILE, "bk/com.a/com.a/com.a.txt", "bk/com.a"), 0);
    EXPECT_LT(records().size(), 4 * lines.size());
}

TEST_F(BackupByFileTest, FailuresHaveTheirCodesAndMessages) {
    writeFile(tree / "com.a/file", "1");
    writeFile(tree / "blocked", "a file where a directory has to be");
    makeDir(tree / "dir/com.b/com.b.txt");
    writeFile(tree / "brief", recordOf("com.a/file"));
    const struct {
        const char* from;
        const char* to;
        std::string lastError;
    } rows[] = {
        {"brief", "blocked/com.a",
         "backup failed,create " + (tree / "blocked/com.a/com.a") +
             " failed, error=Not a directory"},
        {"brief", "dir/com.b",
         "backup failed,fopen [" + (tree / "dir/com.b/com.b.txt") + "] error\n"},
        {"none", "bk/com.a", "backup failed,GetBackupFileAndProcess error\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lastError);
        log.clear();
        EXPECT_EQ(run(BACKUP_BY_FILE, row.from, row.to), -15);
        ASSERT_FALSE(errors().empty());
        EXPECT_EQ(errors().back(), row.lastError);
    }
    EXPECT_EQ(manager->BackupByFileBase(makeTask(BACKUP_FILE, "a", "b")), -15);
    EXPECT_EQ(manager->BackupByFileBase(makeTask(BACKUP_BY_FILE, "a", "")), -15);
}

TEST_F(BackupByFileTest, ATargetThatIsInTheWayEndsTheRun) {
    writeFile(tree / "com.a/file", "1");
    writeFile(tree / "com.a/later", "2");
    makeDir(folder() + "/file/file");
    EXPECT_EQ(backup(recordOf("com.a/file") + recordOf("com.a/later")), -15);
    EXPECT_FALSE(exists(folder() + "/later"));
    EXPECT_EQ(errors()[errors().size() - 2],
              "Failed to BackupFile, copyFile(" + (tree / "com.a/file") + ") error");
}

TEST_F(BackupByFileTest, ABriefMadeByTheServiceIsFollowedWhole) {
    writeFile(tree / "com.a/a/f", "1");
    writeFile(tree / "com.a/two\nlines", "2");
    writeFile(tree / "com.a/lib/n.so", "3");
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "com.a", "brief"), 0);
    EXPECT_EQ(run(BACKUP_BY_FILE, "brief", "bk/com.a"), 0);
    EXPECT_EQ(listTree(folder()), (Lines{"a/", "a/f", "lib/", "lib/n.so"}))
        << "a name over two lines is not followed: its lines are read one by one";
}

}  // namespace
}  // namespace peltex_test
