#include "brief/brief_walk.h"

#include <unistd.h>

#include <algorithm>
#include <thread>

#include "tests/unit/brief/brief_test.h"

namespace peltex_test {
namespace {

using namespace android::installd;
using Lines = std::vector<std::string>;

class DirectoryBriefTest : public BriefTest {};

TEST_F(DirectoryBriefTest, ListsADirectoryBeforeItsContentsAndTellsTheirSize) {
    writeFile(tree / "from/a/b", "0123456789", 0640);
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "from", "briefs/brief"), 0);
    EXPECT_EQ(readFile(tree / "briefs/brief"), recordOf("from/a") + recordOf("from/a/b"));
    EXPECT_EQ(sizes(), Lines{"10"});
    EXPECT_EQ(ownerAndMode(tree / "briefs"), "10123:10123 771");
    EXPECT_EQ(ownerAndMode(tree / "briefs/brief"), "10123:10123 771");
}

TEST_F(DirectoryBriefTest, CountsFilesThatItDoesNotList) {
    writeFile(tree / "from/classes.dex", "12345");
    makeFifo(tree / "from/fifo");
    makeSocket(tree / "from/socket");
    writeFile(tree / "outside", "1234567");
    makeLink(tree / "outside", tree / "from/link");
    writeFile(tree / "from/lib/native.so", "123");
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "from", "brief"), 0);
    EXPECT_EQ(pathsIn("brief"), (Lines{"from/lib", "from/lib/native.so"}));
    EXPECT_EQ(sizes(), Lines{"8"});
}

TEST_F(DirectoryBriefTest, AnEmptyOrMissingSourceGivesAnEmptyBrief) {
    makeDir(tree / "from");
    writeFile(tree / "brief", "an older one");
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "from", "brief"), 0);
    EXPECT_EQ(readFile(tree / "brief"), "");
    EXPECT_EQ(sizes(), Lines{"0"});
    writeFile(tree / "brief", "an older one");
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "none", "brief"), 0);
    EXPECT_EQ(readFile(tree / "brief"), "");
    EXPECT_EQ(sizes(), Lines{"0"}) << "no second notice";
    EXPECT_EQ(errors(), Lines{"GetFileBriefsByDir: " + (tree / "none") + " not exists"});
}

TEST_F(DirectoryBriefTest, FailuresHaveTheirCodesAndMessages) {
    makeDir(tree / "from");
    writeFile(tree / "file", "x");
    makeDir(tree / "dir");
    const struct {
        BackupTaskType type;
        std::string from;
        std::string to;
        std::string lastError;
    } rows[] = {
        {GET_BRIEFS_BY_FILE, "from", "brief", "GetFileBriefsByDir:taskType error!"},
        {GET_BRIEFS_BY_DIR, "from", "file/x/brief",
         "CreateAndFixupBriefFile failed, createDir error"},
        {GET_BRIEFS_BY_DIR, "from", "dir",
         "CreateAndFixupBriefFile:fopen [" + (tree / "dir") + "] error\n"},
        {GET_BRIEFS_BY_DIR, "file", "brief",
         "GetFileBriefsByDir:WriteBriefUnderDir [" + (tree / "file") + "] error\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lastError);
        log.clear();
        EXPECT_EQ(manager->GetFileBriefsByDir(makeTask(row.type, tree / row.from, tree / row.to)),
                  -20);
        ASSERT_FALSE(errors().empty());
        EXPECT_EQ(errors().back(), row.lastError);
    }
    EXPECT_TRUE(sizes().empty());
}

TEST_F(DirectoryBriefTest, TheStreamStaysOpen) {
    makeDir(tree / "from");
    const int before = dup(0);
    close(before);
    EXPECT_EQ(run(GET_BRIEFS_BY_DIR, "from", "brief"), 0);
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before + 1);
}

TEST_F(DirectoryBriefTest, EntriesMayVanishUnderTheWalk) {
    const Lines names = {"a", "b", "c", "d"};
    std::atomic<bool> isDone{false};
    std::thread remover([&] {
        while (!isDone) {
            for (const std::string& name : names) {
                writeFile(tree / ("from/" + name + "/file"), "x");
                unlink((tree / ("from/" + name + "/file")).c_str());
                rmdir((tree / ("from/" + name)).c_str());
            }
        }
    });
    for (int round = 0; round < 200; ++round) {
        const int32_t result = run(GET_BRIEFS_BY_DIR, "from", "brief");
        EXPECT_TRUE(result == 0 || result == -20) << result;
        for (const std::string& path : pathsIn("brief")) {
            EXPECT_EQ(path.substr(0, 5), "from/");
        }
    }
    isDone = true;
    remover.join();
}

}  // namespace
}  // namespace peltex_test
