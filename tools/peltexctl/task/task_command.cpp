// Tested by tests/peltexctl/test_command_line.py and test_summaries.py.
#include "task/task_command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include "archive/commands.h"
#include "ui/events.h"
#include "ui/exit_code.h"
#include "task/restore_check.h"
#include "task/restored_slices.h"
#include "ui/signals.h"
#include "task/task_run.h"
#include "task/task_words.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

namespace fs = std::filesystem;

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

// What is known of a task before it begins.
struct Known {
    std::optional<TreeCounts> counts;
    std::vector<std::string> slices;  // of a set that is to be restored
};

Known LookAt(const TaskKind& kind, const TaskRequest& request, EventWriter* events) {
    const SignalScope signals([] { fmt::print(stderr, "counting what there is to do\n"); },
                              [events] {
                                  events->Error("interrupted: nothing was begun");
                                  _exit(kInterrupted);
                              });
    Known known;
    const std::string content = kind.content(request);
    if (LibraryTakes(content)) {
        known.counts = CountTree(content, kind.Rules());
    } else if (kind.Unpacks() && LibraryTakes(request.source)) {
        if (kind.form == TaskKind::Form::kSlices) {
            known.slices = ListSlices(request.source);
            RestoredSlices::Recover(known.slices);
        }
        known.counts = CountArchive(request.source);
    }
    return known;
}

// Sooner than after the first slice. Returns what is wrong, empty when nothing is.
std::string MakeTakeDirectory(const std::string& take) {
    std::error_code error;
    if (!take.empty()) {
        fs::create_directories(take, error);
        if (!error && !fs::is_directory(take)) {
            error = std::make_error_code(std::errc::not_a_directory);
        }
    }
    return error ? fmt::format("{}: slices cannot be taken there: {}; give another --take DIR",
                               take, error.message())
                 : "";
}

// What is done about a task that the library has brought to its end.
class Aftermath {
  public:
    Aftermath(const TaskKind& kind, const TaskRequest& request, const Known& known,
              EventWriter* events)
        : kind_(kind), request_(request), known_(known), events_(*events) {}

    // Returns the program's exit status. `began` is FileSystemNow() before the task.
    int Run(const TaskRun& run, const TaskRun::Result& result, int64_t began) {
        counts_ = known_.counts;
        int status = kDone;
        if (kind_.form == TaskKind::Form::kList) {
            counts_ = CountRecords(kind_.file(request_));
        } else if (kind_.Unpacks()) {
            status = CompareRestore();
        } else if (kind_.HasArchive()) {
            counts_ = std::nullopt;
            status =
                request_.no_verify ? kDone : Verify(run.TakenPath(kind_.file(request_)), began);
        }
        Summarize(run, result);
        return status;
    }

  private:
    int Fail(const std::string& error) {
        events_.Error(error);
        counts_ = std::nullopt;
        return kTaskFailed;
    }

    int Verify(const std::string& archive, int64_t began) {
        const SignalScope signals(
            [&archive] { fmt::print(stderr, "verifying {}\n", EscapeBytes(archive)); },
            [this, &archive] {
                events_.Error(fmt::format("interrupted: {} is written but not verified", archive));
                _exit(kInterrupted);
            });
        return RunVerifyBackup(archive, request_.source, began, events_.json(), &counts_);
    }

    int CompareRestore() {
        const std::string& archive = request_.source;
        const SignalScope signals(
            [this] { fmt::print(stderr, "comparing {}\n", EscapeBytes(request_.destination)); },
            [this] {
                events_.Error(fmt::format("interrupted: {} is unpacked but not compared with {}",
                                          request_.destination, request_.source));
                _exit(kInterrupted);
            });
        const bool has_slices = !known_.slices.empty();
        if (has_slices && access(known_.slices[0].c_str(), F_OK) != 0) {
            return kDone;  // they could not be kept
        }
        if (!known_.counts) {
            return has_slices ? Fail(fmt::format("{}: the set is not whole, so its slices stay; "
                                                 "\"peltexctl verify\" tells what is wrong with it",
                                                 archive))
                              : kDone;
        }
        if (const std::string error = CompareRestored(archive, request_.destination);
            !error.empty()) {
            return Fail(fmt::format("{}; make room, and restore it again", error));
        }
        for (const std::string& slice : known_.slices) {
            unlink(slice.c_str());
        }
        return kDone;
    }

    void Summarize(const TaskRun& run, const TaskRun::Result& result) {
        TaskSummary summary;
        summary.task = result.task;
        summary.seconds = result.seconds;
        summary.has_rate = !kind_.IsBrief();
        if (counts_) {
            summary.entries = counts_->entries;
            summary.bytes = result.listed ? result.listed : counts_->bytes;
        }
        if (kind_.form == TaskKind::Form::kSlices) {
            summary.slices = kind_.IsBackup() ? run.CountSlices() : known_.slices.size();
        }
        events_.Summary(summary);
    }

    const TaskKind& kind_;
    const TaskRequest& request_;
    const Known& known_;
    EventWriter& events_;
    std::optional<TreeCounts> counts_;
};

}  // namespace

int RunTask(const Library& library, const TaskKind& kind, const TaskRequest& request, bool json) {
    // Never destroyed: the library's threads may report to it until the process is gone.
    static EventWriter* const events =
        new EventWriter(json ? EventWriter::Format::kJson : EventWriter::Format::kText);
    if (const std::string error = MakeTakeDirectory(request.take); !error.empty()) {
        events->Error(error);
        return kTaskFailed;
    }
    const Known known = LookAt(kind, request, events);
    MadeDirectory made;
    if (kind.Unpacks()) {
        made.Make(request.destination, *ParseInt(request.uid));
    }
    const int64_t began = FileSystemNow();
    TaskRun run(library, kind, request, events, known.counts ? known.counts->bytes : 0,
                known.slices);
    const TaskRun::Result result = run.Run();
    if (result.status != kDone) {
        made.Remove();
        return result.status;
    }
    return Aftermath(kind, request, known, events).Run(run, result, began);
}

}  // namespace peltexctl
