// Tested by tests/client/peltexctl.md.
#include "shell/shell.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Words = std::vector<std::string>;

constexpr Seconds kDefaultWait{60};
constexpr Seconds kQuietWait{2};

// What is known of a task.
struct Task {
    bool IsUnfinished() const { return session && !end; }

    std::optional<int> session;              // of one that the library was given
    std::optional<int> end;                  // the last code of one that has ended
    Clock::time_point shown = Clock::now();  // when its progress was
    std::string last_words = "waiting";      // its last status, as people read it
    // How many statuses of each code have come, less those that WaitStatus() has taken.
    std::map<int, int> untaken;
};

// What a wrong word throws.
void Expect(bool is_right) {
    if (!is_right) {
        throw std::bad_optional_access();
    }
}

// The number that is word `index`, or `missing` where there are fewer words. Throws where the word
// is no number.
int IntAt(const Words& words, size_t index, int missing = 0) {
    return index < words.size() ? ParseInt(words[index]).value() : missing;
}

Seconds SecondsAt(const Words& words, size_t index) {
    return index < words.size() ? Seconds(ParseSeconds(words[index]).value()) : kDefaultWait;
}

// The threads of this process, oldest first; one that ends meanwhile is left out.
void TellThreads(EventWriter* events) {
    Json threads = Json::array();
    std::string text;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string tid = task.path().filename();
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        errno = 0;
        const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(*ParseInt(tid)));
        if (name.empty() || errno != 0) {
            continue;
        }
        text += fmt::format("{}thread {:>7}  nice {:>3}  {}", text.empty() ? "" : "\n", tid, nice,
                            EscapeBytes(name));
        Json& thread = threads.emplace_back();
        SetBytes(&thread, "name", name);
        thread["tid"] = *ParseInt(tid);
        thread["nice"] = nice;
    }
    events->Tell({{"event", "threads"}, {"threads", threads}}, text);
}

class Shell {
  public:
    Shell(const Library& library, EventWriter* writer) : events(*writer), library_(library) {}

    int Run() {
        const SignalScope signals([this] {
            const std::unique_lock lock(mutex_, std::try_to_lock);
            const std::string left = lock.owns_lock() ? DescribeUnfinished() : "";
            EndInterrupted("interrupted" + (left.empty() ? "" : ": left unfinished: " + left));
        });
        OpenSession(true);
        std::string line;
        while (!quits && std::getline(std::cin, line)) {
            if (!line.empty() && line[0] == '.') {
                HandleDotLine(line);
            } else {
                events.Result(line, Execute(line));
            }
        }
        return End();
    }

    void OpenSession(bool has_new_callback) {
        if (has_new_callback) {
            callback_ = new ClientCallback(++callbacks_made_,
                                           [this](const StatusEvent& event) { Heard(event); });
        }
        session = library_.start(callback_);
        open_.insert(session);
        events.Session(session);
    }

    void FinishSession(int id) {
        const int result = library_.finish(id);
        if (result == 0) {
            open_.erase(id);
        }
        events.Closed(id, result);
    }

    void Die() {
        if (callback_->Die()) {
            open_.clear();
        }
    }

    // Waits until the task has ended. Returns its last code (2 if it never ran), or nothing where
    // that takes longer. One that nobody has heard of yet may still turn up.
    std::optional<int> WaitEnded(int id, Seconds patience) {
        std::unique_lock lock(mutex_);
        const std::optional<int>& end = tasks_[id].end;
        changed_.wait_for(lock, patience, [&end] { return end.has_value(); });
        return end;
    }

    // Waits for a status of the task that no earlier call for that task and code has taken, and
    // takes it. Returns its code, or nothing where that takes longer.
    std::optional<int> WaitStatus(int id, int code, Seconds patience) {
        std::unique_lock lock(mutex_);
        std::map<int, int>& untaken = tasks_[id].untaken;
        const bool has_come = changed_.wait_for(lock, patience, [&untaken, code] {
            return untaken.count(code) > 0 && untaken[code] > 0;
        });
        if (!has_come) {
            return std::nullopt;
        }
        --untaken[code];
        return code;
    }

    EventWriter& events;
    int session = -1;
    bool quits = false;

  private:
    // On the library's threads, some of them with the library's lock held. May come before the
    // answer to the command that the task is of.
    void Heard(const StatusEvent& event) {
        // Reported first: whoever waits for a status finds it printed.
        if (events.json() || event.code != kStatusProgress || IsProgressDue(event.task)) {
            events.Status(event);
        }
        const std::lock_guard lock(mutex_);
        Task& task = tasks_[event.task];
        task.last_words = DescribeStatus(event);
        task.untaken[event.code]++;
        if (EndsTask(event)) {
            task.end = event.code;
        }
        changed_.notify_all();
    }

    // Whether people are to be told of this task's progress again: once a second.
    bool IsProgressDue(int id) {
        const std::lock_guard lock(mutex_);
        Task& task = tasks_[id];
        const Clock::time_point now = Clock::now();
        const bool is_due = now - task.shown >= std::chrono::seconds(1);
        task.shown = is_due ? now : task.shown;
        return is_due;
    }

    int Execute(const std::string& line) {
        const int result = library_.Execute(session, line);
        // It sees a line up to its first NUL.
        const Words words = SplitWords(line.substr(0, line.find('\0')));
        const std::lock_guard lock(mutex_);
        if (result >= kFirstId) {
            Task& task = tasks_[result];
            task.session = task.session.value_or(session);
        } else if (result == 0 && words.size() == 2 && words[0] == "abort") {
            Task& task = tasks_[static_cast<int>(std::strtol(words[1].c_str(), nullptr, 0))];
            // One that was running has its status by then, one that was not never gets any.
            if (!task.end && task.untaken.count(kStatusAborted) == 0) {
                task.end = kStatusAborted;
            }
        }
        return result;
    }

    void HandleDotLine(const std::string& line);

    int End() {
        std::string unfinished = WaitAllEnded(kQuietWait);
        if (!unfinished.empty()) {
            events.Note("waiting for " + unfinished);
            unfinished = WaitAllEnded(kDefaultWait - kQuietWait);
        }
        if (!unfinished.empty()) {
            events.Error("left unfinished: " + unfinished);
        }
        for (const int open : std::set<int>(open_)) {
            FinishSession(open);
        }
        const std::lock_guard lock(mutex_);
        const bool failed = std::any_of(tasks_.begin(), tasks_.end(), [](const auto& entry) {
            return entry.second.session && entry.second.end == kStatusFailed;
        });
        return unfinished.empty() && !failed ? kDone : kTaskFailed;
    }

    // Waits until every given task of the open sessions has ended: one that a session took out of
    // the queue with its end never does. Returns what has not by then.
    std::string WaitAllEnded(Seconds patience) {
        std::unique_lock lock(mutex_);
        const bool is_over = changed_.wait_for(lock, patience, [this] {
            return std::none_of(tasks_.begin(), tasks_.end(), [this](const auto& entry) {
                return entry.second.IsUnfinished() && open_.count(*entry.second.session) > 0;
            });
        });
        return is_over ? "" : DescribeUnfinished();
    }

    // The given tasks that have not ended, and what was last heard of each. REQUIRES: mutex_ is
    // held.
    std::string DescribeUnfinished() const {
        std::string text;
        for (const auto& [id, task] : tasks_) {
            if (task.IsUnfinished()) {
                text += fmt::format("{}task {}: {}", text.empty() ? "" : ", ", id, task.last_words);
            }
        }
        return text;
    }

    const Library library_;
    android::sp<ClientCallback> callback_;  // of the next session
    int callbacks_made_ = 0;
    std::set<int> open_;  // sessions, oldest first

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, Task> tasks_;  // protected by mutex_
};

void Waited(Shell* shell, int task, std::optional<int> code, const std::string& missing) {
    if (code) {
        shell->events.Tell({{"event", "waited"}, {"task", task}, {"code", *code}},
                           fmt::format("waited for task {}: code {}", task, *code));
    } else {
        shell->events.Error(fmt::format("task {} has not {}", task, missing));
    }
}

// A line of the shell's own. `run` gets the words behind the name and throws when one of them is
// not what `arguments` says.
struct DotLine {
    const char* name;
    size_t least, most;  // words behind the name
    const char* arguments;
    const char* help;
    void (*run)(Shell* shell, const Words& words);
};

constexpr DotLine kDotLines[] = {
    {".open", 0, 1, "[new]", "open a session with the same or a new callback",
     [](Shell* shell, const Words& words) {
         Expect(words.empty() || words[0] == "new");
         shell->OpenSession(!words.empty());
     }},
    {".use", 1, 1, "ID", "make ID the current session",
     [](Shell* shell, const Words& words) { shell->session = IntAt(words, 0); }},
    {".finish", 0, 1, "[ID]", "finish session ID or the current one",
     [](Shell* shell, const Words& words) {
         shell->FinishSession(IntAt(words, 0, shell->session));
     }},
    {".wait", 1, 2, "TASK [SECONDS]", "wait until TASK has ended",
     [](Shell* shell, const Words& words) {
         const int task = IntAt(words, 0);
         const Seconds seconds = SecondsAt(words, 1);
         Waited(shell, task, shell->WaitEnded(task, seconds),
                fmt::format("ended within {} s", seconds.count()));
     }},
    {".waitfor", 2, 3, "TASK CODE [SECONDS]", "wait for a status CODE of TASK",
     [](Shell* shell, const Words& words) {
         const int task = IntAt(words, 0);
         const int code = IntAt(words, 1);
         const Seconds seconds = SecondsAt(words, 2);
         Waited(shell, task, shell->WaitStatus(task, code, seconds),
                fmt::format("reported code {} within {} s", code, seconds.count()));
     }},
    {".sleep", 1, 1, "MS", "do nothing for MS milliseconds",
     [](Shell* /*shell*/, const Words& words) {
         const int milliseconds = IntAt(words, 0);
         Expect(milliseconds >= 0);
         std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
     }},
    {".die", 0, 0, "", "let the current callback's process die, and with it all sessions",
     [](Shell* shell, const Words& /*words*/) { shell->Die(); }},
    {".threads", 0, 0, "", "list the threads of this process",
     [](Shell* shell, const Words& /*words*/) { TellThreads(&shell->events); }},
    {".help", 0, 0, "", "list these lines and the commands of the library",
     [](Shell* /*shell*/, const Words& /*words*/) { Print(stderr, ShellHelp()); }},
    {".quit", 0, 0, "", "end as at the end of input",
     [](Shell* shell, const Words& /*words*/) { shell->quits = true; }},
};

void Shell::HandleDotLine(const std::string& line) {
    Words words = SplitWords(line);
    const auto known = std::find_if(std::begin(kDotLines), std::end(kDotLines),
                                    [&words](const DotLine& row) { return row.name == words[0]; });
    if (known == std::end(kDotLines)) {
        return events.Error(fmt::format("no dot line is called {}; .help lists them", words[0]));
    }
    words.erase(words.begin());
    try {
        Expect(words.size() >= known->least && words.size() <= known->most);
        known->run(this, words);
    } catch (const std::bad_optional_access&) {
        events.Error(fmt::format("wrong arguments in \"{}\": {} {}", line, known->name,
                                 *known->arguments != '\0' ? known->arguments : "takes none"));
    }
}

constexpr char kLibraryCommands[] = R"(
Commands of the library:
  backup KIND SRC DEST SEINFO UID       KIND: file, dir, tar or byfile
  backup split SRC DEST MIB SEINFO UID  again: the next slice
  restore KIND SRC DEST SEINFO UID      KIND: file, dir, tar or split
  move dir SRC DEST SEINFO UID          a directory's content
  get_brief KIND SRC BRIEF SEINFO UID   KIND: dir or byfile
  abort TASK                            take a task out of the queue, or ask it to stop
  keepalive                             keep a backup that pauses after a slice waiting
  setweight tar WEIGHT                  the priority of archive tasks: 0 (lowest) to 100
  delay NUMBER                          accepted, without effect
)";

}  // namespace

int RunShell(const Library& library, EventWriter* events) {
    std::ios::sync_with_stdio(false);
    // Never destroyed: tasks that have not ended report to it until the process is gone.
    static Shell* const shell = new Shell(library, events);
    return shell->Run();
}

std::string ShellHelp() {
    std::string text = "Lines of the shell itself:\n";
    for (const DotLine& row : kDotLines) {
        text +=
            fmt::format("  {:<38}{}\n", fmt::format("{} {}", row.name, row.arguments), row.help);
    }
    return text + kLibraryCommands;
}

}  // namespace peltexctl
