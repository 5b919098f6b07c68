// Briefs and the backups that follow them, from the handler's input to what it leaves.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <set>

#include "brief/search_rules.h"
#include "tests/support/handler_test.h"

namespace peltex_test {
namespace {

using namespace android::installd;

class BriefTest : public HandlerTest {
  protected:
    BriefTest() {
        manager->startBackupSession(client);
        writeFile(tree / "_a/f", "1", 0600);
        writeFile(tree / "_a/c/g", "12");
        writeFile(tree / "_a/d/c/h", "123");
        writeFile(tree / "_ab/i", "1234");
        makeDir(tree / "empty");
        writeFile(tree / "odd/classes.dex", "12345");
        makeFifo(tree / "odd/fifo");
        makeSocket(tree / "odd/socket");
        makeLink(tree / "_a/f", tree / "odd/link");
        writeFile(tree / "odd/lib/n.so", "123");
        writeFile(tree / "odd/two\nlines", "12");
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

    // The handler's result with the sizes that it tells, and its last error or what it has written.
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
        const std::string written =
            type == BACKUP_BY_FILE ? to + to.substr(to.rfind('/')) + ".txt" : to;
        return text + (result != 0 ? errors().back() : sorted(readFile(tree / written)));
    }
    // The same from what a row says: what is written stands in braces.
    std::string meant(const std::string& text) const {
        const size_t records = std::min(text.find('{'), text.size());
        return expand(text.substr(0, records)) + sorted(expand(text.substr(records)));
    }

    // Directories may be read in any order.
    static std::string sorted(const std::string& text) {
        std::multiset<std::string> lines;
        for (size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos;
             at = end + 1) {
            lines.insert(text.substr(at, end + 1 - at));
        }
        return std::accumulate(lines.begin(), lines.end(), std::string());
    }
};

TEST_F(BriefTest, OfADirectory) {
    const struct {
        const char* from;
        std::string result;
    } rows[] = {
        {"_a", "0 6: {_a/c}{_a/c/g}{_a/d}{_a/d/c}{_a/d/c/h}{_a/f}"},
        {"empty", "0 0: "},
        {"none", "0 "},
        {"odd", "0 10: {odd/lib}{odd/lib/n.so}{odd/two\nlines}"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.from);
        writeFile(tree / "to/brief", "an older one");
        const int before = dup(0);
        close(before);
        EXPECT_EQ(run(GET_BRIEFS_BY_DIR, row.from, "to/brief"), meant(row.result));
        const int after = dup(0);
        close(after);
        EXPECT_EQ(after, before + (exists(tree / row.from) ? 1 : 0)) << "the stream stays open";
        EXPECT_EQ(ownerAndMode(tree / "to/brief"), "10123:10123 771");
    }
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "none", "new/brief"), "0 ");
    EXPECT_EQ(ownerAndMode(tree / "new"), "10123:10123 771");
    EXPECT_EQ(errors(), Lines{"GetFileBriefsByDir: " + (tree / "none") + " not exists"});
    run(GET_BRIEFS_BY_DIR, "_a", "brief");
    const std::string brief = readFile(tree / "brief");
    EXPECT_LT(brief.find("/d;"), brief.find("/d/c;")) << "a directory before what it holds";

    run(GET_BRIEFS_BY_DIR, "_a/f", "brief");
    EXPECT_EQ(errors()[0], "Failed to WriteBriefUnderDir, opendir(" + (tree / "_a/f") + ") error");
    std::string path = tree / "deep";
    while (path.size() < 1900) {
        path += "/" + std::string(99, 'd');
    }
    path += "/" + std::string(2035 - path.size(), 'n');
    writeFile(path, "x");
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "deep", "brief").substr(0, 4), "-20 ")
        << "no room for a record";
    std::filesystem::remove(path);
    makeDir(path);
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "deep", "brief").substr(0, 4), "-20 ") << "nor a directory's";
}

TEST_F(BriefTest, ByRules) {
    const std::string all = "{_a/c}{_a/c/g}{_a/d}{_a/d/c}{_a/d/c/h}{_a/f}";
    const struct {
        const char* name;
        std::string rules;
        std::string result;
    } rows[] = {
        {"a folder gets no record itself", "[include]@/_ab\n", "0 4: {_ab/i}"},
        {"CRLF and a slash", "[include]@/_ab/\r\n", "0 4: {_ab/i}"},
        {"the inner folder is part of the outer", "[include]@/_a/c\n[include]@/_a\n",
         "0 6: " + all},
        {"an exclude among the first entries", "[include]@/_a\n[exclude]@/_a/c\n",
         "0 4: {_a/d}{_a/d/c}{_a/d/c/h}{_a/f}"},
        {"an exclude further down has no effect", "[include]@/_a\n[exclude]@/_a/d/c\n",
         "0 6: " + all},
        {"an exclude by a name alone", "[include]@/_a\n[exclude]/c\n",
         "0 4: {_a/d}{_a/d/c}{_a/d/c/h}{_a/f}"},
        {"an exclude above the include", "[include]@/_a/c\n[exclude]@/_a\n", "0 2: {_a/c/g}"},
        {"an include that another's exclude covers",
         "[include]@/_a/c\n[include]@/_ab\n[exclude]/c\n", "0 4: {_ab/i}"},
        {"a file, whatever it is", "[include]@/_a/f\n[exclude]@/_a/f\n", "0 1: {_a/f}"},
        {"a link is followed", "[include]@/odd/link\n", "0 1: {odd/link}"},
        {"what is not there", "[include]@/none\n[include]@/_ab\n", "0 4: {_ab/i}"},
        {"lines of no use", "# x\n\n@/_a\n[include]@/_ab\n", "0 4: {_ab/i}"},
        {"a tag behind the line's start", "x[include]@/_ab\n", "0 0: "},
        {"the root, which all others contain", "[include]\n[include]@/_ab\n", "0 0: "},
        {"no include", "[exclude]@/_a\n", "-21 GetIncludeAndExcludeFolder failed"},
        {"binary", std::string("\0\xff[exclude]\0[include]\n", 22),
         "-21 GetIncludeAndExcludeFolder failed"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(tree / "rules", expand(row.rules));
        EXPECT_EQ(run(GET_BRIEFS_BY_FILE, "rules", "brief"), meant(row.result));
    }
    writeFile(tree / "rules", expand("[include]@/_ab\n"));
    EXPECT_EQ(run(GET_BRIEFS_BY_FILE, "rules", "_a/f/x/brief"),
              "-21 CreateAndFixupBriefFile failed, createDir error");
    // More rules than could be compared with each other while a client waits.
    std::string rules = expand("[include]@/_ab\n");
    for (int i = 0; i < 20000; ++i) {
        const std::string path = "/data/none/" + std::to_string(i);
        rules += "[include]" + path + "x\n[exclude]" + path + "y\n";
    }
    for (size_t length = 1; length < 400; ++length) {
        rules += "[include]/" + std::string(length, 'x') + std::to_string(length) + "\n";
    }
    for (int i = 0; i < 50; ++i) {
        rules += "[include]" + std::to_string(i) + std::string(2000, '/') + "\n";
    }
    writeFile(tree / "rules", rules);
    EXPECT_EQ(run(GET_BRIEFS_BY_FILE, "rules", "brief"), meant("0 4: {_ab/i}"));
}

TEST_F(BriefTest, Followed) {
    const std::string skipped = ";420;0;1;1\n";
    const struct {
        const char* name;
        std::string lines;
        std::string records;
        Lines tree;
    } rows[] = {
        {"none", "", "", {}},
        {"what lies behind the application's name",
         "{_a/d/c/h}{_a/d}{_a/f}",
         "{_a/d/c/h}{_a/d}{_a/f}",
         {"d/", "d/c/", "d/c/h", "f"}},
        {"a path without the name goes into the folder",
         "{odd/lib/n.so}",
         "{odd/lib/n.so}",
         {"n.so"}},
        {"a directory without the name is the folder", "{odd/lib}", "{odd/lib}", {}},
        {"no record", "no record\n{_a/f}", "{_a/f}", {"f"}},
        {"two fields", "ab;cd\n{_a/f}", "{_a/f}", {"f"}},
        {"what is gone", "@/_a/none" + skipped + "{_a/f}", "{_a/f}", {"f"}},
        {"a link", "@/odd/link" + skipped + "{_a/f}", "{_a/f}", {"f"}},
        {"what is left out", "@/odd/classes.dex" + skipped + "{_a/f}", "{_a/f}", {"f"}},
        {"a mode that is none", "@/_a/f;9999;0;1;1\n{_a/f}", "{_a/f}", {"f"}},
        {"a long line", "/" + std::string(5000, 'x') + skipped + "{_a/f}", "{_a/f}", {"f"}},
        {"NUL bytes", std::string("\0\1;;;;\n", 7) + "{_a/f}", "{_a/f}", {"f"}},
        {"a name over two lines", "{odd/two\nlines}{_a/f}", "{_a/f}", {"f"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove_all(tree / "bk");
        writeFile(tree / "brief", expand(row.lines));
        EXPECT_EQ(run(BACKUP_BY_FILE, "brief", "bk/_a"), meant("0 " + row.records));
        EXPECT_EQ(readFile(tree / "bk/_a/_a.txt"), expand(row.records)) << "in the brief's order";
        EXPECT_EQ(listTree(tree / "bk/_a/_a"), row.tree);
        EXPECT_EQ(ownerAndMode(tree / "bk/_a/_a.txt"), "10123:10123 771");
    }
    EXPECT_EQ(ownerAndMode(tree / "bk/_a/_a/f"), "10123:10123 771");

    makeDir(tree / "in/_a/_a/f/f");
    writeFile(tree / "brief", expand("{_a/f}{_a/c/g}"));
    run(BACKUP_BY_FILE, "brief", "in/_a");
    EXPECT_EQ(errors(),
              (Lines{"Failed to open file: " + (tree / "in/_a/_a/f/f") + ", error=Is a directory",
                     "Failed to BackupFile, copyFile(" + (tree / "_a/f") + ") error",
                     "backup failed,GetBackupFileAndProcess error\n"}));
    EXPECT_FALSE(exists(tree / "in/_a/_a/c")) << "nothing behind what is in the way";
}

// Each line records the attribute file in itself, and the last copies it over the brief: what that
// had when it was opened is all that is followed.
TEST_F(BriefTest, ThatFeedsItselfEnds) {
    std::string lines;
    for (int i = 0; i < 400; ++i) {
        lines += expand("@/bk/_a/_a.txt;0;1;;\n");
    }
    writeFile(tree / "bk/_a/_a/_a.txt", lines + expand("@/bk/_a/_a.txt;0;;;\n"));
    makeDir(tree / "bk/_a/_a");
    EXPECT_EQ(run(BACKUP_BY_FILE, "bk/_a/_a/_a.txt", "bk/_a")[0], '0');
    const std::string records = readFile(tree / "bk/_a/_a.txt");
    EXPECT_EQ(std::count(records.begin(), records.end(), '\n'), 401);
}

TEST_F(BriefTest, HandlersRefuseTasksOfOtherKinds) {
    EXPECT_EQ(manager->BackupByFileBase(makeTask(BACKUP_FILE, tree / "rules", tree / "to")), -15);
    EXPECT_EQ(manager->GetFileBriefsByDir(makeTask(BACKUP_FILE, tree / "_a", tree / "to")), -20);
    EXPECT_EQ(manager->GetFileBriefsByFile(makeTask(BACKUP_FILE, tree / "_a", tree / "to")), -21);
    EXPECT_FALSE(exists(tree / "to"));
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
    const std::pair<const char*, bool> rows[] = {{"/data/_a/c", true}, {"/data/_a/c/d/", true},
                                                 {"/data/x", true},    {"/data/_a/cc", false},
                                                 {"/data/xy", false},  {"/y/aaa", true},
                                                 {"/y/aaa/b", true},   {"/y/aaab", false},
                                                 {"/y/a", false},      {"", true},
                                                 {nullptr, true}};
    const ExcludeRules excludes = vectorOf({"/c", "/data/x", "aa"});
    for (const auto& [path, isExcluded] : rows) {
        EXPECT_EQ(NeedFilterWithExclude(path, excludes), isExcluded) << (path ? path : "null");
    }
    EXPECT_FALSE(NeedFilterWithExclude("/data/_a/c", android::Vector<std::string>()));
}

}  // namespace
}  // namespace peltex_test
