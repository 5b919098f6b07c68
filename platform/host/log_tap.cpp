#include "host/log_tap.h"

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace android {
namespace host {
namespace {

std::atomic<bool> gTapped{false};

// Shared while a tap is called, so that setLogTap() returns after the last call of the old one.
std::shared_mutex gTapLock;

// Guarded by gTapLock. Never destroyed: detached threads log until the process is gone.
LogTap& currentTap() {
    static auto& tap = *new LogTap;
    return tap;
}

}  // namespace

LogTap setLogTap(LogTap tap) {
    const std::unique_lock<std::shared_mutex> lock(gTapLock);
    gTapped.store(tap != nullptr, std::memory_order_relaxed);
    return std::exchange(currentTap(), std::move(tap));
}

bool logIsTapped() {
    return gTapped.load(std::memory_order_relaxed);
}

bool tellLogTap(int priority, const char* tag, const std::string& message) {
    const std::shared_lock<std::shared_mutex> lock(gTapLock);
    if (currentTap() == nullptr) {
        return false;
    }
    currentTap()(priority, tag, message);
    return true;
}

}  // namespace host
}  // namespace android
