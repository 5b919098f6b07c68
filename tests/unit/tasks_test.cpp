// The commands of tasks.md, and what it cannot say of handlers/.
#include <string.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <utility>

#include "base/file_handles.h"
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
            return "= " + std::to_string(function(pathOf(words.at(0))));
        };
    }
    t.commands["app"] = [](const Lines& words) {
        return "= \"" + GetAppNameByFullPath(words.at(0).c_str()) + "\"";
    };
    t.commands["inRoot"] = [](const Lines& words) {
        return "= " + std::to_string(CheckFilePath(pathOf(words.at(0)), pathOf(words.at(1))));
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
    // A name to a path of so many bytes, or to "/": cut to fit, and whole.
    t.commands["append"] = [](const Lines& words) {
        const std::string start =
            words.at(0) == "/" ? "/" : std::string(std::stoul(words.at(0)), 'p');
        std::string result = "=";
        for (const auto fit : {PathBuffer::Fit::kCut, PathBuffer::Fit::kWhole}) {
            PathBuffer path(start.c_str());
            const size_t length = path.length();
            const bool isTaken = path.appendEntry(words.at(1).c_str(), fit);
            result += isTaken ? std::string(" ") + (path.c_str() + length) : " none";
            EXPECT_TRUE(isTaken || path.length() == length);
            path.cut(length);
            EXPECT_EQ(strlen(path.c_str()), length);
        }
        return result;
    };
    t.commands["copyFile"] = [&t](const Lines& words) {
        const sp<BackupTask> task = t.makeTask(BACKUP_FILE, words);
        return "= " + std::to_string(copyFile(words[0].c_str(), words[1].c_str(), task));
    };
    t.commands["copyDir"] = [&t](const Lines& words) {
        sp<BackupTask> task = t.makeTask(BACKUP_DIR, words);
        return "= " + std::to_string(copyDir(words[0].c_str(), words[1].c_str(), nullptr, task));
    };
    // A source, with what it holds.
    t.commands["open"] = [](const Lines& words) {
        char content = '-';
        const UniqueFd file = openRegular(Place(words.at(0).c_str()));
        const bool isRead = file.isOpen() && read(file.get(), &content, 1) == 1;
        return "= " + std::to_string(file.get()) + (isRead ? std::string(" ") + content : "");
    };
    t.commands["close"] = [](const Lines& words) {
        return "= " + std::to_string(close(std::stoi(words.at(0))));
    };
    t.commands["dup2"] = [](const Lines& words) {
        return "= " + std::to_string(dup2(std::stoi(words.at(0)), std::stoi(words.at(1))));
    };
    t.act("user",
          [](const Lines& words) { setfsuid(static_cast<uid_t>(std::stoul(words.at(0)))); });
}

namespace {

TEST(Handlers, RefuseTasksOfOtherKinds) {
    Transcript transcript;
    const TellBriefSize tell = [](const std::string& total) { ADD_FAILURE() << total; };
    const std::function<int32_t(sp<BackupTask>&)> handlers[] = {
        backupFileBase,  backupDirBase,  backupTarBase,  backupSplitBase, BackupByFileBase,
        restoreFileBase, restoreDirBase, restoreTarBase, moveDirBase};
    const Lines paths = {"/data/data/x", "/data/data/y"};
    sp<BackupTask> task = transcript.makeTask(GET_BRIEFS_BY_DIR, paths);
    int32_t result = -11;
    for (const auto& handler : handlers) {
        EXPECT_EQ(handler(task), result--);
    }
    EXPECT_EQ(GetFileBriefsByFile(task, tell), -21);
    EXPECT_EQ(GetFileBriefsByDir(transcript.makeTask(BACKUP_FILE, paths), tell), -20);
    EXPECT_EQ(prepare_data_backuped_for_task(nullptr), -1);
}

}  // namespace
}  // namespace peltex_test
