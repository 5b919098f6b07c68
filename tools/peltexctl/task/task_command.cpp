// Tested by tests/peltexctl/test_command_line.py, test_checks.py and test_restores.py.
#include "task/task_command.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "archive/set.h"
#include "archive/sums.h"
#include "task/backup_files.h"
#include "task/refusals.h"
#include "task/set_links.h"
#include "task/task_check.h"
#include "task/task_run.h"
#include "ui/library_log.h"
#include "ui/signals.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// A task with what comes before and behind the library's part.
class TaskCommand {
  public:
    TaskCommand(const TaskKind& kind, const TaskRequest& request, const TaskOutput& output,
                EventWriter* events, ProgressView* view)
        : kind_(kind), request_(request), output_(output), events_(*events), view_(*view) {}

    int Run(const Library& library) {
        const SignalScope signals([this](int /*times*/) {
            TellLast(is_over_ ? told_unchecked_ : "interrupted: nothing was begun");
            _exit(kInterrupted);
        });
        if (TakesWhereItWrites(request_)) {
            PrintError("--take " + request_.take + " is DEST itself");
            return kUsage;
        }
        if (!MayBegin() || !Prepare()) {
            return kTaskFailed;
        }
        // Never destroyed: the last callback may be on its way out.
        static TaskRun* const run =
            new TaskRun(library, kind_, request_, options_, &events_, &view_);
        const TaskRun::Result result = run->Run();
        if (result.status != kDone) {
            made_.Remove();
            return result.status;
        }
        return Conclude(result);
    }

  private:
    bool Refuse(const std::string& reason) {
        if (!reason.empty()) {
            view_.Aside([&] { events_.Error(reason); });
        }
        return !reason.empty();
    }

    // Whether nothing speaks against it. Changes nothing.
    bool MayBegin() {
        if (Refuse(RefusePaths(kind_, request_))) {
            return false;
        }
        if (kind_.Unpacks()) {
            std::string error;
            // What is wrong with a check file's lines is wrong with the set.
            set_ = ArchiveSet::Open(
                request_.source,
                [this](const Finding& finding) { line_faults_.push_back(DescribeFinding(finding)); },
                &error);
            if (Refuse(set_ ? RefuseArchive(kind_, *set_) : error)) {
                return false;
            }
            if (set_->size() == 0 && !request_.force) {
                return !Refuse(line_faults_.empty() ? request_.source + ": lists no slice"
                                                    : line_faults_[0]);
            }
        }
        const ArchiveSet* const set = set_ ? &*set_ : nullptr;
        if ((!request_.force && Refuse(RefuseLoss(kind_, request_))) ||
            (!request_.replace && Refuse(RefuseReplacing(kind_, request_)))) {
            return false;
        }
        if (request_.no_verify) {
            return true;
        }
        view_.Begin("looking at " + EscapeBytes(request_.source));
        view_.Tick();
        check_.emplace(kind_, request_, set, [this] { Tick(); });
        const std::string unknown = check_->Before();
        view_.End();
        if (!unknown.empty()) {
            check_.reset();
            return request_.force || !Refuse(unknown + "; --force goes on without a check");
        }
        return request_.force || !Refuse(RefuseByTally(kind_, request_, &*check_));
    }

    void Tick() {
        constexpr unsigned kEvery = 256;
        if (++ticks_ % kEvery == 0) {
            view_.Tick();
        }
    }

    // Makes what the task needs.
    bool Prepare() {
        const bool is_root = geteuid() == 0;
        if (!is_root && (kind_.Unpacks() || kind_.source == Source::kRecords)) {
            events_.Note(fmt::format("you are not root: all that is restored belongs to you, uid "
                                     "{}, and other owners, and modes of what is not yours, are "
                                     "not given",
                                     geteuid()));
        }
        if (request_.replace) {
            for (const std::string& directory : {request_.destination, request_.take}) {
                const BackupFiles old(directory, NameOf(request_.source) + ".tar");
                if (Refuse(old.Remove(kind_.HandsOver()))) {
                    return false;
                }
            }
        }
        options_.source = request_.source;
        options_.log_is_shown = output_.log != "silent";
        options_.total = check_ && !kind_.IsBrief() ? check_->expected().bytes() : 0;
        if (!kind_.Unpacks()) {
            return true;
        }
        if (Refuse(made_.Make(request_.destination, static_cast<uid_t>(*ParseInt(request_.uid))))) {
            return false;
        }
        return kind_.RestoresSlices() ? PrepareLinks() : PrepareArchive();
    }

    bool PrepareArchive() {
        options_.total = set_->SizeOf(0);
        options_.bytes_read = [this] { return ReadPosition(request_.source); };
        return true;
    }

    bool PrepareLinks() {
        links_.emplace(*set_, ParentOf(request_.source));
        if (const std::string left = links_->RemoveLeftovers(); !left.empty()) {
            events_.Note(left + ": left by a restore that was killed, removed");
        }
        if (Refuse(links_->Make(request_.destination))) {
            made_.Remove();
            return false;
        }
        options_.source = links_->CheckFile();
        options_.total = 0;
        for (size_t i = 0; i < set_->size(); i++) {
            options_.total += set_->SizeOf(i);
        }
        options_.bytes_read = [this] { return links_->BytesRead(); };
        options_.left_too =
            fmt::format("; {} is left, which the next restore removes", links_->path());
        return true;
    }

    // What is done about a task that the library has brought to a good end. Returns the program's
    // exit status.
    int Conclude(const TaskRun::Result& result) {
        const std::string written =
            request_.take.empty() ? kind_.result_path(request_)
                                  : request_.take + "/" + NameOf(kind_.result_path(request_));
        bool is_whole = true;
        told_unchecked_ = fmt::format("interrupted: {} is there, but not checked", written);
        is_over_ = true;
        if (check_) {
            view_.Begin("checking " + EscapeBytes(written));
            view_.Tick();
            is_whole = Check(written);
            view_.End();
        }
        if (is_whole && request_.sums && !kind_.HandsOver()) {
            is_whole = !Refuse(WriteSums(written));
        }
        if (is_whole && request_.consume) {
            is_whole = !Refuse(RemoveSet(*set_));
        }
        TaskSummary summary;
        summary.task = result.task;
        summary.seconds = result.seconds;
        summary.has_rate = !kind_.IsBrief();
        summary.slices = kind_.RestoresSlices() ? std::optional<uint64_t>(set_->size())
                                                : result.slices;
        if (check_ && is_whole) {
            summary.tally = check_->expected();
        }
        events_.Summary(summary);
        return is_whole ? kDone : kTaskFailed;
    }

    bool Check(const std::string& written) {
        std::vector<std::string> lines = line_faults_;
        for (const std::string& line : check_->After(written)) {
            lines.push_back(line);
        }
        if (!lines.empty()) {
            lines.back() += HintAtRoom(written, check_->missing_bytes());
            PrintKeptLog();
        }
        for (const std::string& line : lines) {
            Refuse(line);
        }
        return lines.empty();
    }

    // Returns what went wrong.
    static std::string WriteSums(const std::string& archive) {
        const UniqueFd directory = OpenDirectory(ParentOf(archive));
        struct stat status = {};
        UniqueFd file = OpenRegularAt(directory, NameOf(archive), &status);
        std::string error = std::generic_category().message(errno);
        if (file.isOpen()) {
            Summer summer;
            summer.Add(std::move(file), NameOf(archive));
            if (summer.Finish(directory.get(), SumsName(NameOf(archive)), status, &error)) {
                return "";
            }
        }
        return fmt::format("{}: its sums could not be written: {}", archive, error);
    }

    const TaskKind& kind_;
    const TaskRequest& request_;
    const TaskOutput& output_;
    EventWriter& events_;
    ProgressView& view_;
    std::optional<ArchiveSet> set_;  // of a restore
    std::vector<std::string> line_faults_;
    std::optional<TaskCheck> check_;  // none with --no-verify
    std::optional<SetLinks> links_;
    MadeDirectory made_;
    TaskRun::Options options_;
    unsigned ticks_ = 0;
    std::string told_unchecked_;
    std::atomic<bool> is_over_{false};
};

}  // namespace

int RunTask(const Library& library, const TaskKind& kind, const TaskRequest& request,
            const TaskOutput& output) {
    // Never destroyed: the library's threads may report to them until the process is gone.
    static EventWriter* const events = new EventWriter(
        output.json ? EventWriter::Format::kJson : EventWriter::Format::kText, output.quiet);
    static ProgressView* const view = new ProgressView(output.quiet || output.json);
    if (output.log.empty()) {
        KeepLibraryLog();
    } else {
        ShowLibraryLog(output.log, view);
    }
    return TaskCommand(kind, request, output, events, view).Run(library);
}

}  // namespace peltexctl
