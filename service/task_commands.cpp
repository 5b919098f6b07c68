// The command language: one line of text becomes an action at once or a task in the queue.
// Tested by tests/unit/service/commands.md and commands_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include <log/log.h>
#include <string.h>
#include <utils/AndroidThreads.h>

#include <optional>
#include <utility>

#include "base/numbers.h"
#include "base/paths.h"
#include "service/backup_session_manager.h"

namespace android::installd {

namespace {

bool checkFileOption(std::string_view option) {
    return option == "file" || option == "f";
}

bool checkSplitOption(std::string_view option) {
    return option == "split" || option == "s";
}

bool checkByFileOption(std::string_view option) {
    return option == "byfile";
}

// The option word chooses the type of task.
struct Option {
    std::string_view command;
    bool (*checkOption)(std::string_view option);
    BackupTaskType type;
};

constexpr Option kOptions[] = {
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

std::optional<BackupTaskType> findType(std::string_view command, std::string_view word) {
    for (const Option& option : kOptions) {
        if (command == option.command && option.checkOption(word)) {
            return option.type;
        }
    }
    return std::nullopt;
}

int32_t numberOf(const std::string& word) {
    return static_cast<int32_t>(parseNumber(word.c_str()));
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

}  // namespace

const BackupSessionManager::Command BackupSessionManager::cmds[] = {
    {"backup", 5, &BackupSessionManager::runTaskLocked},
    {"restore", 5, &BackupSessionManager::runTaskLocked},
    {"abort", 1, &BackupSessionManager::runAbortLocked},
    {"delay", 1, &BackupSessionManager::runDelayLocked},
    {"move", 5, &BackupSessionManager::runMoveLocked},
    {"setweight", 2, &BackupSessionManager::runSetWeightLocked},
    {"keepalive", 0, &BackupSessionManager::runKeepAliveLocked},
    {"get_brief", 5, &BackupSessionManager::runGetBriefLocked},
};

// Returns null for an unknown command or a wrong number of arguments.
const BackupSessionManager::Command* BackupSessionManager::checkTaskCmd(const std::string& cmd,
                                                                        int32_t arguments) {
    ALOGD("BackupSessionManager checkTaskCmd cmd=%s", cmd.c_str());
    for (const Command& command : cmds) {
        ALOGD("BackupSessionManager checkTaskCmd cmds=%s", command.name);
        if (cmd != command.name) {
            continue;
        }
        if (arguments != command.arguments) {
            ALOGE("%s requires %d arguments (%d given)\n", command.name, command.arguments,
                  arguments);
            return nullptr;
        }
        return &command;
    }
    ALOGE("unsupported command '%s'\n", cmd.c_str());
    return nullptr;
}

int32_t BackupSessionManager::executeBackupTask(int32_t sessionId, const std::string& taskCmd) {
    ALOGD("BackupSessionManager executeBackupTask sessionId=%d, taskCmd = %s", sessionId,
          taskCmd.c_str());
    sp<BackupTask> aborted;  // let go behind the lock
    MutexLock lock(mLock);
    if (indexOfSessionLocked(sessionId) < 0) {
        ALOGE("invalid session id = %d", sessionId);
        return COMMAND_FAILED;
    }
    std::string args[kCommandWords];
    const int32_t words = parseTaskCmd(taskCmd, args);
    // Only "backup" has a sixth argument, and has it optionally, which the table cannot say.
    const bool isLongBackup = words == static_cast<int32_t>(kCommandWords) && args[0] == "backup";
    const Command* command = isLongBackup ? &cmds[0] : checkTaskCmd(args[0], words - 1);
    const int32_t result =
        command == nullptr ? COMMAND_REFUSED : (this->*command->run)(sessionId, args);
    std::swap(aborted, mAbortedTask);
    return result;
}

int32_t BackupSessionManager::runTaskLocked(int32_t sessionId, const std::string* args) {
    const std::optional<BackupTaskType> type = findType(args[0], args[1]);
    return type ? addTaskLocked(sessionId, *type, args) : COMMAND_REFUSED;
}

int32_t BackupSessionManager::runAbortLocked(int32_t /*sessionId*/, const std::string* args) {
    return abortTaskLocked(numberOf(args[1]));
}

int32_t BackupSessionManager::runDelayLocked(int32_t /*sessionId*/, const std::string* args) {
    return setDelay(parseNumber(args[1].c_str()));
}

// What is not there is moved already.
int32_t BackupSessionManager::runMoveLocked(int32_t sessionId, const std::string* args) {
    return exists(args[2]) ? addTaskLocked(sessionId, MOVE_DIR, args) : 0;
}

int32_t BackupSessionManager::runSetWeightLocked(int32_t /*sessionId*/, const std::string* args) {
    return checkTarOption(args[1]) ? setWeightLocked(numberOf(args[2])) : COMMAND_REFUSED;
}

int32_t BackupSessionManager::runKeepAliveLocked(int32_t sessionId, const std::string* /*args*/) {
    return processKeepAlive(sessionId);
}

// A brief with an unknown option is done with nothing done.
int32_t BackupSessionManager::runGetBriefLocked(int32_t sessionId, const std::string* args) {
    const std::optional<BackupTaskType> type = findType(args[0], args[1]);
    return type ? addTaskLocked(sessionId, *type, args) : 0;
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
    mPendingTasks.add(new BackupTask(sessionId, taskId, type, currentCallback(), args));
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
            mAbortedTask = mPendingTasks[i];
            mPendingTasks.removeAt(i);
            ALOGD("BackupSessionManager remove task %d in pending", taskId);
            return 0;
        }
    }
    for (const sp<BackupTask>& task : mProcessingTasks) {
        if (task->taskId == taskId) {
            stopRunningTaskLocked(task);
            tellClient(task, TASK_STATUS_ABORTED, "");
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
    MutexLock lock(mWeightLock);
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

bool BackupSessionManager::checkTarOption(std::string_view option) {
    return option == "tar" || option == "t";
}

bool BackupSessionManager::checkDirOption(std::string_view option) {
    return option == "dir" || option == "d";
}

}  // namespace android::installd
