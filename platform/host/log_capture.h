// LogCapture: keeps what is logged while it lives, for tests to look at.
//
// Lines of every priority arrive here, whatever the minimum is, and go nowhere else. Captures may
// be nested: the innermost one receives. Safe from any thread.

#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "host/log_tap.h"

namespace android {
namespace host {

class LogCapture {
  public:
    struct Line {
        int priority;
        bool hasTag;
        std::string tag;      // Empty where hasTag is false.
        std::string message;  // As formatted, with its own newline where it has one.
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // In the order of arrival.
    std::vector<Line> lines() const;
    void clear();

  private:
    LogTap mPrevious;

    mutable std::mutex mLock;
    // Guarded by mLock.
    std::vector<Line> mLines;
};

}  // namespace host
}  // namespace android
