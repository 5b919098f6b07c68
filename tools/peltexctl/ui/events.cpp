// Tested by tests/client/peltexctl.md.
#include "ui/events.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "ui/text.h"

namespace peltexctl {

namespace {

// A status in words, {0} being its message and {1} that as a size.
constexpr std::pair<int, const char*> kStatusWords[] = {
    {kStatusFailed, "failed"},
    {kStatusSuccess, "done"},
    {kStatusStarted, "started"},
    {kStatusAborted, "aborted"},
    {kStatusProgress, "{1}"},
    {kStatusSlicePackaged, "slice {0}"},
    {kStatusTimeout, "timed out: nobody took the slice"},
    {kStatusBriefSize, "{1} listed"},
};

}  // namespace

void SetBytes(Json* object, const char* key, std::string_view bytes, const char* raw_key) {
    std::string text = BytesToUtf8(bytes);
    const bool is_text = text == bytes;
    (*object)[key] = std::move(text);
    if (!is_text) {
        (*object)[raw_key] = Hexadecimal(bytes);
    }
}

std::string JsonLine(const Json& object) {
    return object.dump(-1, ' ', true);
}

bool EndsTask(const StatusEvent& event) {
    return event.message == "processTask finish" || RefusesPath(event);
}

bool RefusesPath(const StatusEvent& event) {
    return event.message == "prepareTask error";
}

std::string DescribeStatus(const StatusEvent& event) {
    if (RefusesPath(event)) {
        return "failed: a path is not allowed or the source does not exist";
    }
    for (const auto& [code, words] : kStatusWords) {
        if (code == event.code) {
            const auto bytes = ParseNumber<uint64_t>(event.message);
            return fmt::format(fmt::runtime(words), event.message, HumanSize(bytes.value_or(0)));
        }
    }
    return fmt::format("status {} {}", event.code, event.message);
}

void EventWriter::Session(int session) {
    Tell({{"event", "session"}, {"session", session}}, fmt::format("session {} is open", session));
}

void EventWriter::Result(const std::string& command, int result) {
    Json object = {{"event", "result"}};
    SetBytes(&object, "command", command);
    object["result"] = result;
    Tell(object, fmt::format("{} -> {}", EscapeBytes(command), result));
}

void EventWriter::Status(const StatusEvent& event) {
    Json object = {{"event", "status"},
                   {"session", event.session},
                   {"task", event.task},
                   {"code", event.code}};
    SetBytes(&object, "message", event.message);
    if (event.callback > 1) {
        object["callback"] = event.callback;
    }
    Tell(object, fmt::format("task {}: {}", event.task, EscapeBytes(DescribeStatus(event))));
}

void EventWriter::Closed(int session, int result) {
    Tell({{"event", "closed"}, {"session", session}, {"result", result}},
         fmt::format("session {} closed -> {}", session, result));
}

void EventWriter::Error(const std::string& message) {
    if (!json_) {
        return view_.Aside([&] { PrintError(message); });
    }
    Json object = {{"event", "error"}};
    SetBytes(&object, "message", message);
    Tell(object, "", true);
}

void EventWriter::Note(const std::string& message) {
    if (!quiet_) {
        view_.Aside([&] { PrintError(message); });
    }
}

void EventWriter::Tell(const Json& object, const std::string& text, bool went_wrong) {
    if (!quiet_ || went_wrong) {
        const std::string line = (json_ ? JsonLine(object) : text) + "\n";
        view_.Aside([&] {
            Print(stream_, line);
            std::fflush(stream_);
        });
    }
}

}  // namespace peltexctl
