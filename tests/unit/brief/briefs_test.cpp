// Briefs and the backups that follow them, from the handler's input to what it leaves.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "brief/search_rules.h"
#include "tests/support/handler_test.h"

namespace peltex_test {
namespace {

using namespace android::installd;

class BriefTest : public HandlerTest {
  protected:
    BriefTest() {
        manager->startBackupSession(client);
        writeFile(tree / "com.a/f", "1", 0600);
        writeFile(tree / "com.a/c/g", "12");
        writeFile(tree / "com.a/d/c/h", "123");
        writeFile(tree / "com.ab/i", "1234");
        makeDir(tree / "empty");
        writeFile(tree / "odd/classes.dex", "12345");
        makeFifo(tree / "odd/fifo");
        makeSocket(tree / "odd/socket");
        makeLink(tree / "com.a/f", tree / "odd/link");
        writeFile(tree / "odd/lib/n.so", "123");
        writeFile(tree / "odd/two\nlines", "12");
        makeDir(tree / "in/the/way.txt");
    }

    // The record of an entry as it is now.
    std::string recordOf(const std::string& name) const {
        struct stat status = {};  // of what a link leads to
        EXPECT_EQ(stat((tree / name).c_str(), &status), 0);
        return (tree / name) + ";" + std::to_string(status.st_mode & 07777) + ";" +
               (S_ISDIR(status.st_mode) ? "1;" : "0;") + std::to_string(status.st_size) + ";" +
               std::to_string(status.st_mtime) + "\n";
    }

    // "@" stands for the tree's path, {NAME} for the record of an entry.
    std::string expand(std::string text) const {
        for (size_t at = text.find('{'); at != std::string::npos; at = text.find('{')) {
            const size_t end = text.find('}', at);
            text.replace(at, end + 1 - at, recordOf(text.substr(at + 1, end - at - 1)));
        }
        for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@')) {
            text.replace(at, 1, tree.path());
        }
        return text;
    }

    // The handler's result with its last error, or with what it has written; "@" as above.
    std::string run(BackupTaskType type, const std::string& from, const std::string& to) {
        log.clear();
        const size_t told = client->statuses().size();
        android::sp<BackupTask> task = makeTask(type, tree / from, tree / to);
        const int32_t result = manager->processTask(task);
        std::string text = std::to_string(result) + " ";
        const auto statuses = client->statuses();
        for (size_t i = told; i < statuses.size(); ++i) {
            text += statuses[i].code == 6 ? statuses[i].message + ": " : "";
        }
        const bool isFollowed = type == BACKUP_BY_FILE;
        const std::string written =
            isFollowed ? readFile(tree / to + "/" + to.substr(to.rfind('/') + 1) + ".txt")
                       : readFile(tree / to);
        text += result != 0 ? errors().back() : sorted(written);
        for (size_t at = text.find(tree.path()); at != std::string::npos;
             at = text.find(tree.path())) {
            text.replace(at, tree.path().size(), "@");
        }
        return text;
    }

    // Lines in order, so that directories may be read in any.
    static std::string sorted(const std::string& text) {
        Lines lines;
        for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos;
             at = end + 1) {
            lines.push_back(text.substr(at, end + 1 - at));
        }
        std::sort(lines.begin(), lines.end());
        std::string all;
        for (const std::string& line : lines) {
            all += line;
        }
        return all;
    }
    std::string listed(const std::string& size, const std::string& records) const {
        std::string text = "0 " + size + sorted(expand(records));
        for (size_t at = text.find(tree.path()); at != std::string::npos;
             at = text.find(tree.path())) {
            text.replace(at, tree.path().size(), "@");
        }
        return text;
    }
};

TEST_F(BriefTest, OfADirectory) {
    const struct {
        const char* from;
        const char* size;
        const char* records;
    } rows[] = {
        {"com.a", "6: ", "{com.a/c}{com.a/c/g}{com.a/d}{com.a/d/c}{com.a/d/c/h}{com.a/f}"},
        {"empty", "0: ", ""},
        {"none", "", ""},
        {"odd", "10: ", "{odd/lib}{odd/lib/n.so}{odd/two\nlines}"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.from);
        writeFile(tree / "to/brief", "an older one");
        const int before = dup(0);
        close(before);
        EXPECT_EQ(run(GET_BRIEFS_BY_DIR, row.from, "to/brief"), listed(row.size, row.records));
        const int after = dup(0);
        close(after);
        EXPECT_EQ(after, before + (exists(tree / row.from) ? 1 : 0)) << "the stream stays open";
        EXPECT_EQ(ownerAndMode(tree / "to/brief"), "10123:10123 771");
    }
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "none", "new/brief"), "0 ");
    EXPECT_EQ(ownerAndMode(tree / "new"), "10123:10123 771");
    EXPECT_EQ(errors(), Lines{"GetFileBriefsByDir: " + (tree / "none") + " not exists"});
    run(GET_BRIEFS_BY_DIR, "com.a", "brief");
    const std::string brief = readFile(tree / "brief");
    EXPECT_LT(brief.find("/d;"), brief.find("/d/c;")) << "a directory before what it holds";
}

TEST_F(BriefTest, ByRules) {
    const char* const all = "{com.a/c}{com.a/c/g}{com.a/d}{com.a/d/c}{com.a/d/c/h}{com.a/f}";
    const struct {
        const char* name;
        const char* rules;
        const char* size;
        const char* records;
    } rows[] = {
        {"a folder gets no record itself", "[include]@/com.ab\n", "4: ", "{com.ab/i}"},
        {"CRLF and a slash", "[include]@/com.ab/\r\n", "4: ", "{com.ab/i}"},
        {"the inner folder is part of the outer", "[include]@/com.a/c\n[include]@/com.a\n",
         "6: ", all},
        {"an exclude among the first entries", "[include]@/com.a\n[exclude]@/com.a/c\n",
         "4: ", "{com.a/d}{com.a/d/c}{com.a/d/c/h}{com.a/f}"},
        {"an exclude further down has no effect", "[include]@/com.a\n[exclude]@/com.a/d/c\n",
         "6: ", all},
        {"an exclude by a name alone", "[include]@/com.a\n[exclude]/c\n",
         "4: ", "{com.a/d}{com.a/d/c}{com.a/d/c/h}{com.a/f}"},
        {"an exclude above the include", "[include]@/com.a/c\n[exclude]@/com.a\n",
         "2: ", "{com.a/c/g}"},
        {"an include that another's exclude covers",
         "[include]@/com.a/c\n[include]@/com.ab\n[exclude]/c\n", "4: ", "{com.ab/i}"},
        {"a file, whatever it is", "[include]@/com.a/f\n[exclude]@/com.a/f\n", "1: ", "{com.a/f}"},
        {"a link is followed", "[include]@/odd/link\n", "1: ", "{odd/link}"},
        {"what is not there", "[include]@/none\n[include]@/com.ab\n", "4: ", "{com.ab/i}"},
        {"lines of no use", "# x\n\n@/com.a\n[include]@/com.ab\n", "4: ", "{com.ab/i}"},
        {"a tag behind the line's start", "x[include]@/com.ab\n", "0: ", ""},
        {"the root, which all others contain", "[include]\n[include]@/com.ab\n", "0: ", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(tree / "rules", expand(row.rules));
        EXPECT_EQ(run(GET_BRIEFS_BY_FILE, "rules", "brief"), listed(row.size, row.records));
    }
    // More rules than could be compared with each other while a client waits.
    std::string rules = expand("[include]@/com.ab\n");
    for (int i = 0; i < 20000; ++i) {
        const std::string path = "/data/none/" + std::to_string(i);
        rules += "[include]" + path + "x\n[exclude]" + path + "y\n";
    }
    for (size_t length = 1; length < 800; ++length) {
        rules += "[include]/" + std::string(length, 'x') + std::to_string(length) + "\n";
    }
    for (int i = 0; i < 300; ++i) {
        rules += "[include]" + std::to_string(i) + std::string(2000, '/') + "\n";
    }
    writeFile(tree / "rules", rules);
    EXPECT_EQ(run(GET_BRIEFS_BY_FILE, "rules", "brief"), listed("4: ", "{com.ab/i}"));
}

TEST_F(BriefTest, Followed) {
    const std::string skipped = ";420;0;1;1\n";
    const struct {
        const char* name;
        std::string lines;
        const char* records;
        Lines tree;
    } rows[] = {
        {"none", "", "", {}},
        {"what lies behind the application's name",
         "{com.a/d/c/h}{com.a/d}{com.a/f}",
         "{com.a/d/c/h}{com.a/d}{com.a/f}",
         {"d/", "d/c/", "d/c/h", "f"}},
        {"a path without the name goes into the folder",
         "{odd/lib/n.so}",
         "{odd/lib/n.so}",
         {"n.so"}},
        {"a directory without the name is the folder", "{odd/lib}", "{odd/lib}", {}},
        {"no record", "no record\n{com.a/f}", "{com.a/f}", {"f"}},
        {"two fields", "ab;cd\n{com.a/f}", "{com.a/f}", {"f"}},
        {"what is gone", "@/com.a/none" + skipped + "{com.a/f}", "{com.a/f}", {"f"}},
        {"a link", "@/odd/link" + skipped + "{com.a/f}", "{com.a/f}", {"f"}},
        {"what is left out", "@/odd/classes.dex" + skipped + "{com.a/f}", "{com.a/f}", {"f"}},
        {"a mode that is none", "@/com.a/f;9999;0;1;1\n{com.a/f}", "{com.a/f}", {"f"}},
        {"a long line", "/" + std::string(5000, 'x') + skipped + "{com.a/f}", "{com.a/f}", {"f"}},
        {"NUL bytes", std::string("\0\1;;;;\n", 7) + "{com.a/f}", "{com.a/f}", {"f"}},
        {"a name over two lines", "{odd/two\nlines}{com.a/f}", "{com.a/f}", {"f"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove_all(tree / "bk");
        writeFile(tree / "brief", expand(row.lines));
        EXPECT_EQ(run(BACKUP_BY_FILE, "brief", "bk/com.a"), listed("", row.records));
        EXPECT_EQ(readFile(tree / "bk/com.a/com.a.txt"), expand(row.records))
            << "in the brief's order";
        EXPECT_EQ(listTree(tree / "bk/com.a/com.a"), row.tree);
        EXPECT_EQ(ownerAndMode(tree / "bk/com.a/com.a.txt"), "10123:10123 771");
    }
    EXPECT_EQ(ownerAndMode(tree / "bk/com.a/com.a/f"), "10123:10123 771");
}

// Each line records the attribute file in itself, and the last copies it over the brief: what that
// had when it was opened is all that is followed.
TEST_F(BriefTest, ThatFeedsItselfEnds) {
    std::string lines;
    for (int i = 0; i < 400; ++i) {
        lines += expand("@/bk/com.a/com.a.txt;0;1;;\n");
    }
    writeFile(tree / "bk/com.a/com.a/com.a.txt", lines + expand("@/bk/com.a/com.a.txt;0;;;\n"));
    makeDir(tree / "bk/com.a/com.a");
    EXPECT_EQ(run(BACKUP_BY_FILE, "bk/com.a/com.a/com.a.txt", "bk/com.a")[0], '0');
    const std::string records = readFile(tree / "bk/com.a/com.a.txt");
    EXPECT_EQ(std::count(records.begin(), records.end(), '\n'), 401);
}

TEST_F(BriefTest, Failures) {
    writeFile(tree / "rules", expand("[include]@/com.a/f\n"));
    writeFile(tree / "excludes", expand("[exclude]@/com.a\n"));
    writeFile(tree / "binary", std::string("\0\xff[exclude]\0[include]\n", 22));
    writeFile(tree / "brief", expand("{com.a/f}"));
    writeFile(tree / "x/brief", expand("{com.a/f}{com.a/c/g}"));
    makeDir(tree / "bk/com.a/com.a/f/f");
    const std::string inTheWay = "CreateAndFixupBriefFile:fopen [@/in/the/way.txt] error\n";
    const struct {
        BackupTaskType type;
        const char* from;
        const char* to;
        std::string error;
    } rows[] = {
        {GET_BRIEFS_BY_DIR, "com.a", "com.a/f/x/brief",
         "-20 CreateAndFixupBriefFile failed, createDir error"},
        {GET_BRIEFS_BY_DIR, "com.a", "in/the/way.txt", "-20 " + inTheWay},
        {GET_BRIEFS_BY_DIR, "com.a/f", "to",
         "-20 GetFileBriefsByDir:WriteBriefUnderDir [@/com.a/f] error\n"},
        {GET_BRIEFS_BY_FILE, "none", "to", "-21 GetIncludeAndExcludeFolder failed"},
        {GET_BRIEFS_BY_FILE, "excludes", "to", "-21 GetIncludeAndExcludeFolder failed"},
        {GET_BRIEFS_BY_FILE, "binary", "to", "-21 GetIncludeAndExcludeFolder failed"},
        {GET_BRIEFS_BY_FILE, "rules", "in/the/way.txt", "-21 " + inTheWay},
        {BACKUP_BY_FILE, "brief", "com.a/f/a",
         "-15 backup failed,create @/com.a/f/a/a failed, error=Not a directory"},
        {BACKUP_BY_FILE, "brief", "in/the/way", "-15 backup failed,create @/in/the/way/way failed"},
        {BACKUP_BY_FILE, "none", "bk/b", "-15 backup failed,GetBackupFileAndProcess error\n"},
        {BACKUP_BY_FILE, "x/brief", "bk/com.a",
         "-15 backup failed,GetBackupFileAndProcess error\n"},
    };
    makeDir(tree / "in/the/way/way.txt");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.error);
        EXPECT_EQ(run(row.type, row.from, row.to),
                  std::string(row.to) == "in/the/way"
                      ? "-15 backup failed,fopen [@/in/the/way/way.txt] error\n"
                      : row.error);
    }
    EXPECT_EQ(errors()[errors().size() - 2],
              "Failed to BackupFile, copyFile(" + (tree / "com.a/f") + ") error");
    EXPECT_FALSE(exists(tree / "bk/com.a/com.a/c/g")) << "nothing behind it";
    for (const Status& status : client->statuses()) {
        EXPECT_NE(status.code, 6) << "no size is told";
    }
}

TEST_F(BriefTest, EntriesMayVanishUnderTheWalk) {
    makeDir(tree / "from");
    std::atomic<bool> isDone{false};
    std::thread remover([&] {
        while (!isDone) {
            for (const char* name : {"a", "b", "c", "d"}) {
                writeFile(tree / "from/" + name + "/file", "x");
                std::filesystem::remove_all(tree / "from/" + name);
            }
        }
    });
    for (int round = 0; round < 200; ++round) {
        const std::string result = run(GET_BRIEFS_BY_DIR, "from", "brief");
        EXPECT_TRUE(result[0] == '0' || result.rfind("-20", 0) == 0) << result;
    }
    isDone = true;
    remover.join();
}

android::Vector<std::string> vectorOf(const Lines& lines) {
    android::Vector<std::string> result;
    for (const std::string& line : lines) {
        result.add(line);
    }
    return result;
}

// The rule as one would write it down, against the way in which it is computed.
TEST(FilterPath, KeepsOnceWhatContainsNoOther) {
    unsigned int seed = 1;
    for (int round = 0; round < 500; ++round) {
        Lines paths;
        for (int i = rand_r(&seed) % 12; i > 0; --i) {
            std::string path;
            for (int length = rand_r(&seed) % 6; length > 0; --length) {
                path += "ab/"[rand_r(&seed) % 3];
            }
            paths.push_back(path);
        }
        Lines expected = {"held"};
        for (const std::string& path : paths) {
            const bool isDropped = std::any_of(paths.begin(), paths.end(), [&](const auto& other) {
                return other != path && path.find(other) != std::string::npos;
            });
            if (!isDropped && std::count(expected.begin(), expected.end(), path) == 0) {
                expected.push_back(path);
            }
        }
        android::Vector<std::string> result = vectorOf({"held"});
        paths.push_back("held");
        FilterPath(vectorOf(paths), result);
        ASSERT_EQ(Lines(result.begin(), result.end()), expected) << round;
    }
}

TEST(NeedFilterWithExclude, LooksForWholeComponentsAnywhere) {
    const std::pair<const char*, bool> rows[] = {
        {"/data/com.a/c", true}, {"/data/com.a/c/d/", true},
        {"/data/x", true},       {"/data/com.a/cc", false},
        {"/data/xy", false},     {"/y/aaa", true},
        {"/y/aaa/b", true},      {"/y/aaab", false},
        {"/y/a", false},         {"", true},
        {nullptr, true}};
    const ExcludeRules excludes = vectorOf({"/c", "/data/x", "aa"});
    for (const auto& [path, isExcluded] : rows) {
        EXPECT_EQ(NeedFilterWithExclude(path, excludes), isExcluded) << (path ? path : "null");
    }
    EXPECT_FALSE(NeedFilterWithExclude("/data/com.a/c", android::Vector<std::string>()));
}

}  // namespace
}  // namespace peltex_test
