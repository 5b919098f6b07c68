#include "brief/permission_record.h"
#include "base/owner_mapping.h"

#include <gtest/gtest.h>
#include <host/relabel_observer.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/log_lines.h"
#include "tests/support/test_files.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using Lines = std::vector<std::string>;

class PermissionRecordTest : public testing::Test {
  protected:
    std::string recordOf(const std::string& path) {
        FILE* stream = fopen((tree / "record").c_str(), "w");
        result = do_backup_perm(path.c_str(), stream);
        fclose(stream);
        return readFile(tree / "record");
    }
    int parse(const std::string& line) {
        std::vector<char> copy(line.begin(), line.end());
        copy.push_back('\0');
        return parse_line_info(copy.data(), info);
    }
    int restore(const std::string& records) {
        writeFile(tree / "attr.txt", records);
        return restore_application_from_infofile(tree.path().c_str(), (tree / "attr.txt").c_str(),
                                                 "default");
    }
    Lines errors() const { return messagesOf(log, ANDROID_LOG_ERROR); }
    Lines warnings() const { return messagesOf(log, ANDROID_LOG_WARN); }

    TempTree tree;
    android::host::LogCapture log;
    File_info info;
    int result = 0;
};

TEST_F(PermissionRecordTest, DescribesWhatALinkLeadsTo) {
    writeFile(tree / "a;b", "12345", 06755);
    makeLink("a;b", tree / "link");
    const std::string end = ";3565;0;5;" + std::to_string(statOf(tree / "a;b").st_mtime) + "\n";
    EXPECT_EQ(recordOf(tree / "a;b"), (tree / "a;b") + end);
    EXPECT_EQ(recordOf(tree / "link"), (tree / "link") + end);
    EXPECT_EQ(recordOf(tree / "none"), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errors(), Lines{"stat [" + (tree / "none") + "] error [2]\n"});
}

TEST_F(PermissionRecordTest, HasAtMost2047Characters) {
    std::string directory = tree.path();
    while (directory.size() < 1900) {
        directory += "/" + std::string(99, 'd');
    }
    makeDir(directory);
    const std::string tail = ";420;0;1;" + std::to_string(time(nullptr)) + "\n";
    const std::string fits =
        directory + "/" + std::string(2047 - tail.size() - directory.size() - 1, 'f');
    writeFile(fits, "x");
    EXPECT_EQ(recordOf(fits).size(), 2047u);
    writeFile(fits + "f", "x");
    EXPECT_EQ(recordOf(fits + "f"), "");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errors().back().substr(0, 28), "sprintf permisson [] error [");
}

TEST_F(PermissionRecordTest, AShortWriteIsLoggedAndCountsAsWritten) {
    FILE* full = fopen("/dev/full", "w");
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(do_backup_perm(tree.path().c_str(), full), 0);
    fclose(full);
    ASSERT_EQ(errors().size(), 1u);
    EXPECT_NE(errors()[0].find("error [No space left on device]"), std::string::npos);
}

TEST_F(PermissionRecordTest, IsParsedFromItsEnd) {
    writeFile(tree / "x;y", "1");
    EXPECT_EQ(parse((tree / "x;y") + ";493;0;12;1700000000\n"), 5);
    EXPECT_EQ(info.path, tree / "x;y");
    EXPECT_EQ(info.mode, 493);
    EXPECT_EQ(info.type, 0);
    EXPECT_EQ(info.size, 12);
    EXPECT_EQ(info.modified_time, 1700000000);
}

TEST_F(PermissionRecordTest, LinesAndWhatTheyYield) {
    const std::string dir = tree.path();
    makeLink("nowhere", tree / "link");
    makeFifo(tree / "fifo");
    const Lines skipped = {"handle one line failed, skip this line"};
    const struct {
        const char* name;
        std::string line;
        int fields;
        int32_t mode;
        int32_t type;
        Lines errors;
        Lines warnings;
    } rows[] = {
        {"three characters", "a;b", -1, 77, 77, {}, {}},
        {"two fields", "ab;cd", 2, 0, 0, {}, {}},
        {"first character is no separator", ";493;0;12;17", 4, 0, 0, {}, {}},
        {"no path", "493;0;12;1700000000", 4, 493, 0, {}, {}},
        {"ends in a separator",
         "/a;1;0;1;5;",
         0,
         0,
         0,
         {},
         {"line ends with invalid character, skip this line"}},
        {"octal and hexadecimal", dir + ";0755;1;0x10;017\r\n", 5, 0755, 1, {}, {}},
        {"largest modes", dir + ";7777;1;1;1", 5, 7777, 1, {}, {}},
        {"mode above the bits", dir + ";4096;1;1;1", 5, 4096, 1, {}, {}},
        {"mode wraps into 32 bits", dir + ";4294967296;1;1;1", 5, 0, 1, {}, {}},
        {"mode too large",
         dir + ";7778;1;1;1",
         -1,
         -1,
         1,
         {"invalid mode 7778", "failed to get mod"},
         skipped},
        {"mode negative",
         dir + ";-1;1;1;1",
         -1,
         -1,
         1,
         {"invalid mode -1", "failed to get mod"},
         skipped},
        {"mode empty",
         dir + ";;1;1;1",
         -1,
         -1,
         1,
         {"mode is NULL or length of mode is 0", "failed to get mod"},
         skipped},
        {"type empty", dir + ";1;;1;1", 5, 1, 0, {"type is NULL or length of type is 0"}, {}},
        {"type of more than a digit", dir + ";1;11;1;1", 5, 1, 0, {}, {}},
        {"size empty", dir + ";1;1;;1", 5, 1, 1, {}, {}},
        {"size negative", dir + ";1;1;-1;1", -1, 0, 0, {"failed to get size"}, skipped},
        {"time negative", dir + ";1;1;1;-1", -1, 0, 0, {"failed to get modified_time"}, skipped},
        {"path of nothing",
         (tree / "none") + ";1;0;1;1",
         -1,
         1,
         0,
         {"if_file_type_legal " + (tree / "none") + " error is [No such file or directory]\n"},
         skipped},
        {"path of a link", (tree / "link") + ";1;0;1;1", -1, 1, 0, {}, skipped},
        {"path of a FIFO", (tree / "fifo") + ";1;0;1;1", -1, 1, 0, {}, skipped},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log.clear();
        info.mode = info.type = 77;
        EXPECT_EQ(parse(row.line), row.fields);
        EXPECT_EQ(info.mode, row.mode);
        EXPECT_EQ(info.type, row.type);
        EXPECT_EQ(errors(), row.errors);
        EXPECT_EQ(warnings(), row.warnings);
    }
}

TEST_F(PermissionRecordTest, RestoreGivesModesBackAndRelabels) {
    writeFile(tree / "file", "x");
    writeFile(tree / "two\nlines", "x");
    Lines relabelled;
    const android::host::ScopedRelabelObserver observer(
        [&](const char* path, const char* seInfo, uid_t uid, unsigned int flags) {
            relabelled.push_back(std::string(path) + " " + seInfo + " " + std::to_string(uid) +
                                 " " + std::to_string(flags));
            return 0;
        });
    ASSERT_EQ(chown(tree.path().c_str(), 10123, 1), 0);
    EXPECT_EQ(restore((tree / "file") + ";384;0;9;9\r\n" + (tree / "two\nlines") + ";2541;0;1;1\n" +
                      tree.path() + ";493;1;1;1"),
              0);
    EXPECT_EQ(modeOf(tree / "file"), 0600u);
    EXPECT_EQ(modeOf(tree / "two\nlines"), 04755u);
    EXPECT_EQ(relabelled, Lines{tree.path() + " default 10123 4"});
    EXPECT_EQ(restore(""), 0);
    EXPECT_EQ(relabelled.size(), 2u);
}

TEST_F(PermissionRecordTest, RestoreEndsAtTheFirstLineThatIsNoRecord) {
    writeFile(tree / "last", "x");
    const std::string behind = (tree / "last") + ";384;0;1;1\n";
    const std::string longTail = std::string(2046, 'x');
    const struct {
        const char* name;
        std::string records;
        std::string line;  // as the message shows it
    } rows[] = {
        {"first line is no path", "file;384;0;1;1\n" + behind, ""},
        {"too few fields", "/x;1\n" + behind, "/x"},
        {"empty line first", "\n" + behind, ""},
        {"rest of a line that is too long", behind + "/" + longTail + ";384;0;1;1\n",
         "/" + longTail},
        {"NUL bytes", std::string(5000, '\0') + behind, ""},
        {"binary", std::string("\1\2;;;;\xff\n", 8) + behind, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        chmod((tree / "last").c_str(), 0640);
        log.clear();
        EXPECT_EQ(restore(row.records), -1);
        EXPECT_EQ(modeOf(tree / "last"), row.records.find(behind) == 0 ? 0600u : 0640u);
        ASSERT_FALSE(errors().empty());
        EXPECT_EQ(errors().back(), "miss info from this line(" + row.line + "), skip it");
    }
}

TEST_F(PermissionRecordTest, ALineOf2047CharactersIsTakenWhole) {
    std::string path = tree.path();
    while (path.size() + 200 < 2047) {
        path += "/" + std::string(99, 'd');
    }
    const std::string tail = ";384;0;1;1\n";
    path += "/" + std::string(2047 - tail.size() - path.size() - 1, 'f');
    writeFile(path, "x", 0644);
    writeFile(tree / "next", "x", 0644);
    EXPECT_EQ(restore(path + tail + (tree / "next") + tail), 0);
    EXPECT_EQ(warnings(), Lines{"enough data in this line, maybe too long ?"});
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(modeOf(tree / "next"), 0600u);
}

TEST_F(PermissionRecordTest, RestoreSaysWhatItCouldNotOpenOrRelabel) {
    EXPECT_EQ(restore_application_from_infofile("/data", nullptr, "s"), -1);
    EXPECT_EQ(restore_application_from_infofile("/data", (tree / "none").c_str(), "s"), -1);
    writeFile(tree / "attr.txt", "");
    const std::string gone = tree / "gone";
    EXPECT_EQ(restore_application_from_infofile(gone.c_str(), (tree / "attr.txt").c_str(), "s"),
              -1);
    EXPECT_EQ(errors(), (Lines{"info_file is NULL", "failed to open info_file",
                               "do_se_restorecon_pkgdir stat [" + gone +
                                   "] error [No such file or directory].",
                               "do_se_restorecon_pkgdir [" + gone + "] error [2]."}));
    const android::host::ScopedRelabelObserver observer(
        [](const char*, const char*, uid_t, unsigned int) { return EACCES; });
    log.clear();
    EXPECT_EQ(restore(""), -1);
    EXPECT_EQ(errors(), (Lines{"Failed recursive restorecon for " + tree.path() +
                                   " , se_info(default), uid(0), error [Permission denied]\n",
                               "do_se_restorecon_pkgdir [" + tree.path() + "] error [13]."}));
}

TEST(FixupOwner, MovesOwnersBetweenUsers) {
    const struct {
        unsigned int uid, gid, target, newUid, newGid;
    } rows[] = {
        {9999, 9999, 10500, 9999, 9999},
        {10100, 10100, 0, 10100, 10100},
        {10100, 10100, 10500, 10500, 10500},
        {10100, 10099, 10500, 10500, 10099},
        {10100, 20100, 10500, 10500, 20500},
        {1010123, 1020123, 10123, 10123, 20123},
        {1010123, 1065, 10123, 10123, 1065},
        // Below the owner the distance wraps: 2^32 - 7296 is a multiple of 10000.
        {20000, 12704, 10500, 10500, 3204},
        {20000, 10000, 10500, 10500, 10000},
        {10000, 4294967295u, 1, 1, 4294967295u},
    };
    for (const auto& row : rows) {
        unsigned int gid = 0;
        EXPECT_EQ(fixup_owner_dir_file(row.uid, row.gid, row.target, gid), row.newUid);
        EXPECT_EQ(gid, row.newGid) << row.uid << ':' << row.gid << " for " << row.target;
    }
}

}  // namespace
}  // namespace peltex_test
