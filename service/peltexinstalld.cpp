// The exported functions and the one manager of the process behind them.
#include "service/peltexinstalld.h"

#include "base/locking.h"
#include "service/backup_session_manager.h"

using android::sp;
using android::installd::BackupSessionManager;
using android::installd::Mutex;
using android::installd::MutexLock;

namespace {

Mutex gManagerLock;
sp<BackupSessionManager> gManager PELTEX_GUARDED_BY(gManagerLock);

// The manager, made by the first call and kept until the library is unloaded. It is called outside
// gManagerLock, which guards its making only.
sp<BackupSessionManager> manager() {
    MutexLock lock(gManagerLock);
    if (gManager == nullptr) {
        gManager = new BackupSessionManager();
    }
    return gManager;
}

}  // namespace

#define EXPORTED __attribute__((visibility("default")))

EXPORTED int32_t startBackupSession(const sp<android::os::IBackupSessionCallback>& callback) {
    return manager()->startBackupSession(callback);
}

EXPORTED int32_t executeBackupTask(int sessionId, const std::string& taskCmd) {
    return manager()->executeBackupTask(sessionId, taskCmd);
}

EXPORTED int32_t finishBackupSession(int sessionId) {
    return manager()->finishBackupSession(sessionId);
}
