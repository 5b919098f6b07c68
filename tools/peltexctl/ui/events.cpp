// Tested by tests/peltexctl/test_shell.py.
#include "ui/events.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "ui/json.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// The library's figures are decimal numbers.
std::string HumanBytes(const std::string& figure) {
    return HumanSize(std::strtoull(figure.c_str(), nullptr, 10));
}

// Why a task leaves something out, as people and as programs read it.
struct ReasonWords {
    LeftOut reason;
    const char* text;
    const char* key;
};

constexpr ReasonWords kReasons[] = {
    {LeftOut::kHardLinked, "hard-linked", "hard_linked"},
    {LeftOut::kDex, ".dex", "dex"},
    {LeftOut::kLib, "lib", "lib"},
    {LeftOut::kLink, "link", "link"},
    {LeftOut::kSpecial, "special file", "special"},
    {LeftOut::kTinker, "tinker", "tinker"},
    {LeftOut::kOwnArchive, "the archive itself", "own_archive"},
    {LeftOut::kUnreadable, "unreadable", "unreadable"},
};
static_assert(std::size(kReasons) == kLeftOutReasons);

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

void EventWriter::Summary(const TaskSummary& summary) {
    Json object = {{"event", "summary"}, {"task", summary.task}};
    std::vector<std::string> words;
    const uint64_t bytes = summary.tally ? summary.tally->bytes() : 0;
    if (summary.tally) {
        object["entries"] = summary.tally->entries();
        object["bytes"] = bytes;
        words = {Counted(summary.tally->entries(), "entry", "entries"), HumanSize(bytes)};
    }
    object["seconds"] = std::round(summary.seconds * 1000) / 1000;
    words.push_back(fmt::format("{:.{}f} s", summary.seconds, summary.seconds < 10 ? 2 : 1));
    if (bytes > 0 && summary.has_rate) {
        object["bytes_per_second"] = BytesPerSecond(bytes, summary.seconds);
        words.push_back(HumanRate(bytes, summary.seconds));
    }
    if (summary.slices) {
        object["slices"] = *summary.slices;
        words.push_back(Counted(*summary.slices, "slice", "slices"));
    }
    std::string text = fmt::format("summary: {}", fmt::join(words, ", "));
    if (summary.tally) {
        object["left_out"] = summary.tally->left_out();
        object["reasons"] = Json::object();
        words.clear();
        for (const ReasonWords& row : kReasons) {
            if (const uint64_t count = summary.tally->left_out(row.reason); count > 0) {
                object["reasons"][row.key] = count;
                words.push_back(fmt::format("{} {}", count, row.text));
            }
        }
        text += fmt::format("\nleft out: {}", summary.tally->left_out());
        text += words.empty() ? "" : fmt::format(" ({})", fmt::join(words, ", "));
    }
    Tell(object, text);
}

void EventWriter::Error(const std::string& message) {
    if (json()) {
        Json object = {{"event", "error"}};
        SetBytes(&object, "message", message);
        WriteLine(JsonLine(object));
    } else {
        PrintError(message);
    }
}

void EventWriter::Note(const std::string& message) {
    if (!quiet_) {
        PrintError(message);
    }
}

void EventWriter::Tell(const Json& object, const std::string& text) {
    if (!quiet_) {
        WriteLine(json() ? JsonLine(object) : text);
    }
}

void EventWriter::WriteLine(const std::string& line) {
    const std::lock_guard lock(mutex_);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

}  // namespace peltexctl
