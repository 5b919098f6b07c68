// The folders handlers/, fileops/ and base/: what tasks.md cannot say.
#include <sys/fsuid.h>

#include <utility>

#include "base/owner_mapping.h"
#include "base/path_buffer.h"
#include "base/path_rules.h"
#include "base/permissions.h"
#include "fileops/copy.h"
#include "fileops/create_dir.h"
#include "fileops/delete.h"
#include "fileops/relabel.h"
#include "handlers/archive_handlers.h"
#include "handlers/brief_handlers.h"
#include "handlers/by_list_handler.h"
#include "handlers/copy_handlers.h"
#include "tests/unit/transcript.h"

namespace peltex_test {

using namespace android::installd;
using android::sp;

void addFileCommands(Transcript& t) {
    const std::pair<const char*, int (*)(const char*)> functions[] = {
        {"deleteDir", deleteDir},
        {"isDir", isDir},
        {"filterDir", filterDir},
        {"filterFile", filterFile},
        {"allowed", [](const char* path) { return int{is_allow_access(path)}; }},
        {"shared", [](const char* path) { return int{isStoragePath(path)}; }},
        {"createDir", [](const char* path) { return createDir(path, 10123); }},
        {"relabel", [](const char* path) { return restorecon_backup_dir(path, "info", 7); }},
        {"fixup", [](const char* path) { return fixup_permissions_dir_file(path, 1, 2, 0660); }},
    };
    for (const auto& [name, function] : functions) {
        t.commands[name] = [function = function](const Lines& words) {
            return "= " + std::to_string(function(words.at(0).c_str()));
        };
    }
    t.commands["app"] = [](const Lines& words) {
        return "= \"" + GetAppNameByFullPath(words.at(0).c_str()) + "\"";
    };
    t.commands["inRoot"] = [](const Lines& words) {
        return "= " + std::to_string(CheckFilePath(words.at(0).c_str(), words.at(1).c_str()));
    };
    // An owner and a group, as an application of that uid gets them.
    t.commands["owner"] = [](const Lines& words) {
        const auto number = [&](size_t i) {
            return static_cast<unsigned>(std::stoul(words.at(i)));
        };
        unsigned gid = 0;
        const unsigned uid = fixup_owner_dir_file(number(0), number(1), number(2), gid);
        return "= " + std::to_string(uid) + " " + std::to_string(gid);
    };
    // A name to a path of so many bytes, or to "/".
    t.commands["append"] = [](const Lines& words) {
        const std::string start =
            words.at(0) == "/" ? "/" : std::string(std::stoul(words.at(0)), 'p');
        const auto appended = [&](PathBuffer::Fit fit) {
            PathBuffer path(start.c_str());
            const std::string before = path.c_str();
            const bool isTaken = path.appendEntry(words.at(1).c_str(), fit);
            const std::string after = path.c_str();
            path.cut(before.size());
            EXPECT_EQ(path.c_str(), before);
            EXPECT_EQ(isTaken, after != before);
            return isTaken ? after.substr(before.size()) : "none";
        };
        return "= cut " + appended(PathBuffer::Fit::kCut) + ", whole " +
               appended(PathBuffer::Fit::kWhole);
    };
    t.commands["copyFile"] = [&t](const Lines& words) {
        const sp<BackupTask> task = t.makeTask(BACKUP_FILE, words);
        return "= " + std::to_string(copyFile(words[0].c_str(), words[1].c_str(), task));
    };
    t.commands["copyDir"] = [&t](const Lines& words) {
        sp<BackupTask> task = t.makeTask(BACKUP_DIR, words);
        return "= " + std::to_string(copyDir(words[0].c_str(), words[1].c_str(), nullptr, task));
    };
    t.act("user",
          [](const Lines& words) { setfsuid(static_cast<uid_t>(std::stoul(words.at(0)))); });
}

namespace {

TEST(Handlers, RefuseTasksOfOtherKindsAndNullPaths) {
    Transcript transcript;
    const std::pair<int32_t (*)(sp<BackupTask>&), int32_t> handlers[] = {
        {backupFileBase, -11},  {backupDirBase, -12},   {backupTarBase, -13},
        {backupSplitBase, -14}, {restoreFileBase, -16}, {restoreDirBase, -17},
        {restoreTarBase, -18},  {moveDirBase, -19}};
    const Lines paths = {"/data/data/x", "/data/data/y"};
    sp<BackupTask> task = transcript.makeTask(GET_BRIEFS_BY_DIR, paths);
    for (const auto& [handler, result] : handlers) {
        EXPECT_EQ(handler(task), result);
    }
    const TellBriefSize tell = [](const std::string& total) { ADD_FAILURE() << total; };
    EXPECT_EQ(BackupByFileBase(task), -15);
    EXPECT_EQ(GetFileBriefsByFile(task, tell), -21);
    EXPECT_EQ(GetFileBriefsByDir(transcript.makeTask(BACKUP_FILE, paths), tell), -20);

    EXPECT_EQ(prepare_data_backuped_for_task(nullptr), -1);
    EXPECT_EQ(CheckFilePath("/data", nullptr), 0);
    EXPECT_FALSE(is_allow_access(nullptr));
}

}  // namespace
}  // namespace peltex_test
