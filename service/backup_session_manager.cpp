// Sessions and their one callback: opening, closing, the client's death, keep-alive.
// Tested by tests/unit/service/sessions_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include "service/backup_session_manager.h"

#include <binder/IInterface.h>
#include <log/log.h>

#include <utility>

namespace android::installd {

BackupSessionManager::BackupSessionManager() {
    for (size_t index = 0; index < kWorkers; ++index) {
        mWorkers.add(new BackupWorkerThread(this, index));
    }
}

// The workers use the manager's lock and queues, so they have to be gone before those are: nothing
// more is taken, and what runs is asked to stop. A plain copy runs to its end all the same.
BackupSessionManager::~BackupSessionManager() {
    Vector<sp<BackupTask>> dropped;  // let go behind the lock
    {
        MutexLock lock(mLock);
        mSessions.clear();
        std::swap(dropped, mPendingTasks);
        for (const sp<BackupTask>& task : mProcessingTasks) {
            stopRunningTaskLocked(task);
        }
        exitAll();
        mCond.broadcast();
    }
    for (const sp<BackupWorkerThread>& worker : mWorkers) {
        worker->join();
    }
}

int32_t BackupSessionManager::startBackupSession(const sp<os::IBackupSessionCallback>& callback) {
    ALOGD("BackupSessionManager startBackupSession");
    sp<os::IBackupSessionCallback> replaced;  // let go behind the lock
    MutexLock lock(mLock);
    const int32_t sessionId = mNextId.fetch_add(1, std::memory_order_release);
    mSessions.add(sessionId);
    if (callback != currentCallback()) {
        {
            MutexLock callbackLock(mCallbackLock);
            replaced = mCallback;
            mCallback = callback;
        }
        if (const sp<IBinder> binder = IInterface::asBinder(replaced); binder != nullptr) {
            binder->unlinkToDeath(this, nullptr, 0);
        }
        // A client without a binder is served all the same; nobody hears of its death.
        if (const sp<IBinder> binder = IInterface::asBinder(callback); binder != nullptr) {
            binder->linkToDeath(this, nullptr, 0);
        }
    }
    ALOGD("BackupSessionManager start Backup session:%d", sessionId);
    return sessionId;
}

int32_t BackupSessionManager::finishBackupSession(int32_t sessionId) {
    ALOGD("BackupSessionManager finishBackupSession sessionId=%d", sessionId);
    Vector<sp<BackupTask>> dropped;  // let go behind the lock
    MutexLock lock(mLock);
    const ssize_t position = indexOfSessionLocked(sessionId);
    if (position < 0) {
        ALOGE("invalid session id=%d", sessionId);
        return COMMAND_FAILED;
    }
    // The index moves on after a removal too, so of two neighbouring tasks of the session the
    // second stays queued: docs/LIMITS.md tells clients what to do about it.
    for (size_t i = 0; i < mPendingTasks.size(); ++i) {
        if (mPendingTasks[i]->sessionId == sessionId) {
            dropped.add(mPendingTasks[i]);
            mPendingTasks.removeAt(i);
        }
    }
    for (const sp<BackupTask>& task : mProcessingTasks) {
        if (task->sessionId == sessionId) {
            stopRunningTaskLocked(task);
        }
    }
    mSessions.removeAt(static_cast<size_t>(position));
    if (!mSessions.isEmpty()) {
        return 0;
    }
    ALOGD("BackupSessionManager finishBackupSession no more session, request thread exit");
    exitAll();
    mCond.broadcast();
    return 0;
}

void BackupSessionManager::binderDied(const wp<IBinder>& who) {
    if (who.unsafe_get() != nullptr) {
        ALOGD("BackupSessionManager BackupSessionManager remote client (PMS) died");
    }
    MutexLock lock(mLock);
    mSessions.clear();
    exitAll();
    mCond.broadcast();
}

int32_t BackupSessionManager::processKeepAlive(int32_t sessionId) {
    for (const sp<BackupTask>& task : mProcessingTasks) {
        if (task->sessionId == sessionId && task->taskType == BACKUP_SPLIT) {
            task->keepAlive();
            return 0;
        }
    }
    ALOGD("processKeepAlive: session id[%d] is invalid", sessionId);
    return COMMAND_NO_SPLIT;
}

ssize_t BackupSessionManager::indexOfSessionLocked(int32_t sessionId) const {
    for (size_t i = 0; i < mSessions.size(); ++i) {
        if (mSessions[i] == sessionId) {
            return static_cast<ssize_t>(i);
        }
    }
    return -1;
}

void BackupSessionManager::exitAll() {
    for (const sp<BackupWorkerThread>& worker : mWorkers) {
        worker->requestExit();
    }
}

// Ends a running task by request: its handler stops at its next look at the abort flag, a paused
// split backup stops waiting, and its worker ends after it.
void BackupSessionManager::stopRunningTaskLocked(const sp<BackupTask>& task) {
    task->isAborted = true;
    if (task->taskType == BACKUP_SPLIT) {
        wakeUpSplitWorkerThreadLocked(task);
    }
    exitForIndex(task->workerIndex);
}

sp<os::IBackupSessionCallback> BackupSessionManager::currentCallback() const {
    MutexLock lock(mCallbackLock);
    return mCallback;
}

bool BackupSessionManager::tellClient(const sp<BackupTask>& task, TaskStatus status,
                                      const std::string& message) const {
    const sp<os::IBackupSessionCallback> callback = currentCallback();
    if (callback == nullptr) {
        return false;
    }
    callback->onTaskStatusChanged(task->sessionId, task->taskId, status, message);
    return true;
}

}  // namespace android::installd
