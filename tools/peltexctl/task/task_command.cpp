// Tested by tests/client/peltexctl.md.
#include "task/task_command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "archive/set.h"
#include "archive/sums.h"
#include "task/refusals.h"
#include "task/set_links.h"
#include "task/task_check.h"
#include "ui/exit_code.h"
#include "ui/library_log.h"
#include "ui/signals.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// A task with what comes before and behind the library's part.
class TaskCommand {
  public:
    explicit TaskCommand(const TaskJob& job) : job_(job) {}

    int Run(const Library& library) {
        const SignalScope signals([this] {
            EndInterrupted(is_over_ ? "interrupted: it is done, but not checked"
                                    : "interrupted: nothing was begun");
        });
        RefuseAll();
        Prepare();
        const TaskSummary summary = RunJob(library, job_);
        is_over_ = true;
        made_.Keep();
        return Conclude(summary);
    }

  private:
    // Changes nothing.
    void RefuseAll() {
        RefuseRequest(job_.kind, job_.request);
        if (job_.kind.Unpacks()) {
            OpenSet();
        }
        if (job_.request.no_verify) {
            return;
        }
        job_.view.Begin("looking at " + EscapeBytes(job_.request.source),
                        set_ ? set_->TotalSize() : 0);
        check_.emplace(job_.kind, job_.request, set_ ? &*set_ : nullptr,
                       [this] { job_.view.Tick(); });
        if (!check_->Before()) {
            check_.reset();
        }
        if (!job_.request.force) {
            RefuseByTally(job_.kind, job_.request, &*check_);
        }
        job_.view.End();
    }

    void OpenSet() {
        set_.emplace(
            job_.request.source,
            [this](const Finding& finding) {
                if (finding.severity == Finding::Severity::kFault) {
                    line_faults_.push_back(DescribeFinding(finding));
                }
            },
            [this](uint64_t done) {
                job_.view.SetDone(done);
                job_.view.Tick();
            });
        RefuseArchive(job_.kind, *set_);
        if (set_->size() == 0 && !job_.request.force) {
            throw Failure(kTaskFailed, line_faults_[0]);
        }
    }

    // Makes what the task needs, and takes away what it replaces.
    void Prepare() {
        const TaskKind& kind = job_.kind;
        const TaskRequest& request = job_.request;
        if (request.replace) {
            for (const std::string& directory : {request.destination, request.take}) {
                const UniqueFd held = OpenDirectory(directory);
                RemoveFiles(held.get(), FilesThere(kind, request, held));
            }
        }
        job_.command = kind.Command(request, request.source);
        job_.total = check_ && !kind.IsBrief() ? check_->expected().bytes() : 0;
        if (geteuid() != 0 && (kind.Unpacks() || kind.source == Source::kRecords)) {
            job_.events.Note(fmt::format(
                "you are not root: what is restored belongs to uid {}, and other owners "
                "and the set-group-id bits of groups that are not yours are not given",
                geteuid()));
        }
        if (kind.Unpacks()) {
            made_.Make(request.destination, static_cast<uid_t>(*ParseInt(request.uid)));
            job_.total = set_->TotalSize();
        }
        if (kind.RestoresSlices()) {
            MakeLinks();
        }
    }

    void MakeLinks() {
        const std::string left = RemoveLeftLinks(ParentOf(job_.request.source));
        if (!left.empty()) {
            job_.events.Note(left + ": left by a restore that was killed, removed");
        }
        links_.Make(*set_, job_.request.destination);
        job_.command = job_.kind.Command(job_.request, links_.CheckFile());
        job_.left_too = "; " + links_.path() + " is left, which the next restore removes";
    }

    // What is done about a task that the library has brought to a good end.
    int Conclude(TaskSummary summary) {
        const std::string result_path = job_.kind.ResultPath(job_.request);
        const std::string written =
            job_.request.take.empty() ? result_path : job_.request.take + "/" + NameOf(result_path);
        const bool is_whole = !check_ || Check(written);
        if (is_whole && job_.request.sums && !job_.kind.HandsOver()) {
            WriteSums(written);
        }
        if (is_whole && job_.request.consume) {
            RemoveSet(*set_);
        }
        summary.has_rate = !job_.kind.IsBrief();
        if (job_.kind.RestoresSlices()) {
            summary.slices = set_->size();
        }
        if (check_ && is_whole) {
            summary.tally = check_->expected();
        }
        job_.events.Summary(summary);
        return is_whole ? kDone : kTaskFailed;
    }

    bool Check(const std::string& written) {
        job_.view.Begin("checking " + EscapeBytes(written));
        std::vector<std::string> lines = check_->After(written);
        lines.insert(lines.begin(), line_faults_.begin(), line_faults_.end());
        job_.view.End();
        if (!lines.empty()) {
            lines.back() += HintAtRoom(written, check_->missing_bytes());
            PrintKeptLog();
        }
        for (const std::string& line : lines) {
            job_.events.Error(line);
        }
        return lines.empty();
    }

    static void WriteSums(const std::string& archive) {
        const UniqueFd directory = OpenDirectory(ParentOf(archive));
        const std::string name = NameOf(archive);
        Summer summer;
        std::string fault = summer.Add(directory.get(), name);
        if (fault.empty()) {
            fault = summer.Finish(directory.get(), SumsName(name));
        }
        Ensure(fault.empty(), fault);
    }

    TaskJob job_;
    std::optional<ArchiveSet> set_;  // of a restore
    std::vector<std::string> line_faults_;
    std::optional<TaskCheck> check_;  // none with --no-verify
    MadeDirectory made_;
    SetLinks links_;  // which may lie in what was made
    std::atomic<bool> is_over_{false};
};

}  // namespace

int RunTask(const Library& library, const TaskJob& job) {
    return TaskCommand(job).Run(library);
}

}  // namespace peltexctl
