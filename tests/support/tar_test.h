// What tests of the packer and the extractor share: a tree, the log, and a callback that writes
// down what it is told and can be made to act.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tar/tar_callback.h"
#include "tests/support/log_lines.h"
#include "tests/support/tar_builder.h"
#include "tests/support/test_files.h"

namespace peltex_test {

using Lines = std::vector<std::string>;

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
    Lines slices;
    std::function<void()> onProgress = [] {};
    std::function<void()> onWait = [] {};
};

class TarTest : public testing::Test {
  protected:
    Lines errors() const { return messagesOf(log, ANDROID_LOG_ERROR); }
    Lines notices() const { return messagesOf(log, ANDROID_LOG_INFO); }

    android::host::LogCapture log;
    TempTree tree;
    RecordingCallBack callBack;
};

}  // namespace peltex_test
