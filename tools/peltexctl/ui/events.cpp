// Tested by tests/peltexctl/test_shell.py.
#include "ui/events.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using Json = nlohmann::ordered_json;

// The library's figures are decimal numbers.
std::string HumanBytes(const std::string& figure) {
    return HumanSize(std::strtoull(figure.c_str(), nullptr, 10));
}

std::string SummaryAsText(const TaskSummary& summary) {
    std::string text = "summary: ";
    if (summary.entries) {
        text +=
            fmt::format("{} {}, ", *summary.entries, *summary.entries == 1 ? "entry" : "entries");
    }
    if (summary.bytes) {
        text += HumanSize(*summary.bytes) + ", ";
    }
    text += fmt::format("{:.{}f} s", summary.seconds, summary.seconds < 10 ? 2 : 1);
    if (summary.bytes.value_or(0) > 0 && summary.has_rate) {
        text += ", " + HumanRate(*summary.bytes, summary.seconds);
    }
    if (summary.slices) {
        text += fmt::format(", {} slice{}", *summary.slices, *summary.slices == 1 ? "" : "s");
    }
    return text;
}

std::string Line(const Json& object) {
    return object.dump(-1, ' ', true);
}

}  // namespace

bool EndsTask(const StatusEvent& event) {
    return event.message == "processTask finish" || RefusesPath(event);
}

bool RefusesPath(const StatusEvent& event) {
    return event.message == "prepareTask error";
}

std::string DescribeStatus(const StatusEvent& event) {
    switch (event.code) {
        case kStatusFailed:
            return RefusesPath(event) ? "failed: a path is not allowed or the source does not exist"
                                      : "failed";
        case kStatusSuccess:
            return "done";
        case kStatusStarted:
            return "started";
        case kStatusAborted:
            return "aborted";
        case kStatusProgress:
            return HumanBytes(event.message);
        case kStatusSlicePackaged:
            return "slice " + event.message;
        case kStatusTimeout:
            return "timed out: nobody took the slice";
        case kStatusBriefSize:
            return HumanBytes(event.message) + " listed";
        default:
            return fmt::format("status {} {}", event.code, event.message);
    }
}

void EventWriter::Session(int session) {
    WriteLine(json() ? Line({{"event", "session"}, {"session", session}})
                     : fmt::format("session {} is open", session));
}

void EventWriter::Result(const std::string& command, int result) {
    WriteLine(
        json() ? Line({{"event", "result"}, {"command", BytesToUtf8(command)}, {"result", result}})
               : fmt::format("{} -> {}", EscapeBytes(command), result));
}

void EventWriter::Status(const StatusEvent& event) {
    if (!json()) {
        WriteLine(fmt::format("task {}: {}", event.task, EscapeBytes(DescribeStatus(event))));
        return;
    }
    Json object = {{"event", "status"},
                   {"session", event.session},
                   {"task", event.task},
                   {"code", event.code},
                   {"message", BytesToUtf8(event.message)}};
    if (event.callback > 1) {
        object["callback"] = event.callback;
    }
    WriteLine(Line(object));
}

void EventWriter::Closed(int session, int result) {
    WriteLine(json() ? Line({{"event", "closed"}, {"session", session}, {"result", result}})
                     : fmt::format("session {} closed -> {}", session, result));
}

void EventWriter::Waited(int task, int code) {
    WriteLine(json() ? Line({{"event", "waited"}, {"task", task}, {"code", code}})
                     : fmt::format("waited for task {}: code {}", task, code));
}

void EventWriter::Summary(const TaskSummary& summary) {
    if (!json()) {
        WriteLine(SummaryAsText(summary));
        return;
    }
    Json object = {{"event", "summary"}, {"task", summary.task}};
    if (summary.entries) {
        object["entries"] = *summary.entries;
    }
    if (summary.bytes) {
        object["bytes"] = *summary.bytes;
    }
    object["seconds"] = std::round(summary.seconds * 1000) / 1000;
    if (summary.bytes.value_or(0) > 0 && summary.has_rate && summary.seconds > 0) {
        object["bytes_per_second"] =
            static_cast<uint64_t>(static_cast<double>(*summary.bytes) / summary.seconds);
    }
    if (summary.slices) {
        object["slices"] = *summary.slices;
    }
    WriteLine(Line(object));
}

void EventWriter::Threads(const std::vector<ThreadInfo>& threads) {
    if (!json()) {
        for (const ThreadInfo& thread : threads) {
            WriteLine(fmt::format("thread {:>7}  nice {:>3}  {}", thread.tid, thread.nice,
                                  BytesToUtf8(thread.name)));
        }
        return;
    }
    Json list = Json::array();
    for (const ThreadInfo& thread : threads) {
        list.push_back(
            {{"name", BytesToUtf8(thread.name)}, {"tid", thread.tid}, {"nice", thread.nice}});
    }
    WriteLine(Line({{"event", "threads"}, {"threads", list}}));
}

void EventWriter::Error(const std::string& message) {
    if (!json()) {
        PrintError(message);
        return;
    }
    WriteLine(Line({{"event", "error"}, {"message", BytesToUtf8(message)}}));
}

void EventWriter::WriteLine(std::string_view line) {
    const std::lock_guard lock(mutex_);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

}  // namespace peltexctl
