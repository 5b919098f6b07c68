// The process-wide object behind the exported functions: sessions, the queues of tasks, and the two
// workers that run them.
//
// Threads: clients call from any thread, tasks run on the workers. Everything is under mLock unless
// said otherwise; members whose names end in Locked expect it to be held. Lock order: mLock, then
// any of the others or a task's own, never the reverse. Handlers run without any of them. What may
// hold the last reference to a callback is let go without them, too: a callback's destructor is the
// client's, and may call in.
#pragma once

#include <android/os/IBackupSessionCallback.h>
#include <binder/IBinder.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/RefBase.h>
#include <utils/Vector.h>

#include <atomic>
#include <string>
#include <string_view>

#include "base/locking.h"
#include "service/backup_worker_thread.h"
#include "task/backup_task.h"

namespace android::installd {

// Why a command got no task and was not done.
enum CommandResult : int32_t {
    COMMAND_FAILED = -1,     // unknown session or task; weight out of range; no worker could start
    COMMAND_NO_SPLIT = -2,   // the session runs no split backup to keep alive
    COMMAND_REFUSED = -3,    // unknown command or kind, wrong number of words, no uid
    COMMAND_DUPLICATE = -4,  // an equal task is queued or running
    COMMAND_NOT_WOKEN = -5,  // a paused split backup could not be continued
};

class BackupSessionManager : public virtual RefBase, public IBinder::DeathRecipient {
  public:
    // One worker per task that may run at the same time.
    static constexpr size_t kWorkers = 2;

    BackupSessionManager();
    ~BackupSessionManager() override;

    // --- Sessions: service/backup_session_manager.cpp ---

    // Opens a session; its callback replaces the one of every earlier session. Returns its id.
    int32_t startBackupSession(const sp<os::IBackupSessionCallback>& callback)
        PELTEX_EXCLUDES(mLock);

    // Closes a session, drops its pending tasks and aborts its running ones. Returns 0, or -1 when
    // the session is not open.
    int32_t finishBackupSession(int32_t sessionId) PELTEX_EXCLUDES(mLock);

    // The client's process has died: closes every session. Tasks stay as they are.
    void binderDied(const wp<IBinder>& who) override PELTEX_EXCLUDES(mLock);

    // Starts the wait of a paused split backup of the session again. Returns 0, or -2 when the
    // session runs none.
    int32_t processKeepAlive(int32_t sessionId) PELTEX_REQUIRES(mLock);

    ssize_t indexOfSessionLocked(int32_t sessionId) const PELTEX_REQUIRES(mLock);

    // Asks every worker to exit after its present pass. Wakes nobody.
    void exitAll();

    // --- Commands: service/task_commands.cpp ---

    // Parses one command line and acts on it, splitting it in place (see service/peltexinstalld.h).
    // Returns a task's id, 0 when the command is done, or a CommandResult. A move without a source
    // and a brief with an unknown option are done with nothing done.
    int32_t executeBackupTask(int32_t sessionId, const std::string& taskCmd) PELTEX_EXCLUDES(mLock);

    // Queues a task for the kCommandWords words at `args`. Returns its id or a negative code.
    int32_t addTaskLocked(int32_t sessionId, BackupTaskType type, const std::string* args)
        PELTEX_REQUIRES(mLock);

    // Takes a pending task from the queue, or asks a running one to stop. Returns 0, or -1 when the
    // task is neither.
    int32_t abortTaskLocked(int32_t taskId) PELTEX_REQUIRES(mLock);

    // Sets the weight (0 to 100) of archive work and hands it to the first running tar backup that
    // it changes. Returns 0, -1 for a weight out of range, or the platform's result.
    int32_t setWeightLocked(int32_t weight) PELTEX_REQUIRES(mLock);

    int32_t setDelay(long delay) PELTEX_REQUIRES(mLock);

    // The nice value of a weight: 10 for 100 (and for what is out of range), 19 for 0.
    static int32_t getPrioritybyWeight(int32_t weight);

    // "tar" or "t"; "dir" or "d".
    static bool checkTarOption(std::string_view option);
    static bool checkDirOption(std::string_view option);

    // --- Workers and the task loop: service/task_loop.cpp ---

    // One pass of a worker: waits for a task, runs it and ends it. Returns false to end the thread.
    bool loopOnce(size_t workerIndex) PELTEX_EXCLUDES(mLock);

    // Starts workers as the queues need them. Returns how many run, 0 when none could be started.
    int32_t startWorkerTreadLocked() PELTEX_REQUIRES(mLock);

    // Whether the task may run: its paths are allowed and its source is there.
    bool prepareTaskLocked(const sp<BackupTask>& task) PELTEX_REQUIRES(mLock);

    // Runs the task's handler between the callbacks that frame it. Returns the handler's result.
    int32_t processTask(sp<BackupTask>& task) PELTEX_EXCLUDES(mLock);

    void finishTask(const sp<BackupTask>& task) PELTEX_EXCLUDES(mLock);
    void finishTaskLocked(const sp<BackupTask>& task) PELTEX_REQUIRES(mLock);

    bool checkExit(size_t index) const;
    void exitForIndex(size_t index);
    int32_t checkIsRunning() const;

    // --- What carries out a task: service/task_dispatch.cpp. Each is the function of its name in
    // handlers/, and in base/path_rules.h. ---

    int32_t backupFileBase(sp<BackupTask>& task);
    int32_t backupDirBase(sp<BackupTask>& task);
    int32_t restoreFileBase(sp<BackupTask>& task);
    int32_t restoreDirBase(sp<BackupTask>& task);
    int32_t moveDirBase(sp<BackupTask>& task);
    int32_t backupTarBase(sp<BackupTask>& task);
    int32_t backupSplitBase(sp<BackupTask>& task);
    int32_t restoreTarBase(sp<BackupTask>& task);
    int GetFileBriefsByDir(const sp<BackupTask>& task) const;
    int GetFileBriefsByFile(const sp<BackupTask>& task) const;
    int BackupByFileBase(const sp<BackupTask>& task) const;
    bool isStoragePath(const char* path) const;

    // --- Slices of split backups: service/split_hand_off.cpp ---

    // Continues the running split backup with these paths. Returns its id, 0 when there is none,
    // -5 when it could not be woken.
    int32_t addSplitTaskLocked(const std::string* args) PELTEX_REQUIRES(mLock);

    // The same with -6 for none; sets `workerIndex` to the worker that runs the task.
    int32_t continueSplitTaskLocked(const std::string* args, size_t& workerIndex)
        PELTEX_REQUIRES(mLock);

    // Ends the task's pause. Returns false when no worker runs at all.
    bool wakeUpSplitWorkerThreadLocked(const sp<BackupTask>& task) PELTEX_REQUIRES(mLock);

  private:
    // A row of the command table: service/task_commands.cpp.
    struct Command {
        const char* name;
        int32_t arguments;
        int32_t (BackupSessionManager::*run)(int32_t sessionId, const std::string* args);
    };
    static const Command cmds[];
    static const Command* checkTaskCmd(const std::string& cmd, int32_t arguments);

    int32_t runTaskLocked(int32_t sessionId, const std::string* args) PELTEX_REQUIRES(mLock);
    int32_t runAbortLocked(int32_t sessionId, const std::string* args) PELTEX_REQUIRES(mLock);
    int32_t runDelayLocked(int32_t sessionId, const std::string* args) PELTEX_REQUIRES(mLock);
    int32_t runMoveLocked(int32_t sessionId, const std::string* args) PELTEX_REQUIRES(mLock);
    int32_t runSetWeightLocked(int32_t sessionId, const std::string* args) PELTEX_REQUIRES(mLock);
    int32_t runKeepAliveLocked(int32_t sessionId, const std::string* args) PELTEX_REQUIRES(mLock);
    int32_t runGetBriefLocked(int32_t sessionId, const std::string* args) PELTEX_REQUIRES(mLock);
    bool isDuplicateLocked(BackupTaskType type, const std::string* args) const
        PELTEX_REQUIRES(mLock);

    void stopRunningTaskLocked(const sp<BackupTask>& task) PELTEX_REQUIRES(mLock);

    // How a worker's wait ends.
    enum class Turn {
        kTask,       // there is a task for it
        kOthersRun,  // it was asked to exit, and all that may run is running
        kNoneLeft,   // it was asked to exit, and nothing is queued
    };
    Turn waitForTurnLocked(size_t workerIndex) PELTEX_REQUIRES(mLock);
    bool takeTaskLocked(size_t workerIndex, sp<BackupTask>& task) PELTEX_REQUIRES(mLock);
    void endPass(size_t workerIndex) PELTEX_EXCLUDES(mLock);
    bool startWorkerLocked(size_t index) PELTEX_REQUIRES(mLock);
    void settleWorkerLocked(size_t index) PELTEX_REQUIRES(mLock);
    bool isOpenSessionWaitingLocked() const PELTEX_REQUIRES(mLock);
    int32_t runHandler(sp<BackupTask>& task) PELTEX_EXCLUDES(mLock);
    int32_t applyWeight() PELTEX_EXCLUDES(mWeightLock);

    // The callback of the moment, null for none.
    sp<os::IBackupSessionCallback> currentCallback() const PELTEX_EXCLUDES(mCallbackLock);

    // Tells the callback of the moment. Returns false when there is none.
    bool tellClient(const sp<BackupTask>& task, TaskStatus status, const std::string& message) const
        PELTEX_EXCLUDES(mCallbackLock);

    mutable Mutex mLock;
    Condition mCond;  // a task was queued, or workers were asked to exit

    // What a task needs between its first status and its last is not behind mLock: a callback that
    // takes its time with mLock held keeps queued tasks from starting, and no running one from its
    // statuses.
    mutable Mutex mCallbackLock;
    sp<os::IBackupSessionCallback> mCallback PELTEX_GUARDED_BY(mCallbackLock);
    Mutex mWeightLock;
    int32_t mWeight PELTEX_GUARDED_BY(mWeightLock) = 100;

    Vector<int32_t> mSessions
        PELTEX_GUARDED_BY(mLock);  // ids of the open sessions, in opening order
    Vector<sp<BackupTask>> mPendingTasks PELTEX_GUARDED_BY(mLock);     // oldest first
    Vector<sp<BackupTask>> mProcessingTasks PELTEX_GUARDED_BY(mLock);  // at most one per worker
    sp<BackupTask> mAbortedTask PELTEX_GUARDED_BY(mLock);  // taken from the queue by a command
    Vector<sp<BackupWorkerThread>> mWorkers;               // constant after construction
    int64_t mDelay PELTEX_GUARDED_BY(mLock) = 0;           // stored for the client, not read
    std::atomic<int32_t> mNextId{100};                     // of sessions and tasks alike

    // Whether a worker is inside loopOnce, where it still sees what is queued. Set without mLock on
    // the way in, cleared under mLock by the decision that ends the pass.
    std::atomic<bool> mInPass[kWorkers] = {};
};

}  // namespace android::installd
