// The command language: one line of text becomes an action at once or a task in the queue.
// Tested by tests/service/commands_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "service/backup_session_manager.h"

namespace android::installd {

namespace {

struct Command {
    const char* name;
    int32_t arguments;
};

constexpr Command cmds[] = {
    {"backup", 5}, {"restore", 5},   {"abort", 1},     {"delay", 1},
    {"move", 5},   {"setweight", 2}, {"keepalive", 0}, {"get_brief", 5},
};

// The checks take the word by value, as they always have.
// NOLINTBEGIN(performance-unnecessary-value-param)
bool checkFileOption(std::string option) {
    return option == "file" || option == "f";
}

bool checkSplitOption(std::string option) {
    return option == "split" || option == "s";
}

bool checkByFileOption(std::string option) {
    return option == "byfile";
}
// NOLINTEND(performance-unnecessary-value-param)

// The option word chooses the kind of task.
struct Kind {
    const char* command;
    bool (*checkOption)(std::string option);
    BackupTaskType type;
};

constexpr Kind kKinds[] = {
    {"backup", checkFileOption, BACKUP_FILE},
    {"backup", BackupSessionManager::checkDirOption, BACKUP_DIR},
    {"backup", BackupSessionManager::checkTarOption, BACKUP_TAR},
    {"backup", checkSplitOption, BACKUP_SPLIT},
    {"backup", checkByFileOption, BACKUP_BY_FILE},
    {"restore", BackupSessionManager::checkTarOption, RESTORE_TAR},
    {"restore", checkSplitOption, RESTORE_SPLIT},
    {"restore", BackupSessionManager::checkDirOption, RESTORE_DIR},
    {"restore", checkFileOption, RESTORE_FILE},
    {"get_brief", BackupSessionManager::checkDirOption, GET_BRIEFS_BY_DIR},
    {"get_brief", checkByFileOption, GET_BRIEFS_BY_FILE},
};

constexpr int32_t kMaxWeight = 100;

const Kind* findKind(const std::string& command, const std::string& option) {
    for (const Kind& kind : kKinds) {
        if (command == kind.command && kind.checkOption(option)) {
            return &kind;
        }
    }
    return nullptr;
}

// Decimal, 0x hexadecimal or leading-0 octal; what is no number reads as 0.
long parseNumber(const std::string& text) {
    return strtol(text.c_str(), nullptr, 0);
}

// Splits `line` at its blanks, in place, into the kCommandWords words at `args`. Returns how many
// words there are, those beyond included.
int32_t parseTaskCmd(const std::string& line, std::string* args) {
    ALOGD("BackupSessionManager parseTaskCmd taskCmd=%s", line.c_str());
    int32_t words = 0;
    char* rest = nullptr;
    // The caller's own characters: callers rely on finding the words apart afterwards.
    char* text = const_cast<char*>(line.c_str());
    for (char* word = strtok_r(text, " ", &rest); word != nullptr;
         word = strtok_r(nullptr, " ", &rest), ++words) {
        if (words < static_cast<int32_t>(kCommandWords)) {
            args[words] = word;
            ALOGD("BackupSessionManager args[%d] is %s", words, word);
        }
    }
    return words;
}

// Returns 0, or COMMAND_REFUSED for an unknown command or a wrong number of arguments.
int32_t checkTaskCmd(const std::string& cmd, int32_t arguments) {
    ALOGD("BackupSessionManager checkTaskCmd cmd=%s", cmd.c_str());
    for (const Command& command : cmds) {
        ALOGD("BackupSessionManager checkTaskCmd cmds=%s", command.name);
        if (cmd != command.name) {
            continue;
        }
        if (arguments != command.arguments) {
            ALOGE("%s requires %d arguments (%d given)\n", command.name, command.arguments,
                  arguments);
            return COMMAND_REFUSED;
        }
        return 0;
    }
    ALOGE("unsupported command '%s'\n", cmd.c_str());
    return COMMAND_REFUSED;
}

}  // namespace

int32_t BackupSessionManager::executeBackupTask(int32_t sessionId, const std::string& taskCmd) {
    ALOGD("BackupSessionManager executeBackupTask sessionId=%d, taskCmd = %s", sessionId,
          taskCmd.c_str());
    MutexLock lock(mLock);
    if (indexOfSessionLocked(sessionId) < 0) {
        ALOGE("invalid session id = %d", sessionId);
        return COMMAND_FAILED;
    }
    std::string args[kCommandWords];
    const int32_t words = parseTaskCmd(taskCmd, args);
    // Only "backup" has a sixth argument, and has it optionally, which the table cannot say.
    const bool isLongBackup = words == static_cast<int32_t>(kCommandWords) && args[0] == "backup";
    if (!isLongBackup && checkTaskCmd(args[0], words - 1) != 0) {
        return COMMAND_REFUSED;
    }
    return runCommandLocked(sessionId, args);
}

int32_t BackupSessionManager::runCommandLocked(int32_t sessionId, const std::string* args) {
    const std::string& cmd = args[0];
    if (cmd == "abort") {
        return abortTaskLocked(static_cast<int32_t>(parseNumber(args[1])));
    }
    if (cmd == "delay") {
        return setDelay(parseNumber(args[1]));
    }
    if (cmd == "setweight") {
        return checkTarOption(args[1]) ? setWeightLocked(static_cast<int32_t>(parseNumber(args[2])))
                                       : COMMAND_REFUSED;
    }
    if (cmd == "keepalive") {
        return processKeepAlive(sessionId);
    }
    if (cmd == "move") {
        return access(args[2].c_str(), F_OK) == 0 ? addTaskLocked(sessionId, MOVE_DIR, args) : 0;
    }
    const Kind* kind = findKind(cmd, args[1]);
    if (kind == nullptr) {
        return cmd == "get_brief" ? 0 : COMMAND_REFUSED;
    }
    return addTaskLocked(sessionId, kind->type, args);
}

int32_t BackupSessionManager::addTaskLocked(int32_t sessionId, BackupTaskType type,
                                            const std::string* args) {
    if (args == nullptr) {
        return COMMAND_REFUSED;
    }
    if (type == BACKUP_SPLIT) {
        if (const int32_t running = addSplitTaskLocked(args); running != 0) {
            return running;
        }
    }
    if (isDuplicateLocked(type, args)) {
        ALOGE("failed to add task, task is existed!");
        return COMMAND_DUPLICATE;
    }
    if (startWorkerTreadLocked() == 0) {
        ALOGE("failed to add task, start workerThread error!");
        return COMMAND_FAILED;
    }
    if (args[5].empty()) {
        ALOGE("failed to add task, uid_info is null!");
        return COMMAND_REFUSED;
    }
    const int32_t taskId = mNextId.fetch_add(1, std::memory_order_release);
    mPendingTasks.add(new BackupTask(sessionId, taskId, type, mCallback, args));
    mCond.broadcast();
    ALOGD("BackupSessionManager add task success, taskId = %d", taskId);
    return taskId;
}

// SELinux information, uid and session take no part: the same work asked for twice is one too many,
// whoever asks.
bool BackupSessionManager::isDuplicateLocked(BackupTaskType type, const std::string* args) const {
    for (const Vector<sp<BackupTask>>* queue : {&mPendingTasks, &mProcessingTasks}) {
        for (const sp<BackupTask>& task : *queue) {
            if (task->taskType == type && task->taskSrcPath == args[2] &&
                task->taskDestPath == args[3]) {
                return true;
            }
        }
    }
    return false;
}

int32_t BackupSessionManager::abortTaskLocked(int32_t taskId) {
    for (size_t i = 0; i < mPendingTasks.size(); ++i) {
        if (mPendingTasks[i]->taskId == taskId) {
            mPendingTasks.removeAt(i);
            ALOGD("BackupSessionManager remove task %d in pending", taskId);
            return 0;
        }
    }
    for (const sp<BackupTask>& task : mProcessingTasks) {
        if (task->taskId == taskId) {
            stopRunningTaskLocked(task);
            if (mCallback != nullptr) {
                mCallback->onTaskStatusChanged(task->sessionId, taskId, TASK_STATUS_ABORTED, "");
            }
            ALOGD("BackupSessionManager abort the task task %d in processing", taskId);
            return 0;
        }
    }
    ALOGE("task %d is invalidated", taskId);
    return COMMAND_FAILED;
}

int32_t BackupSessionManager::setWeightLocked(int32_t weight) {
    if (static_cast<uint32_t>(weight) > kMaxWeight) {
        ALOGE("setWeight:%d exceed 0~100!!", weight);
        return COMMAND_FAILED;
    }
    mWeight = weight;
    for (size_t i = 0; i < mProcessingTasks.size(); ++i) {
        const size_t index = mProcessingTasks[i]->workerIndex;
        if (mProcessingTasks[i]->taskType != BACKUP_TAR || !mWorkers[index]->isRunning()) {
            continue;
        }
        const pid_t tid = mWorkers[index]->getTid();
        const int oldPriority = androidGetThreadPriority(tid);
        const int newPriority = getPrioritybyWeight(mWeight);
        ALOGD("BackupSessionManager setWeight, i:%d, index:%zu, oldPri:%d, newPri:%d",
              static_cast<int>(i), index, oldPriority, newPriority);
        if (oldPriority != newPriority) {
            return androidSetThreadPriority(tid, newPriority);
        }
    }
    return 0;
}

int32_t BackupSessionManager::setDelay(long delay) {
    mDelay = delay;
    return 0;
}

int32_t BackupSessionManager::getPrioritybyWeight(int32_t weight) {
    if (static_cast<uint32_t>(weight) > kMaxWeight) {
        return PRIORITY_BACKGROUND;
    }
    const auto hundredths = static_cast<int16_t>((kMaxWeight - weight) * 9 + 50);
    return static_cast<int16_t>(hundredths / 100 + PRIORITY_BACKGROUND);
}

// NOLINTBEGIN(performance-unnecessary-value-param): as above
bool BackupSessionManager::checkTarOption(std::string option) {
    return option == "tar" || option == "t";
}

bool BackupSessionManager::checkDirOption(std::string option) {
    return option == "dir" || option == "d";
}
// NOLINTEND(performance-unnecessary-value-param)

}  // namespace android::installd
