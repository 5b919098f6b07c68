// Tested by tests/peltexctl/test_command_line.py and test_signals.py.
#include "task/task_words.h"

#include <android/log.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string_view>

namespace peltexctl {

namespace {

constexpr const char* kAreas[] = {
    "/data/data",        "/data/user",           "/data/misc/wifi",
    "/storage/emulated", "/mnt/androidwritable", "/data/misc/apexdata/com.android.wifi",
};

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool IsInArea(const std::string& path) {
    return std::any_of(std::begin(kAreas), std::end(kAreas),
                       [&path](std::string_view area) { return path.rfind(area, 0) == 0; });
}

std::string Missing(const std::string& path) {
    return path + (Exists("/data") ? ": does not exist"
                                   : ": does not exist, and neither does /data; use --data DIR to "
                                     "show a directory as /data");
}

// Empty for a path that the library takes.
std::string WhatIsWrongWith(const std::string& path) {
    if (path.find("../") != std::string::npos) {
        return path + ": has \"../\" in it, which the library refuses; write it without";
    }
    if (!IsInArea(path)) {
        return fmt::format(
            "{}: is not in an area that the library takes ({}); use --data DIR to show a directory "
            "as /data",
            path, Areas());
    }
    return "";
}

std::string LeftOfCopy(const TaskKind& kind, const TaskRequest& request, Ending ending) {
    if (ending == Ending::kSucceeded) {
        return kind.form == TaskKind::Form::kCopy && std::string(kind.subcommand) == "move"
                   ? fmt::format("everything had been moved to {} by then", request.destination)
                   : fmt::format("{} had been completed by then", request.destination);
    }
    if (std::string(kind.subcommand) == "move") {
        return fmt::format("what was moved is in {}, the rest in {}", request.destination,
                           request.source);
    }
    return fmt::format("{} is not complete", request.destination);
}

}  // namespace

std::string Areas() {
    return fmt::format("{}", fmt::join(kAreas, ", "));
}

bool LibraryTakes(const std::string& path) {
    return WhatIsWrongWith(path).empty();
}

std::string ExplainRefusal(int result, const TaskRequest& request) {
    switch (result) {
        case 0:
            return Missing(request.source);
        case -1:
            return "the library could not start a worker thread; see its log above";
        case -4:
            return "an equal task is waiting or running";
        default:
            return fmt::format("the library refuses the command with {}; see its log above",
                               result);
    }
}

std::string ExplainPathRefusal(const TaskRequest& request) {
    for (const std::string& path : {request.source, request.destination}) {
        if (std::string wrong = WhatIsWrongWith(path); !wrong.empty()) {
            return wrong;
        }
    }
    return Missing(request.source);
}

std::string ExplainFailure(int task, const TaskKind& kind, const TaskRequest& request) {
    const bool log_shown = __android_log_get_minimum_priority() <= ANDROID_LOG_ERROR;
    std::string text =
        fmt::format("task {} failed: {}", task,
                    log_shown ? "the library's log above tells where"
                              : "--log error shows the library's log, which tells where");
    if (kind.Unpacks()) {
        text += fmt::format("; \"peltexctl verify {}\" tells what is wrong with the archive",
                            request.source);
    }
    return text;
}

std::string DescribeLeft(const TaskKind& kind, const TaskRequest& request, Ending ending,
                         const std::string& slices) {
    std::string left;
    if (!kind.HasArchive()) {
        left = LeftOfCopy(kind, request, ending);
    } else if (kind.IsRestore()) {
        left = fmt::format("what was unpacked is in {}", request.destination);
        left += slices.empty() ? "" : ", " + slices;
    } else if (kind.form == TaskKind::Form::kSlices) {
        left = slices;
    } else {
        const std::string archive = kind.file(request);
        left = Exists(archive) ? fmt::format("{} may lack entries, remove it", archive)
                               : fmt::format("nothing is left of {}", archive);
    }
    return left;
}

}  // namespace peltexctl
