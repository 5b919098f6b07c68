#include "host/log_capture.h"

#include <utility>

namespace android {
namespace host {

LogCapture::LogCapture() {
    mPrevious = setLogTap([this](int priority, const char* tag, const std::string& message) {
        const std::lock_guard<std::mutex> lock(mLock);
        mLines.push_back({priority, tag != nullptr, tag != nullptr ? tag : "", message});
    });
}

LogCapture::~LogCapture() {
    setLogTap(std::move(mPrevious));
}

std::vector<LogCapture::Line> LogCapture::lines() const {
    const std::lock_guard<std::mutex> lock(mLock);
    return mLines;
}

void LogCapture::clear() {
    const std::lock_guard<std::mutex> lock(mLock);
    mLines.clear();
}

}  // namespace host
}  // namespace android
