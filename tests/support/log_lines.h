// The log as test data.
#pragma once

#include <android/log.h>
#include <host/log_capture.h>

#include <string>
#include <vector>

namespace peltex_test {

using Lines = std::vector<std::string>;

// "P TAG: message" of every line of at least the given priority, in order.
inline Lines linesOf(const android::host::LogCapture& log, int lowest = ANDROID_LOG_WARN) {
    Lines texts;
    for (const auto& line : log.lines()) {
        if (line.priority >= lowest) {
            texts.push_back("??VDIWEFS"[line.priority] +
                            (" " + (line.hasTag ? line.tag : "(none)")) + ": " + line.message);
        }
    }
    return texts;
}

// The messages alone, of one priority.
inline Lines messagesOf(const android::host::LogCapture& log, int priority) {
    Lines texts;
    for (const auto& line : log.lines()) {
        if (line.priority == priority) {
            texts.push_back(line.message);
        }
    }
    return texts;
}

}  // namespace peltex_test
