// Tested by tests/peltexctl/test_command_line.py and test_summaries.py.
#include "task_command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include "archive_commands.h"
#include "events.h"
#include "exit_code.h"
#include "restored_slices.h"
#include "signals.h"
#include "task_run.h"
#include "task_words.h"
#include "text.h"

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

int Verify(const std::string& archive, const std::string& source, int64_t began,
           EventWriter* events, std::optional<TreeCounts>* counts) {
    const SignalScope signals(
        [&archive] { fmt::print(stderr, "verifying {}\n", EscapeBytes(archive)); },
        [&archive, events] {
            events->Error(fmt::format("interrupted: {} is written but not verified", archive));
            _exit(kInterrupted);
        });
    return RunVerifyBackup(archive, source, began, events->json(), counts);
}

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
    TaskRun::Result result = run.Run();
    if (result.status != kDone) {
        made.Remove();
        return result.status;
    }
    std::optional<TreeCounts> counts = known.counts;
    if (kind.form == TaskKind::Form::kList) {
        counts = CountRecords(kind.file(request));
    } else if (kind.IsBackup() && kind.HasArchive()) {
        const std::string archive = run.TakenPath(kind.file(request));
        counts = std::nullopt;
        result.status =
            request.no_verify ? kDone : Verify(archive, request.source, began, events, &counts);
    }
    TaskSummary summary;
    summary.task = result.task;
    summary.seconds = result.seconds;
    summary.has_rate = !kind.IsBrief();
    if (counts) {
        summary.entries = counts->entries;
        summary.bytes = result.listed ? result.listed : counts->bytes;
    }
    if (kind.form == TaskKind::Form::kSlices) {
        summary.slices = kind.IsBackup() ? run.CountSlices() : known.slices.size();
    }
    events->Summary(summary);
    return result.status;
}

}  // namespace peltexctl
