#include "shell/thread_list.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

#include "ui/text.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

std::optional<ThreadInfo> ReadThread(const fs::path& directory) {
    const std::optional<int> tid = ParseInt(directory.filename().native());
    std::ifstream comm(directory / "comm", std::ios::binary);
    if (!tid || !comm) {
        return std::nullopt;
    }
    std::string name{std::istreambuf_iterator<char>(comm), std::istreambuf_iterator<char>()};
    if (name.empty()) {
        return std::nullopt;
    }
    name.pop_back();  // the newline that the kernel adds; the name itself may hold others
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(*tid));
    if (nice == -1 && errno != 0) {
        return std::nullopt;
    }
    return ThreadInfo{std::move(name), *tid, nice};
}

}  // namespace

std::vector<ThreadInfo> ListThreads() {
    std::vector<ThreadInfo> threads;
    std::error_code error;
    for (fs::directory_iterator entry("/proc/self/task", error), end; !error && entry != end;
         entry.increment(error)) {
        if (std::optional<ThreadInfo> thread = ReadThread(entry->path())) {
            threads.push_back(std::move(*thread));
        }
    }
    std::sort(threads.begin(), threads.end(),
              [](const ThreadInfo& a, const ThreadInfo& b) { return a.tid < b.tid; });
    return threads;
}

}  // namespace peltexctl
