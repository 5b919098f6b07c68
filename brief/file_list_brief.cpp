// The handler of a brief by file list: lists what a client's search file asks for.
// Tested by tests/brief/file_list_brief_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include <log/log.h>

#include "brief/directory_brief.h"
#include "brief/exclude_rules.h"
#include "brief/permission_record.h"
#include "fileops/file_handles.h"
#include "fileops/path_rules.h"
#include "fileops/paths.h"
#include "service/backup_session_manager.h"

namespace android::installd {

namespace {

constexpr int32_t kBriefByFileFailed = -21;

int writeFolder(const std::string& folder, FILE* brief, const sp<BackupTask>& task, int64_t& total,
                const Vector<std::string>& excludes) {
    if (NeedFilterWithExclude(folder.c_str(), excludes)) {
        ALOGD("WriteBriefByFile:dir(%s) need filter", folder.c_str());
        return 0;
    }
    if (WriteBriefUnderDir(folder.c_str(), brief, task, total, excludes) != 0) {
        ALOGE("Failed to WriteBriefByFile, WriteBriefByFile(%s) error", folder.c_str());
        return -1;
    }
    return 0;
}

// A file that is asked for by name is listed whatever it is; a link is followed.
int writeFile(const std::string& path, FILE* brief, int64_t& total) {
    if (do_backup_perm(path.c_str(), brief) != 0) {
        ALOGE("Failed to WriteBriefByFile, do_backup_perm(%s) error", path.c_str());
        return -1;
    }
    addSizeOf(path.c_str(), total);
    return 0;
}

int WriteBriefByFile(const SearchRules& rules, FILE* brief, const sp<BackupTask>& task,
                     int64_t& total) {
    ALOGD("Call WriteBriefByFile method");
    int result = 0;
    for (const std::string& include : rules.includes) {
        if (!exists(include)) {
            ALOGD("Folder(%s) not exist", include.c_str());
            continue;
        }
        result = isDir(include.c_str()) == 1
                     ? writeFolder(include, brief, task, total, rules.excludes)
                     : writeFile(include, brief, total);
        if (result != 0) {
            break;
        }
    }
    ALOGD("End call WriteBriefByFile method");
    return result;
}

}  // namespace

int BackupSessionManager::GetFileBriefsByFile(const sp<BackupTask>& task) const {
    ALOGD("Call GetFileBriefsByFile method");
    if (task->taskType != GET_BRIEFS_BY_FILE) {
        ALOGE("GetFileBriefsByFile:taskType error!");
        return kBriefByFileFailed;
    }
    const char* searchFile = task->taskSrcPath.c_str();
    const char* briefPath = task->taskDestPath.c_str();
    SearchRules rules;
    if (!GetIncludeAndExcludeFolder(searchFile, rules)) {
        ALOGE("GetIncludeAndExcludeFolder failed");
        return kBriefByFileFailed;
    }
    if (!exists(searchFile)) {
        ALOGE("GetFileBriefsByFile: %s not exists", searchFile);
        return kBriefByFileFailed;
    }
    if (CreateAndFixupBriefFile(task) != 0) {
        return kBriefByFileFailed;
    }
    UniqueFile brief(fopen(briefPath, "we"));
    if (brief == nullptr) {
        ALOGE("GetFileBriefsByFile:fopen [%s] error\n", briefPath);
        return kBriefByFileFailed;
    }
    int64_t total = 0;
    if (WriteBriefByFile(rules, brief.get(), task, total) != 0) {
        ALOGE("GetFileBriefsByFile:WriteBriefByFile error\n");
        return kBriefByFileFailed;
    }
    if (fflush(brief.get()) != 0) {
        ALOGE("GetFileBriefsByFile:save attr file error!");
        return kBriefByFileFailed;
    }
    brief.reset();
    tellBriefSize(task, total);
    return 0;
}

}  // namespace android::installd
