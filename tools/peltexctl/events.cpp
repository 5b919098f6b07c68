// Tested by tests/peltexctl/test_shell.py.
#include "events.h"

#include <fmt/format.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "text.h"

namespace peltexctl {

namespace {

using Json = nlohmann::ordered_json;

std::string Line(const Json& object) {
    return object.dump(-1, ' ', true);
}

}  // namespace

std::string DescribeStatus(const StatusEvent& event) {
    switch (event.code) {
        case kStatusFailed:
            return event.message == "prepareTask error"
                       ? "failed: a path is not allowed or the source does not exist"
                       : "failed";
        case kStatusSuccess:
            return "done";
        case kStatusStarted:
            return "started";
        case kStatusAborted:
            return "aborted";
        case kStatusProgress:
            return event.message + " bytes";
        case kStatusSlicePackaged:
            return "slice " + event.message;
        case kStatusTimeout:
            return "timed out";
        case kStatusBriefSize:
            return "listed " + event.message + " bytes";
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
        fmt::print(stderr, "peltexctl: {}\n", EscapeBytes(message));
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
