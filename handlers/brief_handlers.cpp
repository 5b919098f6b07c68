// Tested by tests/unit/briefs.md.
#define LOG_TAG "BackupSessionManager"

#include "handlers/brief_handlers.h"

#include <log/log.h>

#include "base/error_text.h"
#include "base/file_handles.h"
#include "base/path_rules.h"
#include "base/paths.h"
#include "base/permissions.h"
#include "bounded/bounded.h"
#include "brief/brief_walk.h"
#include "brief/permission_record.h"
#include "brief/search_rules.h"
#include "fileops/create_dir.h"

namespace android::installd {

namespace {

constexpr int kBriefByDirFailed = -20;
constexpr int kBriefByFileFailed = -21;
constexpr size_t kSizeTextSize = 72;

// A total that cannot be written as text is not told.
void tellSize(int64_t total, const TellBriefSize& tell) {
    char text[kSizeTextSize] = {};
    if (snprintf_s(text, sizeof(text), sizeof(text) - 1, "%ld", static_cast<long>(total)) >= 0) {
        tell(text);
    }
}

int writeFolder(const std::string& folder, FILE* brief, const sp<BackupTask>& task, int64_t& total,
                const ExcludeRules& excludes) {
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
    const ExcludeRules excludes(rules.excludes);
    int result = 0;
    for (const std::string& include : rules.includes) {
        if (!exists(include)) {
            ALOGD("Folder(%s) not exist", include.c_str());
            continue;
        }
        result = isDir(include.c_str()) == 1 ? writeFolder(include, brief, task, total, excludes)
                                             : writeFile(include, brief, total);
        if (result != 0) {
            break;
        }
    }
    ALOGD("End call WriteBriefByFile method");
    return result;
}

}  // namespace

int CreateAndFixupBriefFile(const sp<BackupTask>& task) {
    const std::string& path = task->taskDestPath;
    const auto uid = static_cast<uint32_t>(task->uid);
    if (path.empty()) {
        ALOGE("CreateAndFixupBriefFile error,brief path is null\n");
    }
    if (const size_t slash = path.rfind('/'); slash != std::string::npos) {
        const std::string parent = path.substr(0, slash);
        if (!exists(parent) && createDir(parent.c_str(), uid) != 0) {
            ALOGE("CreateAndFixupBriefFile failed, createDir error");
            return -1;
        }
    }
    UniqueFile file(fopen(path.c_str(), "we"));
    if (file == nullptr) {
        ALOGE("CreateAndFixupBriefFile:fopen [%s] error\n", path.c_str());
        return -1;
    }
    if (fflush(file.get()) != 0) {
        ALOGE("CreateAndFixupBriefFile failed, save attr file error!");
    }
    file.reset();
    if (fixup_permissions_dir_file(path.c_str(), uid, uid, kCreatedMode) != 0) {
        ALOGE("Failed to change attr_file(%s) owner, error=%s", path.c_str(), ErrorText().c_str());
        return -1;
    }
    return 0;
}

int WriteBriefUnderDir(const char* dir, FILE* attrFp, const sp<BackupTask>& task, int64_t& total,
                       const ExcludeRules& excludes) {
    const ExcludeRules none;
    return writeBrief(dir, attrFp, task->taskType == GET_BRIEFS_BY_FILE ? excludes : none, total);
}

int GetFileBriefsByDir(const sp<BackupTask>& task, const TellBriefSize& tell) {
    ALOGD("Call GetFileBriefsByDir method");
    if (task->taskType != GET_BRIEFS_BY_DIR) {
        ALOGE("GetFileBriefsByDir:taskType error!");
        return kBriefByDirFailed;
    }
    const char* source = task->taskSrcPath.c_str();
    const char* brief = task->taskDestPath.c_str();
    if (isEmptyPath(source) || isEmptyPath(brief)) {
        ALOGE("GetFileBriefsByDir:src_path or brief_path is null");
        return kBriefByDirFailed;
    }
    ALOGD("taskSrcPath:%s", source);
    ALOGD("taskBriefPath:%s", brief);
    if (CreateAndFixupBriefFile(task) != 0) {
        return kBriefByDirFailed;
    }
    if (!exists(source)) {
        ALOGE("GetFileBriefsByDir: %s not exists", source);
        return 0;
    }
    // Flushed at the end and deliberately never closed; only a failed flush closes it.
    FILE* stream = fopen(brief, "we");
    if (stream == nullptr) {
        ALOGE("GetFileBriefsByDir:fopen [%s] error\n", brief);
        return kBriefByDirFailed;
    }
    int64_t total = 0;
    if (WriteBriefUnderDir(source, stream, task, total, ExcludeRules()) != 0) {
        ALOGE("GetFileBriefsByDir:WriteBriefUnderDir [%s] error\n", source);
        return kBriefByDirFailed;
    }
    if (fflush(stream) != 0) {
        ALOGE("GetFileBriefsByDir:save attr file error!");
        fclose(stream);
        return kBriefByDirFailed;
    }
    tellSize(total, tell);
    return 0;
}

int GetFileBriefsByFile(const sp<BackupTask>& task, const TellBriefSize& tell) {
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
    tellSize(total, tell);
    return 0;
}

}  // namespace android::installd
