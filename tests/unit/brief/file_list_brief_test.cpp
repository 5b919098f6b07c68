#include <algorithm>

#include "brief/brief_walk.h"
#include "brief/search_rules.h"
#include "tests/unit/brief/brief_test.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using Lines = std::vector<std::string>;

android::Vector<std::string> vectorOf(const Lines& lines) {
    android::Vector<std::string> result;
    for (const std::string& line : lines) {
        result.add(line);
    }
    return result;
}

Lines linesOf(const android::Vector<std::string>& paths) {
    return {paths.begin(), paths.end()};
}

TEST(FilterPath, KeepsWhatContainsNoOther) {
    const struct {
        const char* name;
        Lines paths;
        Lines result;
    } rows[] = {
        {"a folder and what is in it", {"/data/a/b/", "/data/a/"}, {"/data/a/"}},
        {"names that begin alike", {"/data/a/", "/data/ab/"}, {"/data/a/", "/data/ab/"}},
        {"anywhere in the path", {"/x/a/", "/a/"}, {"/a/"}},
        {"each once", {"/b/", "/a/", "/b/"}, {"/b/", "/a/"}},
        {"all in the root", {"/b/", "/", "/a/"}, {"/"}},
        {"all but the empty one", {"/b/", "", ""}, {""}},
        {"a chain", {"/a/b/c/", "/b/c/", "/c/"}, {"/c/"}},
        {"none", {}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        android::Vector<std::string> result;
        FilterPath(vectorOf(row.paths), result);
        EXPECT_EQ(linesOf(result), row.result);
    }
    android::Vector<std::string> result = vectorOf({"/a/"});
    FilterPath(vectorOf({"/a/", "/b/"}), result);
    EXPECT_EQ(linesOf(result), (Lines{"/a/", "/b/"})) << "what is there already counts";
}

// The rule as one would write it down, against the way in which it is computed.
TEST(FilterPath, AgreesWithComparingEachWithEach) {
    unsigned int seed = 1;
    for (int round = 0; round < 300; ++round) {
        Lines paths;
        for (int i = 0; i < 12; ++i) {
            std::string path;
            for (int length = rand_r(&seed) % 5; length >= 0; --length) {
                path += "ab/"[rand_r(&seed) % 3];
            }
            paths.push_back(path);
        }
        Lines expected;
        for (const std::string& path : paths) {
            const bool isDropped = std::any_of(paths.begin(), paths.end(), [&](const auto& other) {
                return other != path && path.find(other) != std::string::npos;
            });
            if (!isDropped && std::count(expected.begin(), expected.end(), path) == 0) {
                expected.push_back(path);
            }
        }
        android::Vector<std::string> result;
        FilterPath(vectorOf(paths), result);
        ASSERT_EQ(linesOf(result), expected) << "round " << round;
    }
}

TEST(NeedFilterWithExclude, LooksForWholeComponentsAnywhere) {
    const android::Vector<std::string> excludes = vectorOf({"/c", "/data/x"});
    EXPECT_TRUE(NeedFilterWithExclude("/data/a/c", excludes));
    EXPECT_TRUE(NeedFilterWithExclude("/data/a/c/d/", excludes));
    EXPECT_TRUE(NeedFilterWithExclude("/data/x", excludes));
    EXPECT_FALSE(NeedFilterWithExclude("/data/a/cc", excludes));
    EXPECT_FALSE(NeedFilterWithExclude("/data/xy", excludes));
    EXPECT_FALSE(NeedFilterWithExclude("/data/a/c", android::Vector<std::string>()));
    EXPECT_TRUE(NeedFilterWithExclude("", android::Vector<std::string>()));
    EXPECT_TRUE(NeedFilterWithExclude(nullptr, excludes));
}

class FileListBriefTest : public BriefTest {
  protected:
    // Runs a brief of the rules; "@" stands for the tree's path. Returns the sorted paths.
    Lines briefOf(std::string rules) {
        for (size_t at = rules.find('@'); at != std::string::npos; at = rules.find('@')) {
            rules.replace(at, 1, tree.path());
        }
        writeFile(tree / "search", rules);
        result = run(GET_BRIEFS_BY_FILE, "search", "brief");
        Lines paths = pathsIn("brief");
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    int32_t result = 0;
};

TEST_F(FileListBriefTest, RulesAndWhatTheyList) {
    writeFile(tree / "a/f", "1");
    writeFile(tree / "a/c/g", "12");
    writeFile(tree / "a/d/c/h", "123");
    writeFile(tree / "ab/i", "1234");
    const struct {
        const char* name;
        const char* rules;
        Lines paths;
        const char* size;
    } rows[] = {
        {"a folder gets no record itself", "[include]@/ab\n", {"ab/i"}, "4"},
        {"CRLF and a slash", "[include]@/ab/\r\n", {"ab/i"}, "4"},
        {"the inner folder is part of the outer",
         "[include]@/a/c\n[include]@/a\n",
         {"a/c", "a/c/g", "a/d", "a/d/c", "a/d/c/h", "a/f"},
         "6"},
        {"an exclude among the first entries",
         "[include]@/a\n[exclude]@/a/c\n",
         {"a/d", "a/d/c", "a/d/c/h", "a/f"},
         "4"},
        {"an exclude further down is without effect",
         "[include]@/a\n[exclude]@/a/d/c\n",
         {"a/c", "a/c/g", "a/d", "a/d/c", "a/d/c/h", "a/f"},
         "6"},
        {"an exclude by a name alone",
         "[include]@/a\n[exclude]/c\n",
         {"a/d", "a/d/c", "a/d/c/h", "a/f"},
         "4"},
        {"an exclude above the include", "[include]@/a/c\n[exclude]@/a\n", {"a/c/g"}, "2"},
        {"an include that another's exclude covers",
         "[include]@/a/c\n[include]@/ab\n[exclude]/c\n",
         {"ab/i"},
         "4"},
        {"a file", "[include]@/a/f\n[exclude]@/a/f\n", {"a/f"}, "1"},
        {"what is not there", "[include]@/none\n[include]@/ab\n", {"ab/i"}, "4"},
        {"lines of no use", "# x\n\n@/a\n[include]@/ab\n", {"ab/i"}, "4"},
        {"a tag behind the line's start", "x[include]@/ab\n", {}, "0"},
        {"no path: the root, which all others contain", "[include]\n[include]@/ab\n", {}, "0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(briefOf(row.rules), row.paths);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(sizes().back(), row.size);
    }
}

TEST_F(FileListBriefTest, ALinkThatIsAskedForIsFollowed) {
    writeFile(tree / "outside", "12345");
    makeLink("outside", tree / "link");
    EXPECT_EQ(briefOf("[include]@/link\n"), Lines{"link"});
    EXPECT_EQ(sizes(), Lines{"5"});
}

TEST_F(FileListBriefTest, FailuresHaveTheirCodesAndMessages) {
    writeFile(tree / "good", "[include]" + tree.path() + "/good\n");
    writeFile(tree / "excludes", "[exclude]" + tree.path() + "\n");
    makeDir(tree / "dir");
    const std::string longRule = "[include]/" + std::string(5000, 'x') + "\n";
    writeFile(tree / "long", longRule);
    writeFile(tree / "binary", std::string("\0\xff[exclude]\0[include]\n", 22));
    const struct {
        const char* from;
        const char* to;
        std::string lastError;
    } rows[] = {
        {"none", "brief", "GetIncludeAndExcludeFolder failed"},
        {"excludes", "brief", "GetIncludeAndExcludeFolder failed"},
        {"binary", "brief", "GetIncludeAndExcludeFolder failed"},
        {"good", "dir", "CreateAndFixupBriefFile:fopen [" + (tree / "dir") + "] error\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.from);
        log.clear();
        EXPECT_EQ(run(GET_BRIEFS_BY_FILE, row.from, row.to), -21);
        ASSERT_FALSE(errors().empty());
        EXPECT_EQ(errors().back(), row.lastError);
    }
    EXPECT_EQ(run(GET_BRIEFS_BY_FILE, "long", "brief"), 0) << "pieces that are no path";
    EXPECT_EQ(readFile(tree / "brief"), "");
    EXPECT_EQ(manager->GetFileBriefsByFile(makeTask(GET_BRIEFS_BY_DIR, "a", "b")), -21);
}

// More rules than could be compared with each other while a client waits.
TEST_F(FileListBriefTest, ManyRulesDoNotHoldTheWorkerUp) {
    std::string rules = "[include]@/ab\n";
    for (int i = 0; i < 50000; ++i) {
        rules += "[include]/data/none/" + std::to_string(i) + "x\n[exclude]/data/none/" +
                 std::to_string(i) + "y\n";
    }
    for (size_t length = 1; length < 2000; ++length) {
        rules += "[include]/" + std::string(length, 'x') + std::to_string(length) + "\n";
    }
    for (int i = 0; i < 1000; ++i) {
        rules += "[include]" + std::to_string(i) + std::string(2000, '/') + "\n";
    }
    writeFile(tree / "ab/i", "1");
    EXPECT_EQ(briefOf(rules), Lines{"ab/i"});
}

}  // namespace
}  // namespace peltex_test
