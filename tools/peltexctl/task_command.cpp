// Tested by tests/peltexctl/test_command_line.py.
#include "task_command.h"

#include <fmt/format.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "archive_commands.h"
#include "events.h"
#include "exit_code.h"
#include "progress_view.h"
#include "session_client.h"
#include "slice_hand_over.h"
#include "text.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kTick{20};

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
    if (path.empty()) {
        return 0;
    }
    uint64_t total = SizeOfFile(path);
    std::error_code error;
    const auto options = fs::directory_options::skip_permission_denied;
    for (fs::recursive_directory_iterator entry(path, options, error), end; !error && entry != end;
         entry.increment(error)) {
        total += SizeOfFile(entry->path());
    }
    return total;
}

// Entries are unpacked into a directory that is there; the library makes none.
class MadeDirectory {
  public:
    // Makes `path` for `uid`, with all above it. What cannot be made is left to the library to
    // refuse.
    void Make(const std::string& path, int uid) {
        std::error_code error;
        for (fs::path part = path; !part.empty() && !fs::exists(part, error);
             part = part.parent_path()) {
            made_.push_back(part);
        }
        fs::create_directories(path, error);
        const auto owner = static_cast<uid_t>(uid);
        [[maybe_unused]] const int result =
            made_.empty() || uid == 0 ? 0 : chown(path.c_str(), owner, owner);
    }

    // Takes back what was made and is still empty.
    void Remove() {
        std::error_code error;
        for (const fs::path& part : made_) {
            fs::remove(part, error);
        }
    }

  private:
    std::vector<fs::path> made_;  // the deepest first
};

// Holds back the signals that ask the program to end, so that they can be asked for. Threads made
// later inherit that.
class EndSignals {
  public:
    EndSignals() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set_, &before_);
    }

    // From here on the signals end the program as they always do.
    void Release() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

    // Takes a signal that has arrived.
    bool Take() {
        const timespec now = {};
        return sigtimedwait(&set_, nullptr, &now) > 0;
    }

  private:
    sigset_t set_{};
    sigset_t before_{};
};

// One run of a task subcommand. It may go when the task has ended: no callback comes after that.
class TaskRun {
  public:
    TaskRun(const Library& library, bool json, uint64_t total)
        : json_(json),
          events_(json ? EventWriter::Format::kJson : EventWriter::Format::kText),
          view_(isatty(STDOUT_FILENO) == 1, total),
          client_(library, [this](const StatusEvent& event) { Report(event); }) {}

    // Makes the run take slices and continue the backup with `command` after each.
    void TakeSlices(const std::string& command, const std::string& take) {
        slices_ = std::make_unique<SliceHandOver>(
            [this](const std::string& line) { return Send(line); }, command, take);
    }

    // `archive` is what the task writes, empty where it writes none.
    int Run(const std::string& command, const std::string& archive);

    // Whether the program was asked to end when the task had ended already. It ends by itself from
    // then on when it is asked to.
    bool WasInterrupted() {
        const bool interrupted = signals_.Take();
        signals_.Release();
        return interrupted;
    }

    // Where the archive is after the run.
    std::string ArchivePath(const std::string& archive) const {
        return slices_ ? slices_->TakenPath(archive) : archive;
    }

  private:
    void Report(const StatusEvent& event);
    int Refused(int result);
    int FollowTask(int task, const std::string& archive);
    int Send(const std::string& command);
    void Abort(int task);
    void SaveSlices();
    bool TookSlices(const std::string& error);

    EndSignals signals_;
    const bool json_;
    EventWriter events_;
    ProgressView view_;
    SessionClient client_;
    int session_ = 0;
    std::unique_ptr<SliceHandOver> slices_;  // of a split backup
};

int TaskRun::Run(const std::string& command, const std::string& archive) {
    session_ = client_.Open();
    if (json_) {
        events_.Session(session_);
    }
    const int result = Send(command);
    const int status = result > 0 ? FollowTask(result, archive) : Refused(result);
    const int closed = client_.Finish(session_);
    if (json_) {
        events_.Closed(session_, closed);
    }
    return status;
}

int TaskRun::Send(const std::string& command) {
    const int result = client_.Execute(session_, command);
    if (json_) {
        events_.Result(command, result);
    }
    return result;
}

void TaskRun::Report(const StatusEvent& event) {
    if (slices_) {
        slices_->Heard(event);
    }
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

int TaskRun::FollowTask(int task, const std::string& archive) {
    bool interrupted = false;
    bool untaken = false;
    std::optional<int> code;
    while (!(code = client_.tasks().WaitEnded(task, TaskTracker::Clock::now() + kTick))) {
        if (signals_.Take()) {
            if (interrupted) {
                // Asked twice: some tasks never end, such as the copy of a FIFO.
                std::fprintf(stderr, "peltexctl: task %d is left unfinished\n", task);
                _exit(kInterrupted);
            }
            interrupted = true;
            SaveSlices();
            Abort(task);
        }
        if (slices_ && !interrupted && !untaken && !TookSlices(slices_->Step())) {
            untaken = true;
            Abort(task);
        }
        if (!json_) {
            view_.Tick();
        }
    }
    const bool succeeded = *code == kStatusSuccess;
    if (slices_ && !untaken && !TookSlices(slices_->TakeRest(succeeded ? archive : ""))) {
        untaken = true;
    }
    if (interrupted) {
        return kInterrupted;
    }
    return succeeded && !untaken ? kDone : kTaskFailed;
}

// What was handed over is the client's: it is taken before an abort, which would remove it.
void TaskRun::SaveSlices() {
    if (slices_) {
        TookSlices(slices_->TakeRest(""));
        slices_->ExpectAbort();
    }
}

bool TaskRun::TookSlices(const std::string& error) {
    if (error.empty()) {
        return true;
    }
    events_.Error(error);
    return false;
}

void TaskRun::Abort(int task) {
    if (!json_) {
        view_.Note(fmt::format("task {}: stopping it", task));
    }
    Send(fmt::format("abort {}", task));
}

}  // namespace

int RunTask(const Library& library, const TaskKind& kind, const TaskRequest& request, bool json) {
    MadeDirectory made;
    if (kind.needs_directory) {
        made.Make(request.destination, *ParseInt(request.uid));
    }
    const int64_t began = FileSystemNow();
    const std::string archive = kind.archive(request);
    TaskRun run(library, json, TotalSize(kind.content(request)));
    if (kind.has_slices) {
        run.TakeSlices(kind.compose(kind, request), request.take);
    }
    const int status = run.Run(kind.compose(kind, request), archive);
    if (status != kDone) {
        made.Remove();
    }
    if (status != kDone || archive.empty() || request.no_verify) {
        return status;
    }
    if (run.WasInterrupted()) {
        return kInterrupted;
    }
    return RunVerifyBackup(run.ArchivePath(archive), request.source, began, json);
}

}  // namespace peltexctl
