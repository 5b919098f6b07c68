// What tests of the packer and the extractor share: a tree, the log, and a callback.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/log_lines.h"
#include "tests/support/recording_callback.h"
#include "tests/support/tar_builder.h"
#include "tests/support/test_files.h"

namespace peltex_test {

class TarTest : public testing::Test {
  protected:
    Lines errors() const { return messagesOf(log, ANDROID_LOG_ERROR); }
    Lines notices() const { return messagesOf(log, ANDROID_LOG_INFO); }

    android::host::LogCapture log;
    TempTree tree;
    RecordingCallBack callBack;
};

}  // namespace peltex_test
