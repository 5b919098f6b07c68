// Tested by tests/peltexctl/test_shell.py.
#include "shell/shell.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "shell/task_tracker.h"
#include "shell/thread_list.h"
#include "task/session_client.h"
#include "ui/exit_code.h"
#include "ui/signals.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr double kDefaultWaitSeconds = 60;
constexpr double kQuietWaitSeconds = 2;
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
    int Execute(const std::string& line);
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
    bool Help(const Words& words);
    bool Quit(const Words& words);

    EventWriter& events_;
    TaskTracker tasks_;
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
    {".help", 0, 0, "", "list these lines and the commands of the library", &Shell::Help},
    {".quit", 0, 0, "", "end as at the end of input", &Shell::Quit},
};

struct LibraryCommand {
    const char* line;
    const char* help;
};

constexpr LibraryCommand kLibraryCommands[] = {
    {"backup KIND SRC DEST SEINFO UID", "KIND: file, dir, tar or byfile"},
    {"backup split SRC DEST MIB SEINFO UID", "again: the next slice"},
    {"restore KIND SRC DEST SEINFO UID", "KIND: file, dir, tar or split"},
    {"move dir SRC DEST SEINFO UID", "a directory's content"},
    {"get_brief KIND SRC BRIEF SEINFO UID", "KIND: dir or byfile"},
    {"abort TASK", "take a task out of the queue, or ask it to stop"},
    {"keepalive", "keep a backup that pauses after a slice waiting"},
    {"setweight tar WEIGHT", "the priority of archive tasks: 0 (lowest) to 100"},
    {"delay NUMBER", "accepted, without effect"},
};

int Shell::Run() {
    const SignalScope signals([this](int /*times*/) {
        const std::string left = tasks_.DescribeUnfinished();
        TellLast("interrupted" + (left.empty() ? "" : ": left unfinished: " + left));
        _exit(kInterrupted);
    });
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
            tasks_.Heard(event);
            return;
        }
        shown->second = now;
    }
    // Reported first: whoever waits for a status finds it printed.
    events_.Status(event);
    tasks_.Heard(event);
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
    events_.Result(line, Execute(line));
}

int Shell::Execute(const std::string& line) {
    const int result = client_.Execute(session_, line);
    const Words words = SplitWords(line.c_str(), " ");
    if (result >= kFirstId) {
        tasks_.Given(result, session_);
    } else if (result == 0 && words.size() == 2 && words[0] == "abort") {
        tasks_.AbortAccepted(static_cast<int>(std::strtol(words[1].c_str(), nullptr, 0)));
    }
    return result;
}

void Shell::HandleDotLine(const std::string& line) {
    Words words = SplitWords(line, " \t");
    const auto known = std::find_if(std::begin(kDotLines), std::end(kDotLines),
                                    [&words](const DotLine& row) { return row.name == words[0]; });
    if (known == std::end(kDotLines)) {
        events_.Error(
            fmt::format("no dot line is called {}; .help lists them", words[0]));
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
    const std::vector<int> sessions = client_.open_sessions();
    std::vector<int> unfinished = tasks_.WaitAllEnded(sessions, After(kQuietWaitSeconds));
    if (!unfinished.empty()) {
        events_.Note("waiting for " + tasks_.DescribeUnfinished());
        unfinished =
            tasks_.WaitAllEnded(sessions, After(kDefaultWaitSeconds - kQuietWaitSeconds));
    }
    for (const int task : unfinished) {
        events_.Error(fmt::format("task {} has not ended", task));
    }
    for (const int session : sessions) {
        events_.Closed(session, client_.Finish(session));
    }
    return unfinished.empty() && !tasks_.AnyFailed() ? kDone : kTaskFailed;
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
    if (const std::optional<int> code = tasks_.WaitEnded(*task, After(*seconds))) {
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
    if (tasks_.WaitStatus(*task, *code, After(*seconds))) {
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

bool Shell::Help(const Words& /*words*/) {
    fmt::print(stderr, "{}", ShellHelp());
    return true;
}

bool Shell::Quit(const Words& /*words*/) {
    quit_ = true;
    return true;
}

}  // namespace

int RunShell(const Library& library, EventWriter* events) {
    std::ios::sync_with_stdio(false);
    // Never destroyed: tasks that have not ended report to it until the process is gone.
    static Shell* const shell = new Shell(library, events);
    return shell->Run();
}

std::string ShellHelp() {
    std::string text = "Lines of the shell itself:\n";
    for (const Shell::DotLine& row : Shell::kDotLines) {
        const std::string line = fmt::format("{} {}", row.name, row.arguments);
        text += fmt::format("  {:<38}{}\n", line, row.help);
    }
    text += "\nCommands of the library:\n";
    for (const LibraryCommand& row : kLibraryCommands) {
        text += fmt::format("  {:<38}{}\n", row.line, row.help);
    }
    return text;
}

}  // namespace peltexctl
