// Tested by tests/peltexctl/test_command_line.py.
#include "ui/library_log.h"

#include <android/log.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <deque>
#include <iterator>
#include <mutex>
#include <string_view>

#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr size_t kKept = 10;

// Constant from before the library has a thread.
bool g_keeps = false;
ProgressView* g_view = nullptr;

std::mutex g_mutex;
// Protected by g_mutex. Never destroyed: the library's threads may outlive the program's end.
std::deque<std::string>& g_kept = *new std::deque<std::string>;
uint64_t g_forgotten = 0;

// Logged as an error for each further part of a cut file, which is none.
bool IsNoError(const __android_log_message& message) {
    return __android_log_get_minimum_priority() == ANDROID_LOG_ERROR &&
           std::string_view(message.message) == "CreateFile:appending this file\n";
}

std::string LineOf(const __android_log_message& message) {
    std::string_view text = message.message;
    text = text.substr(0, text.find_last_not_of('\n') + 1);
    return fmt::format("{}/{}({}): {}\n", "??VDIWEF"[message.priority & 7], message.tag, getpid(),
                       EscapeBytes(text));
}

void Take(const __android_log_message* message) {
    if (IsNoError(*message)) {
        return;
    }
    const std::string line = LineOf(*message);
    const auto print = [&line] { fmt::print(stderr, "{}", line); };
    if (g_keeps) {
        const std::lock_guard lock(g_mutex);
        g_kept.push_back(line);
        if (g_kept.size() > kKept) {
            g_kept.pop_front();
            ++g_forgotten;
        }
    } else if (g_view != nullptr) {
        g_view->Aside(print);
    } else {
        print();
    }
}

}  // namespace

void ShowLibraryLog(const std::string& level, ProgressView* view) {
    constexpr int kPriorities[] = {ANDROID_LOG_DEBUG, ANDROID_LOG_INFO, ANDROID_LOG_WARN,
                                   ANDROID_LOG_ERROR, ANDROID_LOG_SILENT};
    for (size_t i = 0; i < std::size(kLogLevels); i++) {
        if (level == kLogLevels[i]) {
            __android_log_set_minimum_priority(kPriorities[i]);
        }
    }
    g_view = view;
    __android_log_set_logger(Take);
}

void KeepLibraryLog() {
    __android_log_set_minimum_priority(ANDROID_LOG_ERROR);
    g_keeps = true;
    __android_log_set_logger(Take);
}

void PrintKeptLog() {
    const std::lock_guard lock(g_mutex);
    if (g_forgotten > 0) {
        fmt::print(stderr, "{} lines of the library's log before these; --log shows all\n",
                   g_forgotten);
    }
    for (const std::string& line : g_kept) {
        fmt::print(stderr, "{}", line);
    }
    g_kept.clear();
}

}  // namespace peltexctl
