// A callback of the packer and the extractor that writes down what it is told and can be made to
// act.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tar/tar_callback.h"

namespace peltex_test {

class RecordingCallBack : public android::installd::TarCallBack {
  public:
    bool IsAborted() override {
        isAborted = isAborted || (asksUntilAbort > 0 && --asksUntilAbort == 0);
        return isAborted;
    }
    void OnTaskProgress(unsigned long bytes) override {
        progress.push_back(bytes);
        onProgress();
    }
    void OnPackagedOneSplitTar(const char* sliceInfo) override { slices.push_back(sliceInfo); }
    void WaitTaskLocked() override { onWait(); }

    bool isAborted = false;
    int asksUntilAbort = 0;  // which of the next questions is answered with yes; 0: none
    std::vector<unsigned long> progress;
    std::vector<std::string> slices;
    std::function<void()> onProgress = [] {};
    std::function<void()> onWait = [] {};
};

}  // namespace peltex_test
