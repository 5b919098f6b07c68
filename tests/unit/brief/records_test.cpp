#include <gtest/gtest.h>
#include <host/relabel_observer.h>
#include <string.h>
#include <unistd.h>

#include "base/owner_mapping.h"
#include "brief/permission_record.h"
#include "tests/support/log_lines.h"
#include "tests/support/test_files.h"

namespace peltex_test {
namespace {

using namespace android::installd;

class RecordTest : public testing::Test {
  protected:
    // The record of a path, or "none".
    std::string recordOf(const std::string& path) {
        FILE* stream = fopen((tree / "record").c_str(), "we");
        const int result = do_backup_perm(path.c_str(), stream);
        fclose(stream);
        return result == 0 ? readFile(tree / "record") : "none";
    }
    int restore(const std::string& records) {
        log.clear();
        writeFile(tree / "attr.txt", records);
        return restore_application_from_infofile(tree.path().c_str(), (tree / "attr.txt").c_str(),
                                                 "default");
    }
    // A path of a file of its own that has so many bytes.
    std::string pathOf(size_t size) const {
        std::string path = tree.path();
        while (path.size() + 200 < size) {
            path += "/" + std::string(99, 'd');
        }
        path += "/" + std::string(size - path.size() - 1, 'f');
        writeFile(path, "x");
        return path;
    }
    Lines errors() const { return messagesOf(log, ANDROID_LOG_ERROR); }
    Lines warnings() const { return messagesOf(log, ANDROID_LOG_WARN); }

    TempTree tree;
    android::host::LogCapture log;
};

TEST_F(RecordTest, DescribesWhatALinkLeadsToInAtMost2047Characters) {
    writeFile(tree / "a;b", "12345", 06755);
    makeLink("a;b", tree / "link");
    const std::string end = ";3565;0;5;" + std::to_string(statOf(tree / "a;b").st_mtime) + "\n";
    EXPECT_EQ(recordOf(tree / "a;b"), (tree / "a;b") + end);
    EXPECT_EQ(recordOf(tree / "link"), (tree / "link") + end);
    EXPECT_EQ(recordOf(tree / "none"), "none");
    EXPECT_EQ(errors(), Lines{"stat [" + (tree / "none") + "] error [2]\n"});
    const size_t most = 2047 - strlen(";420;0;1;1700000000\n");
    EXPECT_EQ(recordOf(pathOf(most)).size(), 2047u);
    EXPECT_EQ(recordOf(pathOf(most + 1)), "none");
    EXPECT_EQ(errors().back().substr(0, 28), "sprintf permisson [] error [");

    log.clear();
    FILE* full = fopen("/dev/full", "we");
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(do_backup_perm(tree.path().c_str(), full), 0) << "what could not be written counts";
    fclose(full);
    EXPECT_NE(errors().at(0).find("error [No space left on device]"), std::string::npos);
}

TEST_F(RecordTest, LinesAndWhatTheyYield) {
    const std::string dir = tree.path();
    makeLink("nowhere", tree / "link");
    makeFifo(tree / "fifo");
    writeFile(tree / "x;y", "1");
    const std::string none = tree / "none";
    const std::string noMode = "mode is NULL or length of mode is 0";
    const struct {
        std::string line;
        int fields;
        std::string values;  // mode, type, size and time; of no meaning below five fields
        Lines errors;
    } rows[] = {
        {(tree / "x;y") + ";493;0;12;1700000000\n", 5, "493 0 12 1700000000", {}},
        {"a;b", -1, "77 77 77 77", {}},
        {"a;bc", 2, "0 0 0 0", {}},
        {";493;0;12;17", 4, "0 0 12 17", {}},
        {"493;0;12;1700000000", 4, "493 0 12 1700000000", {}},
        {"/a;1;0;1;5;", 0, "0 0 0 0", {}},
        {dir + ";0755;1;0x10;017\r\n", 5, "493 1 16 15", {}},
        {dir + ";7777;1;1;1", 5, "7777 1 1 1", {}},
        {dir + ";4294967296;1;1;1", 5, "0 1 1 1", {}},
        {dir + ";0;1;0;0", 5, "0 1 0 0", {}},
        {dir + ";7778;1;1;1", -1, "-1 1 1 1", {"invalid mode 7778", "failed to get mod"}},
        {dir + ";-1;1;1;1", -1, "-1 1 1 1", {"invalid mode -1", "failed to get mod"}},
        {dir + ";;1;1;1", -1, "-1 1 1 1", {noMode, "failed to get mod"}},
        {dir + ";1;;1;1", 5, "1 0 1 1", {"type is NULL or length of type is 0"}},
        {dir + ";1;11;1;1", 5, "1 0 1 1", {}},
        {dir + ";1;1;;1", 5, "1 1 0 1", {}},
        {dir + ";1;1;-1;1", -1, "0 0 -1 1", {"failed to get size"}},
        {dir + ";1;1;1;-1", -1, "0 0 0 -1", {"failed to get modified_time"}},
        {none + ";1;0;1;1",
         -1,
         "1 0 1 1",
         {"if_file_type_legal " + none + " error is [No such file or directory]\n"}},
        {(tree / "link") + ";1;0;1;1", -1, "1 0 1 1", {}},
        {(tree / "fifo") + ";1;0;1;1", -1, "1 0 1 1", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        log.clear();
        File_info info;
        info.mode = info.type = 77;
        info.size = info.modified_time = 77;
        std::string copy = row.line;
        EXPECT_EQ(parse_line_info(copy.data(), info), row.fields);
        EXPECT_EQ(std::to_string(info.mode) + " " + std::to_string(info.type) + " " +
                      std::to_string(info.size) + " " + std::to_string(info.modified_time),
                  row.values);
        EXPECT_EQ(errors(), row.errors);
        const bool isWarned = row.fields <= 0 && row.line != "a;b";
        EXPECT_EQ(warnings(), row.fields == 0 ? Lines{"line ends with invalid character, skip this "
                                                      "line"}
                              : isWarned      ? Lines{"handle one line failed, skip this line"}
                                              : Lines{});
        if (row.fields == 5) {
            EXPECT_EQ(info.path, row.line.substr(0, strlen(info.path)));
            EXPECT_TRUE(exists(info.path));
        }
    }
}

TEST_F(RecordTest, RestoreGivesModesBackRelabelsAndEndsAtWhatIsNoRecord) {
    Lines relabelled;
    int refusal = 0;
    const android::host::ScopedRelabelObserver observer(
        [&](const char* path, const char* seInfo, uid_t uid, unsigned int flags) {
            relabelled.push_back(std::string(path) + " " + seInfo + " " + std::to_string(uid) +
                                 " " + std::to_string(flags));
            return refusal;
        });
    ASSERT_EQ(chown(tree.path().c_str(), 10123, 1), 0);
    const std::string last = (tree / "last") + ";384;0;1;1\n";
    const std::string longPath = pathOf(2047 - strlen(";384;0;1;1\n"));
    const std::string tail(2046, 'x');
    const struct {
        const char* name;
        std::string records;
        std::string line;  // where it ends, as the message shows it; "-": nowhere
    } rows[] = {
        {"none", "", "-"},
        {"CRLF, and a mode beyond the bits", (tree / "two\nlines") + ";2541;0;9;9\r\n" + last, "-"},
        {"no newline at the end", last + tree.path() + ";493;1;1;1", "-"},
        {"2047 characters", longPath + ";384;0;1;1\n" + last, "-"},
        {"first line is no path", "file;384;0;1;1\n" + last, ""},
        {"too few fields", "/x;1\n" + last, "/x"},
        {"an empty line", "\n" + last, ""},
        {"a line that is too long", last + "/" + tail + ";384;0;1;1\n", "/" + tail},
        {"NUL bytes", std::string(5000, '\0') + last, ""},
        {"binary", std::string("\1\2;;;;\xff\n", 8) + last, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        relabelled.clear();
        writeFile(tree / "last", "x", 0640);
        writeFile(tree / "two\nlines", "x");
        const bool isWhole = row.line == "-";
        EXPECT_EQ(restore(row.records), isWhole ? 0 : -1);
        const bool isReached = row.records.rfind(last, 0) == 0 || (isWhole && !row.records.empty());
        EXPECT_EQ(modeOf(tree / "last"), isReached ? 0600u : 0640u);
        EXPECT_EQ(relabelled, isWhole ? Lines{tree.path() + " default 10123 4"} : Lines{});
        EXPECT_EQ(isWhole ? "-" : errors().back(),
                  isWhole ? "-" : "miss info from this line(" + row.line + "), skip it");
    }
    EXPECT_EQ(restore(longPath + ";384;0;1;1\n" + last), 0);
    EXPECT_EQ(warnings(), Lines{"enough data in this line, maybe too long ?"});
    EXPECT_EQ(modeOf(longPath), 0600u);
    restore((tree / "two\nlines") + ";2541;0;9;9\n");
    EXPECT_EQ(modeOf(tree / "two\nlines"), 04755u);
    refusal = EACCES;
    EXPECT_EQ(restore(""), -1);
    EXPECT_EQ(errors(), (Lines{"Failed recursive restorecon for " + tree.path() +
                                   " , se_info(default), uid(10123), error [Permission denied]\n",
                               "do_se_restorecon_pkgdir [" + tree.path() + "] error [13]."}));
    log.clear();
    const std::string gone = tree / "gone";
    EXPECT_EQ(restore_application_from_infofile("/data", nullptr, "s"), -1);
    EXPECT_EQ(restore_application_from_infofile("/data", gone.c_str(), "s"), -1);
    writeFile(tree / "attr.txt", "");
    EXPECT_EQ(restore_application_from_infofile(gone.c_str(), (tree / "attr.txt").c_str(), "s"),
              -1);
    EXPECT_EQ(errors(), (Lines{"info_file is NULL", "failed to open info_file",
                               "do_se_restorecon_pkgdir stat [" + gone +
                                   "] error [No such file or directory].",
                               "do_se_restorecon_pkgdir [" + gone + "] error [2]."}));
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
