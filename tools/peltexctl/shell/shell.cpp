// Tested by tests/peltexctl/test_shell.py.
#include "shell/shell.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "ui/exit_code.h"
#include "task/session_client.h"
#include "ui/signals.h"
#include "ui/terminal.h"
#include "ui/text.h"
#include "shell/thread_list.h"

namespace peltexctl {

namespace {

constexpr double kDefaultWaitSeconds = 60;
constexpr int kNoSession = -1;

using Words = std::vector<std::string>;

TaskTracker::Clock::time_point After(double seconds) {
    return TaskTracker::Clock::now() + std::chrono::duration_cast<TaskTracker::Clock::duration>(
                                           std::chrono::duration<double>(seconds));
}

class Shell {
  public:
    // A line of the shell's own. The handler gets the words behind the name and returns false when
    // one of them is not what `arguments` says.
    struct DotLine {
        const char* name;
        size_t least, most;  // words behind the name
        const char* arguments;
        const char* help;
        bool (Shell::*handler)(const Words& words);
    };
    static const DotLine kDotLines[];

    Shell(const Library& library, EventWriter* events)
        : events_(*events), client_(library, [this](const StatusEvent& event) { Heard(event); }) {}

    int Run();

  private:
    void Heard(const StatusEvent& event);
    void Report();
    void Interrupt();
    void OpenSession();
    void HandleLine(const std::string& line);
    void HandleDotLine(const std::string& line);
    int End();

    bool Open(const Words& words);
    bool Use(const Words& words);
    bool Finish(const Words& words);
    bool Wait(const Words& words);
    bool WaitFor(const Words& words);
    bool Sleep(const Words& words);
    bool Die(const Words& words);
    bool Threads(const Words& words);
    bool Quit(const Words& words);

    EventWriter& events_;
    SessionClient client_;
    int session_ = kNoSession;
    bool quit_ = false;

    std::mutex mutex_;
    // Protected by mutex_.
    std::map<int, TaskTracker::Clock::time_point> progress_shown_;  // when, by task
};

const Shell::DotLine Shell::kDotLines[] = {
    {".open", 0, 1, "[new]", "open a session with the same or a new callback", &Shell::Open},
    {".use", 1, 1, "ID", "make ID the current session", &Shell::Use},
    {".finish", 0, 1, "[ID]", "finish session ID or the current one", &Shell::Finish},
    {".wait", 1, 2, "TASK [SECONDS]", "wait until TASK has ended", &Shell::Wait},
    {".waitfor", 2, 3, "TASK CODE [SECONDS]", "wait for a status CODE of TASK", &Shell::WaitFor},
    {".sleep", 1, 1, "MS", "do nothing for MS milliseconds", &Shell::Sleep},
    {".die", 0, 0, "", "let the current callback's process die, and with it all sessions",
     &Shell::Die},
    {".threads", 0, 0, "", "list the threads of this process", &Shell::Threads},
    {".quit", 0, 0, "", "end as at the end of input", &Shell::Quit},
};

int Shell::Run() {
    const SignalScope signals([this] { Report(); }, [this] { Interrupt(); });
    OpenSession();
    std::string line;
    while (!quit_ && std::getline(std::cin, line)) {
        HandleLine(line);
    }
    return End();
}

// People are told of a task's progress once a second.
void Shell::Heard(const StatusEvent& event) {
    if (!events_.json() && event.code == kStatusProgress) {
        constexpr std::chrono::seconds kInterval{1};
        const TaskTracker::Clock::time_point now = TaskTracker::Clock::now();
        const std::lock_guard lock(mutex_);
        const auto [shown, is_first] = progress_shown_.emplace(event.task, now);
        if (is_first || now - shown->second < kInterval) {
            return;
        }
        shown->second = now;
    }
    events_.Status(event);
}

void Shell::Report() {
    const std::vector<std::string> lines = client_.tasks().DescribeUnfinished();
    for (const std::string& line : lines) {
        fmt::print(stderr, "{}\n", EscapeBytes(line));
    }
    if (lines.empty()) {
        fmt::print(stderr, "no task is running\n");
    }
}

void Shell::Interrupt() {
    for (const std::string& line : client_.tasks().DescribeUnfinished()) {
        PrintError("interrupted: left unfinished: " + line);
    }
    _exit(kInterrupted);
}

void Shell::OpenSession() {
    session_ = client_.Open();
    events_.Session(session_);
}

void Shell::HandleLine(const std::string& line) {
    if (!line.empty() && line[0] == '.') {
        HandleDotLine(line);
        return;
    }
    events_.Result(line, client_.Execute(session_, line));
}

void Shell::HandleDotLine(const std::string& line) {
    Words words = SplitWords(line, " \t");
    const auto known = std::find_if(std::begin(kDotLines), std::end(kDotLines),
                                    [&words](const DotLine& row) { return row.name == words[0]; });
    if (known == std::end(kDotLines)) {
        events_.Error(
            fmt::format("no dot line is called {}; see peltexctl shell --help", words[0]));
        return;
    }
    words.erase(words.begin());
    if (words.size() < known->least || words.size() > known->most ||
        !(this->*known->handler)(words)) {
        events_.Error(fmt::format("wrong arguments in \"{}\": {} {}", line, known->name,
                                  *known->arguments != '\0' ? known->arguments : "takes none"));
    }
}

int Shell::End() {
    const std::vector<int> unfinished = client_.tasks().WaitAllEnded(After(kDefaultWaitSeconds));
    for (const int task : unfinished) {
        events_.Error(fmt::format("task {} has not ended", task));
    }
    const std::vector<int> sessions = client_.open_sessions();
    for (const int session : sessions) {
        events_.Closed(session, client_.Finish(session));
    }
    return unfinished.empty() && !client_.tasks().AnyFailed() ? kDone : kTaskFailed;
}

bool Shell::Open(const Words& words) {
    if (!words.empty() && words[0] != "new") {
        return false;
    }
    if (!words.empty()) {
        client_.RenewCallback();
    }
    OpenSession();
    return true;
}

bool Shell::Use(const Words& words) {
    const std::optional<int> session = ParseInt(words[0]);
    if (!session) {
        return false;
    }
    session_ = *session;
    return true;
}

bool Shell::Finish(const Words& words) {
    const std::optional<int> session = words.empty() ? session_ : ParseInt(words[0]);
    if (!session) {
        return false;
    }
    events_.Closed(*session, client_.Finish(*session));
    return true;
}

bool Shell::Wait(const Words& words) {
    const std::optional<int> task = ParseInt(words[0]);
    const std::optional<double> seconds =
        words.size() > 1 ? ParseSeconds(words[1]) : kDefaultWaitSeconds;
    if (!task || !seconds) {
        return false;
    }
    if (const std::optional<int> code = client_.tasks().WaitEnded(*task, After(*seconds))) {
        events_.Waited(*task, *code);
    } else {
        events_.Error(fmt::format("task {} has not ended within {} s", *task, *seconds));
    }
    return true;
}

bool Shell::WaitFor(const Words& words) {
    const std::optional<int> task = ParseInt(words[0]);
    const std::optional<int> code = ParseInt(words[1]);
    const std::optional<double> seconds =
        words.size() > 2 ? ParseSeconds(words[2]) : kDefaultWaitSeconds;
    if (!task || !code || !seconds) {
        return false;
    }
    if (client_.tasks().WaitStatus(*task, *code, After(*seconds))) {
        events_.Waited(*task, *code);
    } else {
        events_.Error(
            fmt::format("task {} has not reported code {} within {} s", *task, *code, *seconds));
    }
    return true;
}

bool Shell::Sleep(const Words& words) {
    const std::optional<int> milliseconds = ParseInt(words[0]);
    if (!milliseconds || *milliseconds < 0) {
        return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(*milliseconds));
    return true;
}

bool Shell::Die(const Words& /*words*/) {
    client_.Die();
    return true;
}

bool Shell::Threads(const Words& /*words*/) {
    events_.Threads(ListThreads());
    return true;
}

bool Shell::Quit(const Words& /*words*/) {
    quit_ = true;
    return true;
}

}  // namespace

int RunShell(const Library& library, EventWriter* events) {
    std::ios::sync_with_stdio(false);
    return Shell(library, events).Run();
}

std::vector<Definition> ShellLines() {
    std::vector<Definition> lines;
    for (const Shell::DotLine& row : Shell::kDotLines) {
        lines.push_back(
            {std::string(row.name) + (*row.arguments != '\0' ? " " : "") + row.arguments,
             row.help});
    }
    return lines;
}

}  // namespace peltexctl
