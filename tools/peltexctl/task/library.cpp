// Tested by tests/client/peltexctl.md.
#include "task/library.h"

#include <android/log.h>
#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <string_view>

#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr size_t kKept = 10;  // lines of the log

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

Library LoadLibrary(const std::optional<std::string>& path) {
    // With the version of its interface: the name without one is there for those who link. The
    // loader takes a name without a slash for one to search for.
    const std::string file = !path                                  ? PELTEXCTL_LIBRARY
                             : path->find('/') == std::string::npos ? "./" + *path
                                                                    : *path;
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the C library keeps the text per thread
        const char* const text = dlerror();
        throw Failure(kNoLibraryOrData,
                      fmt::format("cannot load the library: {}; --library FILE names another",
                                  text != nullptr ? text : "unknown error"));
    }
    const auto find = [&](const char* name) {
        void* const function = dlsym(handle, name);
        Ensure(function != nullptr,
               fmt::format("{}: has no function {}, so it is not the library", file, name),
               kNoLibraryOrData);
        return function;
    };
    return {reinterpret_cast<decltype(Library::start)>(find("startBackupSession")),
            reinterpret_cast<decltype(Library::execute)>(find("executeBackupTask")),
            reinterpret_cast<decltype(Library::finish)>(find("finishBackupSession"))};
}

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
