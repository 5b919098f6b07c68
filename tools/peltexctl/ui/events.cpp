// Tested by tests/peltexctl/test_shell.py.
#include "ui/events.h"

#include <fmt/format.h>

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

void WriteAndFlush(std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
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

std::string SummaryAsText(const TaskSummary& summary) {
    std::string text = "summary: ";
    const uint64_t bytes = summary.tally ? summary.tally->bytes() : 0;
    if (summary.tally) {
        text += fmt::format("{}, {}, ", Counted(summary.tally->entries(), "entry", "entries"),
                            HumanSize(bytes));
    }
    text += fmt::format("{:.{}f} s", summary.seconds, summary.seconds < 10 ? 2 : 1);
    if (bytes > 0 && summary.has_rate) {
        text += ", " + HumanRate(bytes, summary.seconds);
    }
    if (summary.slices) {
        text += ", " + Counted(*summary.slices, "slice", "slices");
    }
    return text;
}

// "3 (2 hard-linked, 1 .dex)".
std::string LeftOutAsText(const Tally& tally) {
    std::string reasons;
    for (const ReasonWords& row : kReasons) {
        if (const uint64_t count = tally.left_out(row.reason); count > 0) {
            reasons += fmt::format("{}{} {}", reasons.empty() ? "" : ", ", count, row.text);
        }
    }
    return fmt::format("{}{}", tally.left_out(), reasons.empty() ? "" : " (" + reasons + ")");
}

Json LeftOutAsJson(const Tally& tally) {
    Json reasons = Json::object();
    for (const ReasonWords& row : kReasons) {
        if (const uint64_t count = tally.left_out(row.reason); count > 0) {
            reasons[row.key] = count;
        }
    }
    return reasons;
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
    WriteLine(json() ? JsonLine({{"event", "session"}, {"session", session}})
                     : fmt::format("session {} is open", session));
}

void EventWriter::Result(const std::string& command, int result) {
    if (!json()) {
        WriteLine(fmt::format("{} -> {}", EscapeBytes(command), result));
        return;
    }
    Json object = {{"event", "result"}};
    SetBytes(&object, "command", command);
    object["result"] = result;
    WriteLine(JsonLine(object));
}

void EventWriter::Status(const StatusEvent& event) {
    if (!json()) {
        WriteLine(fmt::format("task {}: {}", event.task, EscapeBytes(DescribeStatus(event))));
        return;
    }
    Json object = {{"event", "status"},
                   {"session", event.session},
                   {"task", event.task},
                   {"code", event.code}};
    SetBytes(&object, "message", event.message);
    if (event.callback > 1) {
        object["callback"] = event.callback;
    }
    WriteLine(JsonLine(object));
}

void EventWriter::Closed(int session, int result) {
    WriteLine(json() ? JsonLine({{"event", "closed"}, {"session", session}, {"result", result}})
                     : fmt::format("session {} closed -> {}", session, result));
}

void EventWriter::Waited(int task, int code) {
    WriteLine(json() ? JsonLine({{"event", "waited"}, {"task", task}, {"code", code}})
                     : fmt::format("waited for task {}: code {}", task, code));
}

void EventWriter::Summary(const TaskSummary& summary) {
    if (!json()) {
        WriteLine(SummaryAsText(summary));
        if (summary.tally) {
            WriteLine("left out: " + LeftOutAsText(*summary.tally));
        }
        return;
    }
    Json object = {{"event", "summary"}, {"task", summary.task}};
    if (summary.tally) {
        object["entries"] = summary.tally->entries();
        object["bytes"] = summary.tally->bytes();
    }
    object["seconds"] = std::round(summary.seconds * 1000) / 1000;
    if (summary.tally && summary.tally->bytes() > 0 && summary.has_rate && summary.seconds > 0) {
        object["bytes_per_second"] =
            static_cast<uint64_t>(static_cast<double>(summary.tally->bytes()) / summary.seconds);
    }
    if (summary.slices) {
        object["slices"] = *summary.slices;
    }
    if (summary.tally) {
        object["left_out"] = summary.tally->left_out();
        object["reasons"] = LeftOutAsJson(*summary.tally);
    }
    WriteLine(JsonLine(object));
}

void EventWriter::Threads(const std::vector<ThreadInfo>& threads) {
    Json list = Json::array();
    for (const ThreadInfo& thread : threads) {
        if (!json()) {
            WriteLine(fmt::format("thread {:>7}  nice {:>3}  {}", thread.tid, thread.nice,
                                  EscapeBytes(thread.name)));
        }
        Json object;
        SetBytes(&object, "name", thread.name);
        object["tid"] = thread.tid;
        object["nice"] = thread.nice;
        list.push_back(std::move(object));
    }
    if (json()) {
        WriteLine(JsonLine({{"event", "threads"}, {"threads", list}}));
    }
}

void EventWriter::Error(const std::string& message) {
    if (!json()) {
        PrintError(message);
        return;
    }
    Json object = {{"event", "error"}};
    SetBytes(&object, "message", message);
    const std::lock_guard lock(mutex_);
    WriteAndFlush(JsonLine(object));
}

void EventWriter::Note(const std::string& message) {
    if (!quiet_) {
        PrintError(message);
    }
}

void EventWriter::WriteLine(std::string_view line) {
    if (!quiet_) {
        const std::lock_guard lock(mutex_);
        WriteAndFlush(line);
    }
}

}  // namespace peltexctl
