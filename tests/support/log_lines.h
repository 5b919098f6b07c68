// The log as test data.
#pragma once

#include <android/log.h>
#include <host/log_capture.h>

#include <string>
#include <vector>

namespace peltex_test {

// "P TAG: message" of every line of at least the given priority, in order.
inline std::vector<std::string> linesOf(const android::host::LogCapture& log,
                                        int lowest = ANDROID_LOG_WARN) {
    std::vector<std::string> texts;
    for (const auto& line : log.lines()) {
        if (line.priority >= lowest) {
            const std::string tag = line.hasTag ? line.tag : "(none)";
            texts.push_back(std::string(1, "??VDIWEFS"[line.priority]) + " " + tag + ": " +
                            line.message);
        }
    }
    return texts;
}

// The messages alone, of one priority.
inline std::vector<std::string> messagesOf(const android::host::LogCapture& log, int priority) {
    std::vector<std::string> texts;
    for (const auto& line : log.lines()) {
        if (line.priority == priority) {
            texts.push_back(line.message);
        }
    }
    return texts;
}

}  // namespace peltex_test
