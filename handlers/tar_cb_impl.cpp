// Tested by tests/unit/service/sessions_test.cpp.
#define LOG_TAG "BackupSessionManager"

#include "handlers/tar_cb_impl.h"

#include <log/log.h>

namespace android::installd {

bool TarCBImpl::IsAborted() {
    return (*mTask)->isAborted;
}

void TarCBImpl::OnTaskProgress(unsigned long bytes) {
    const sp<BackupTask>& task = *mTask;
    if (task->isAborted || task->callback == nullptr) {
        return;
    }
    if (!task->addProgress(bytes)) {
        ALOGE("OnTaskProgress, get task_copy_len error");
    }
}

void TarCBImpl::OnPackagedOneSplitTar(const char* sliceInfo) {
    ALOGD("call OnSplitTarPackaged method");
    (*mTask)->notify(TASK_STATUS_SLICE_PACKAGED, sliceInfo);
}

void TarCBImpl::WaitTaskLocked() {
    (*mTask)->pause();
}

}  // namespace android::installd
