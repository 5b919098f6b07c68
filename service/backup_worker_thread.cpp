#include "service/backup_worker_thread.h"

#include "service/backup_session_manager.h"

namespace android::installd {

BackupWorkerThread::BackupWorkerThread(BackupSessionManager* manager, size_t index)
    : Thread(/*canCallJava=*/true), workerIndex(index), mManager(manager) {}

BackupWorkerThread::~BackupWorkerThread() = default;

bool BackupWorkerThread::threadLoop() {
    return mManager->loopOnce(workerIndex);
}

}  // namespace android::installd
