// Tested by tests/peltexctl/test_command_line.py.
#include "task_command.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "events.h"
#include "exit_code.h"
#include "progress_view.h"
#include "session_client.h"
#include "text.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kTick{100};

std::string Source(const std::string& source, const std::string& /*destination*/) {
    return source;
}

// A directory's backup lies under the directory's own name, which a restore takes from where it
// restores to.
std::string NamedInSource(const std::string& source, const std::string& destination) {
    const size_t slash = destination.rfind('/');
    return slash == std::string::npos ? source : source + destination.substr(slash);
}

constexpr TaskKind kKinds[] = {
    {"backup", "file", "backup file", "one file into the directory DEST", Source},
    {"backup", "dir", "backup dir", "a directory into DEST, with its permission record", Source},
    {"restore", "file", "restore file", "one file to DEST", Source},
    {"restore", "dir", "restore dir", "DEST from its backup in SRC", NamedInSource},
    {"move", "", "move dir", "a directory's content into DEST", Source},
};

// What the library means by an answer that is no task's id.
const char* DescribeRefusal(int result) {
    switch (result) {
        case -1:
            return "no such session, or no worker could be started";
        case -3:
            return "it does not know the command in this form";
        case -4:
            return "an equal task is waiting or running";
        case -5:
            return "no worker could be woken";
        case 0:
            return "there is nothing to do, the source does not exist";
        default:
            return "it gives no reason";
    }
}

uint64_t SizeOfFile(const fs::path& path) {
    struct stat info = {};
    return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)
               ? static_cast<uint64_t>(info.st_size)
               : 0;
}

// Bytes of all regular files under `path`; what cannot be read counts nothing.
uint64_t TotalSize(const std::string& path) {
    uint64_t total = SizeOfFile(path);
    std::error_code error;
    const auto options = fs::directory_options::skip_permission_denied;
    for (fs::recursive_directory_iterator entry(path, options, error), end; !error && entry != end;
         entry.increment(error)) {
        total += SizeOfFile(entry->path());
    }
    return total;
}

// Holds back the signals that ask the program to end, so that they can be asked for. Threads made
// later inherit that.
class EndSignals {
  public:
    EndSignals() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    }

    // Takes a signal that has arrived.
    bool Take() {
        const timespec now = {};
        return sigtimedwait(&set_, nullptr, &now) > 0;
    }

  private:
    sigset_t set_{};
};

// One run of a task subcommand. It may go when the task has ended: no callback comes after that.
class TaskRun {
  public:
    TaskRun(const Library& library, bool json, uint64_t total)
        : json_(json),
          events_(json ? EventWriter::Format::kJson : EventWriter::Format::kText),
          view_(isatty(STDOUT_FILENO) == 1, total),
          client_(library, [this](const StatusEvent& event) { Report(event); }) {}

    int Run(const std::string& command);

  private:
    void Report(const StatusEvent& event);
    int Refused(int result);
    int FollowTask(int session, int task);
    void Abort(int session, int task);
    void CloseSession(int session);

    EndSignals signals_;
    const bool json_;
    EventWriter events_;
    ProgressView view_;
    SessionClient client_;
};

int TaskRun::Run(const std::string& command) {
    const int session = client_.Open();
    if (json_) {
        events_.Session(session);
    }
    const int result = client_.Execute(session, command);
    if (json_) {
        events_.Result(command, result);
    }
    const int status = result > 0 ? FollowTask(session, result) : Refused(result);
    CloseSession(session);
    return status;
}

void TaskRun::Report(const StatusEvent& event) {
    if (json_) {
        events_.Status(event);
        return;
    }
    view_.OnStatus(event);
}

int TaskRun::Refused(int result) {
    events_.Error(fmt::format("the library answers {}: {}", result, DescribeRefusal(result)));
    return kTaskFailed;
}

int TaskRun::FollowTask(int session, int task) {
    bool interrupted = false;
    std::optional<int> code;
    while (!(code = client_.tasks().WaitEnded(task, TaskTracker::Clock::now() + kTick))) {
        if (signals_.Take() && !interrupted) {
            interrupted = true;
            Abort(session, task);
        }
        if (!json_) {
            view_.Tick();
        }
    }
    if (interrupted) {
        return kInterrupted;
    }
    return *code == kStatusSuccess ? kDone : kTaskFailed;
}

void TaskRun::Abort(int session, int task) {
    if (!json_) {
        view_.Note(fmt::format("task {}: stopping it", task));
    }
    const std::string command = fmt::format("abort {}", task);
    const int result = client_.Execute(session, command);
    if (json_) {
        events_.Result(command, result);
    }
}

void TaskRun::CloseSession(int session) {
    const int result = client_.Finish(session);
    if (json_) {
        events_.Closed(session, result);
    }
}

bool IsOneWord(const std::string& text) {
    return !text.empty() && text.find(' ') == std::string::npos;
}

bool IsUid(const std::string& text) {
    const std::optional<int> uid = ParseInt(text);
    return uid && *uid >= 0;
}

}  // namespace

std::vector<const TaskKind*> KindsOf(const std::string& subcommand) {
    std::vector<const TaskKind*> kinds;
    for (const TaskKind& row : kKinds) {
        if (row.subcommand == subcommand) {
            kinds.push_back(&row);
        }
    }
    return kinds;
}

const TaskKind* CheckRequest(const TaskRequest& request, std::string* error) {
    const std::vector<const TaskKind*> kinds = KindsOf(request.subcommand);
    const auto row = std::find_if(kinds.begin(), kinds.end(), [&request](const TaskKind* kind) {
        return kind->kind == request.kind;
    });
    if (row == kinds.end()) {
        std::vector<std::string> names;
        names.reserve(kinds.size());
        for (const TaskKind* kind : kinds) {
            names.emplace_back(kind->kind);
        }
        *error = fmt::format("{} knows no kind \"{}\": {}", request.subcommand, request.kind,
                             fmt::join(names, ", "));
        return nullptr;
    }
    for (const std::string* word : {&request.source, &request.destination, &request.se_info}) {
        if (!IsOneWord(*word)) {
            *error = fmt::format(
                "\"{}\" cannot be sent: words of a command are not empty and hold no blank", *word);
            return nullptr;
        }
    }
    if (!IsUid(request.uid)) {
        *error = fmt::format("--uid: \"{}\" is no number from 0 to 2147483647", request.uid);
        return nullptr;
    }
    return *row;
}

int RunTask(const Library& library, const TaskKind& kind, const TaskRequest& request, bool json) {
    const uint64_t total = TotalSize(kind.content(request.source, request.destination));
    const std::string command =
        fmt::format("{} {} {} {} {}", kind.words, request.source, request.destination,
                    request.se_info, *ParseInt(request.uid));
    return TaskRun(library, json, total).Run(command);
}

}  // namespace peltexctl
