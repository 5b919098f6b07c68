// The workers' loop: starting workers on demand, taking the oldest task, running its handler
// between the callbacks that frame it, and ending.
//
// A worker, as seen under mLock:
//
//   not running --startWorkerLocked--> between passes <--> in a pass (waiting, or busy with a task)
//        ^                                    |                       |
//        '---- exit asked for: the thread framework ends the loop ----'
//
// Only a worker in a pass sees what is queued. One that was asked to exit and is between passes may
// be about to end or about to begin another pass, and nothing but its next step shows which.
// Nobody counts on such a worker before it has taken that step (settleWorkerLocked).
// Tested by tests/unit/service/sessions_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include <limits.h>
#include <log/log.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>
#include <utils/AndroidThreads.h>

#include "base/path_rules.h"
#include "service/backup_session_manager.h"

namespace android::installd {

namespace {

constexpr size_t kRealPathSize = 4096;
constexpr timespec kSettleInterval = {0, 50000};

}  // namespace

BackupWorkerThread::BackupWorkerThread(BackupSessionManager* manager, size_t index)
    : Thread(/*canCallJava=*/true), workerIndex(index), mManager(manager) {}

BackupWorkerThread::~BackupWorkerThread() = default;

bool BackupWorkerThread::threadLoop() {
    return mManager->loopOnce(workerIndex);
}

bool BackupSessionManager::loopOnce(size_t workerIndex) {
    mInPass[workerIndex] = true;
    Turn turn = Turn::kNoneLeft;
    sp<BackupTask> task;
    bool isTaken = false;
    {
        MutexLock lock(mLock);
        turn = waitForTurnLocked(workerIndex);
        if (turn == Turn::kTask) {
            isTaken = takeTaskLocked(workerIndex, task);
        }
    }
    if (isTaken) {
        processTask(task);
        finishTask(task);
    }
    // Before the pass is over: with the task may go a callback, and its destructor may call in.
    task.clear();
    endPass(workerIndex);
    return turn != Turn::kNoneLeft;
}

BackupSessionManager::Turn BackupSessionManager::waitForTurnLocked(size_t workerIndex) {
    while (mPendingTasks.isEmpty() || mProcessingTasks.size() >= kWorkers) {
        if (checkExit(workerIndex)) {
            if (mPendingTasks.isEmpty()) {
                ALOGD("BackupSessionManager worker thread exit");
                return Turn::kNoneLeft;
            }
            ALOGD("BackupSessionManager loopOnce processing task..., mProcessingTasks.size()=%zu",
                  mProcessingTasks.size());
            return Turn::kOthersRun;
        }
        mCond.wait(mLock);
        ALOGD("BackupSessionManager loopOnce wait mPendingTasks.size()=%zu, checkExit=%d",
              mPendingTasks.size(), checkExit(workerIndex));
    }
    return Turn::kTask;
}

// Sets `task` to the oldest one, which is running from now on. Returns false for one that fails its
// checks: it is out of the queue, and the caller lets it go behind the lock.
bool BackupSessionManager::takeTaskLocked(size_t workerIndex, sp<BackupTask>& task) {
    task = mPendingTasks[0];
    mPendingTasks.removeAt(0);
    if (task == nullptr) {
        ALOGD("BackupSessionManager task is null");
        return false;
    }
    if (!prepareTaskLocked(task)) {
        tellClient(task, TASK_STATUS_FAILED, "prepareTask error");
        return false;
    }
    task->workerIndex = workerIndex;
    mProcessingTasks.add(task);
    return true;
}

int32_t BackupSessionManager::startWorkerTreadLocked() {
    for (size_t i = 0; i < mWorkers.size(); ++i) {
        settleWorkerLocked(i);
    }
    int32_t running = checkIsRunning();
    if (mWorkers.isEmpty() || running == static_cast<int32_t>(kWorkers)) {
        return running;
    }
    const auto wanted = static_cast<int32_t>(mProcessingTasks.size() + mPendingTasks.size());
    if (wanted < running) {
        return running;
    }
    for (size_t i = 0; i < mWorkers.size(); ++i) {
        if (mWorkers[i]->isRunning()) {
            continue;
        }
        if (!startWorkerLocked(i)) {
            break;
        }
        ++running;
        if (running == static_cast<int32_t>(kWorkers) || running > wanted) {
            break;
        }
    }
    return running;
}

bool BackupSessionManager::startWorkerLocked(size_t index) {
    // The character after the underscore is the index itself, not its digit: index 0 ends the name.
    std::string name = "BackupWorkerThread_";
    name += static_cast<char>(index);
    const status_t result = mWorkers[index]->run(name.c_str(), PRIORITY_BACKGROUND, 0);
    if (result != 0) {
        ALOGE("Could not start BackupWorker thread due to error %d.", result);
        mWorkers[index]->requestExit();
        return false;
    }
    ALOGD("BackupSessionManager start BackupWorker thread %s", name.c_str());
    return true;
}

// Waits until a worker that was asked to exit between two passes has either ended or come into its
// next pass. It needs no lock of ours for either, runs nothing of the client's and has only a few
// steps to go, so this is short; once it is in its pass it stays there, because it needs mLock to
// get any further. A client that waits for mLock meanwhile waits for a thread of lower priority,
// but for microseconds of its work.
void BackupSessionManager::settleWorkerLocked(size_t index) {
    while (mWorkers[index]->isRunning() && mWorkers[index]->exitPending() && !mInPass[index]) {
        nanosleep(&kSettleInterval, nullptr);
    }
}

// Decides, with the queue in sight, that a worker's pass is over. A worker that was asked to exit
// (by an abort of its task, or with its task's session) leaves what open sessions have queued to
// the other worker, which may have left before it. What is left of closed sessions waits for the
// next command that starts workers.
void BackupSessionManager::endPass(size_t workerIndex) {
    MutexLock lock(mLock);
    mInPass[workerIndex] = false;
    if (!checkExit(workerIndex) || !isOpenSessionWaitingLocked()) {
        return;
    }
    for (size_t other = 0; other < mWorkers.size(); ++other) {
        if (other == workerIndex) {
            continue;
        }
        settleWorkerLocked(other);
        // Where no thread can be had, the tasks wait for the next command that starts workers.
        if (!mWorkers[other]->isRunning()) {
            startWorkerLocked(other);
        }
    }
}

bool BackupSessionManager::isOpenSessionWaitingLocked() const {
    for (const sp<BackupTask>& task : mPendingTasks) {
        if (indexOfSessionLocked(task->sessionId) >= 0) {
            return true;
        }
    }
    return false;
}

bool BackupSessionManager::prepareTaskLocked(const sp<BackupTask>& task) {
    if (task == nullptr) {
        ALOGE("prepareTask error, task is null");
        return false;
    }
    const char* source = task->taskSrcPath.c_str();
    const char* destination = task->taskDestPath.c_str();
    if (!is_allow_access(source) || !is_allow_access(destination)) {
        return false;
    }
    if (task->taskType != GET_BRIEFS_BY_DIR && access(source, F_OK) != 0) {
        ALOGE("prepareTask error, %s not exists", source);
        return false;
    }
    if (access(destination, F_OK) == 0) {
        ALOGD("BackupSessionManager prepareTask %s exists", destination);
    }
    return true;
}

int32_t BackupSessionManager::processTask(sp<BackupTask>& task) {
    if (task == nullptr) {
        ALOGD("BackupSessionManager processTask error, task is null");
        return -1;
    }
    ALOGD("BackupSessionManager processTask task %d", task->taskId);
    if (tellClient(task, TASK_STATUS_STARTED, "processTask start")) {
        ALOGD("BackupSessionManager processTask task %d started", task->taskId);
    }

    char realSource[kRealPathSize] = {};
    char realDestination[kRealPathSize] = {};
    static_assert(kRealPathSize >= PATH_MAX, "realpath writes up to PATH_MAX bytes");
    task->realSrcPath = realpath(task->taskSrcPath.c_str(), realSource);
    task->realDestPath = realpath(task->taskDestPath.c_str(), realDestination);
    const int32_t result = runHandler(task);
    task->realSrcPath = nullptr;
    task->realDestPath = nullptr;

    const TaskStatus status = result == 0 ? TASK_STATUS_SUCCESS : TASK_STATUS_FAILED;
    ALOGD("BackupSessionManager processTask task %d ,taskType is %d, taskStatus is %d",
          task->taskId, task->taskType, status);
    tellClient(task, status, "processTask finish");
    return result;
}

// Gives this worker the priority of the present weight, which it returns; finishTask takes the
// priority back. Under the weight's lock, so that one that is set meanwhile is not undone by an
// older one.
int32_t BackupSessionManager::applyWeight() {
    MutexLock lock(mWeightLock);
    const int32_t priority = getPrioritybyWeight(mWeight);
    if (androidGetThreadPriority(0) != priority) {
        androidSetThreadPriority(0, priority);
    }
    return mWeight;
}

void BackupSessionManager::finishTask(const sp<BackupTask>& task) {
    MutexLock lock(mLock);
    const bool isArchiveBackup = task->taskType == BACKUP_TAR || task->taskType == BACKUP_SPLIT;
    if (isArchiveBackup && androidGetThreadPriority(0) != PRIORITY_BACKGROUND) {
        androidSetThreadPriority(0, PRIORITY_BACKGROUND);
    }
    finishTaskLocked(task);
}

void BackupSessionManager::finishTaskLocked(const sp<BackupTask>& task) {
    for (size_t i = 0; i < mProcessingTasks.size(); ++i) {
        if (mProcessingTasks[i]->taskId == task->taskId) {
            mProcessingTasks.removeAt(i);
            return;
        }
    }
}

bool BackupSessionManager::checkExit(size_t index) const {
    return index < mWorkers.size() && mWorkers[index]->exitPending();
}

void BackupSessionManager::exitForIndex(size_t index) {
    if (index < mWorkers.size()) {
        mWorkers[index]->requestExit();
    }
}

int32_t BackupSessionManager::checkIsRunning() const {
    int32_t running = 0;
    for (const sp<BackupWorkerThread>& worker : mWorkers) {
        if (worker->isRunning()) {
            ++running;
        }
    }
    return running;
}

}  // namespace android::installd
