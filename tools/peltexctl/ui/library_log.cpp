// Tested by tests/client/peltexctl.md.
#include "ui/library_log.h"

#include <android/log.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string_view>

#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr size_t kKept = 10;

// Constant from before the library has a thread; without a view, lines are kept.
ProgressView* g_view = nullptr;

std::mutex g_mutex;
// Protected by g_mutex.
std::deque<std::string> g_kept;
uint64_t g_forgotten = 0;

void Take(const __android_log_message* message) {
    std::string_view text = message->message;
    text = text.substr(0, text.find_last_not_of('\n') + 1);
    // Logged as an error for each further part of a cut file, which is none.
    if (text == "CreateFile:appending this file" &&
        __android_log_get_minimum_priority() == ANDROID_LOG_ERROR) {
        return;
    }
    const std::string line = fmt::format("{}/{}({}): {}\n", "??VDIWEF"[message->priority & 7],
                                         message -> tag, getpid(), EscapeBytes(text));
    if (g_view != nullptr) {
        return g_view->Aside([&line] { Print(stderr, line); });
    }
    const std::lock_guard lock(g_mutex);
    g_kept.push_back(line);
    if (g_kept.size() > kKept) {
        g_kept.pop_front();
        ++g_forgotten;
    }
}

}  // namespace

void TakeLibraryLog(const std::string& level, ProgressView* view) {
    constexpr int kPriorities[] = {ANDROID_LOG_DEBUG, ANDROID_LOG_INFO,   ANDROID_LOG_WARN,
                                   ANDROID_LOG_ERROR, ANDROID_LOG_SILENT, ANDROID_LOG_ERROR};
    const auto row = std::find(kLogLevels.begin(), kLogLevels.end(), level);
    __android_log_set_minimum_priority(kPriorities[row - kLogLevels.begin()]);
    g_view = level.empty() ? nullptr : view;
    __android_log_set_logger(Take);
}

void PrintKeptLog() {
    const std::lock_guard lock(g_mutex);
    if (g_forgotten > 0) {
        Print(stderr, fmt::format("{} of the library's log before these; --log shows all\n",
                                  Counted(g_forgotten, "line", "lines")));
    }
    for (const std::string& line : g_kept) {
        Print(stderr, line);
    }
    g_kept.clear();
}

}  // namespace peltexctl
