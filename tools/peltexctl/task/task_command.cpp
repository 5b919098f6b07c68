// Tested by tests/client/peltexctl.md.
#include "task/task_command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
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

// By the whole program, whose tasks that unpack read little but the archive.
uint64_t BytesRead() {
    std::ifstream counters("/proc/self/io");
    std::string name;
    uint64_t count = 0;
    counters >> name >> count;
    return count;
}

// A task with what comes before and behind the library's part.
class TaskCommand {
  public:
    explicit TaskCommand(const TaskJob& job)
        : job_(job), kind_(job.kind), request_(job.request), events_(job.events), view_(job.view) {}

    // Returns the program's exit status. Throws Failure.
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
        RefuseRequest(kind_, request_);
        if (kind_.Unpacks()) {
            OpenSet();
        }
        if (request_.no_verify) {
            return;
        }
        view_.Begin("looking at " + EscapeBytes(request_.source), set_ ? set_->TotalSize() : 0);
        check_.emplace(kind_, request_, set_ ? &*set_ : nullptr, [this] { view_.Tick(); });
        if (!check_->Before()) {
            check_.reset();
        }
        if (!request_.force) {
            RefuseByTally(kind_, request_, &*check_);
        }
        view_.End();
    }

    void OpenSet() {
        set_.emplace(
            request_.source,
            [this](const Finding& finding) {
                if (finding.severity == Finding::Severity::kFault) {
                    line_faults_.push_back(DescribeFinding(finding));
                }
            },
            [this](uint64_t done) {
                view_.SetDone(done);
                view_.Tick();
            });
        RefuseArchive(kind_, *set_);
        if (set_->size() == 0 && !request_.force) {
            throw Failure(kTaskFailed, line_faults_[0]);
        }
    }

    // Makes what the task needs, and takes away what it replaces.
    void Prepare() {
        if (request_.replace) {
            for (const std::string& directory : {request_.destination, request_.take}) {
                const UniqueFd held = OpenDirectory(directory);
                RemoveFiles(held.get(), FilesThere(kind_, request_, held));
            }
        }
        job_.command = kind_.Command(request_, request_.source);
        job_.total = check_ && !kind_.IsBrief() ? check_->expected().bytes() : 0;
        if (geteuid() != 0 && (kind_.Unpacks() || kind_.source == Source::kRecords)) {
            events_.Note(fmt::format(
                "you are not root: what is restored belongs to uid {}, and other owners "
                "and the set-group-id bits of groups that are not yours are not given",
                geteuid()));
        }
        if (!kind_.Unpacks()) {
            return;
        }
        made_.Make(request_.destination, static_cast<uid_t>(*ParseInt(request_.uid)));
        job_.total = set_->TotalSize();
        job_.bytes_read = [before = BytesRead()] { return BytesRead() - before; };
        if (kind_.RestoresSlices()) {
            MakeLinks();
        }
    }

    void MakeLinks() {
        if (const std::string left = RemoveLeftLinks(ParentOf(request_.source)); !left.empty()) {
            events_.Note(left + ": left by a restore that was killed, removed");
        }
        links_.Make(*set_, request_.destination);
        job_.command = kind_.Command(request_, links_.CheckFile());
        job_.left_too = "; " + links_.path() + " is left, which the next restore removes";
    }

    // What is done about a task that the library has brought to a good end. Returns the program's
    // exit status.
    int Conclude(TaskSummary summary) {
        const std::string result_path = kind_.ResultPath(request_);
        const std::string written =
            request_.take.empty() ? result_path : request_.take + "/" + NameOf(result_path);
        const bool is_whole = !check_ || Check(written);
        if (is_whole && request_.sums && !kind_.HandsOver()) {
            WriteSums(written);
        }
        if (is_whole && request_.consume) {
            RemoveSet(*set_);
        }
        summary.has_rate = !kind_.IsBrief();
        if (kind_.RestoresSlices()) {
            summary.slices = set_->size();
        }
        if (check_ && is_whole) {
            summary.tally = check_->expected();
        }
        events_.Summary(summary);
        return is_whole ? kDone : kTaskFailed;
    }

    bool Check(const std::string& written) {
        view_.Begin("checking " + EscapeBytes(written));
        std::vector<std::string> lines = check_->After(written);
        lines.insert(lines.begin(), line_faults_.begin(), line_faults_.end());
        view_.End();
        if (!lines.empty()) {
            lines.back() += HintAtRoom(written, check_->missing_bytes());
            PrintKeptLog();
        }
        for (const std::string& line : lines) {
            events_.Error(line);
        }
        return lines.empty();
    }

    static void WriteSums(const std::string& archive) {
        const UniqueFd directory = OpenDirectory(ParentOf(archive));
        const std::string name = NameOf(archive);
        Summer summer;
        const std::string unread = summer.Add(directory.get(), name);
        const std::string fault =
            unread.empty() ? summer.Finish(directory.get(), SumsName(name)) : unread;
        Ensure(fault.empty(), fault);
    }

    TaskJob job_;
    const TaskKind& kind_;
    const TaskRequest& request_;
    EventWriter& events_;
    ProgressView& view_;
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
