// What the tar code of one task hears of its client: whether to stop, and when to go on.
#pragma once

#include "tar/tar_callback.h"
#include "task/backup_task.h"

namespace android::installd {

// Bound to the handler's own reference to the task, without a count of its own: lives on the
// handler's stack. For the task's worker only.
class TarCBImpl : public TarCallBack {
  public:
    explicit TarCBImpl(const sp<BackupTask>& task) : mTask(&task) {}

    bool IsAborted() override;

    // Counts the bytes and tells the client the total, at steps of 80 KiB. An aborted task counts
    // nothing any more.
    void OnTaskProgress(unsigned long bytes) override;

    // Tells the client of a slice, also when the task has been aborted since.
    void OnPackagedOneSplitTar(const char* sliceInfo) override;

    // Pauses the worker until the client continues or aborts the task, or is silent for too long.
    void WaitTaskLocked() override;

  private:
    const sp<BackupTask>* mTask;
};

}  // namespace android::installd
