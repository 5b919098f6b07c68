// The point where log lines leave the log before its minimum priority and logger are asked.
//
// For LogCapture; programs set a logger. Safe from any thread.

#pragma once

#include <functional>
#include <string>

namespace android {
namespace host {

// `tag` is null where the caller gave none. Called by several threads at a time; it must not log.
using LogTap = std::function<void(int priority, const char* tag, const std::string& message)>;

// Sends every line to `tap` and nowhere else; an empty one lets them through again.
// Returns the previous tap, of which no call is under way any more.
LogTap setLogTap(LogTap tap);

// For the log itself. The tap may be gone between the two: tellLogTap() then returns false.
bool logIsTapped();
bool tellLogTap(int priority, const char* tag, const std::string& message);

}  // namespace host
}  // namespace android
