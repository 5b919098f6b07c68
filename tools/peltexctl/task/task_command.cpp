// Tested by tests/client/peltexctl.md.
#include "task/task_command.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <future>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "archive/set.h"
#include "archive/sums.h"
#include "task/refusals.h"
#include "task/set_links.h"
#include "task/task_check.h"
#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

// By LeftOut, as people and as programs read it.
constexpr std::pair<const char*, const char*> kReasons[] = {
    {"hard-linked", "hard_linked"},
    {".dex", "dex"},
    {"lib", "lib"},
    {"link", "link"},
    {"special file", "special"},
    {"tinker", "tinker"},
    {"the archive itself", "own_archive"},
    {"unreadable", "unreadable"},
};
static_assert(std::size(kReasons) == kLeftOutReasons);

// Returns how much was left out, and why, in words.
std::string DescribeLeftOut(Json* object, const Tally& tally) {
    std::vector<std::string> words;
    Json reasons = Json::object();
    for (size_t i = 0; i < kLeftOutReasons; i++) {
        if (const uint64_t count = tally.left_out(LeftOut(i)); count > 0) {
            reasons[kReasons[i].second] = count;
            words.push_back(fmt::format("{} {}", count, kReasons[i].first));
        }
    }
    (*object)["left_out"] = tally.left_out();
    (*object)["reasons"] = reasons;
    return words.empty() ? fmt::format("{}", tally.left_out())
                         : fmt::format("{} ({})", tally.left_out(), fmt::join(words, ", "));
}

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
        const TaskResult result = RunJob(library, job_);
        is_over_ = true;
        if (looking_.valid() && !looking_.get()) {
            check_.reset();
        }
        made_.Keep();
        return Conclude(result);
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
        check_.emplace(job_.kind, job_.request, set_ ? &*set_ : nullptr, &job_.events.view());
        // A brief changes nothing of what is looked at, and takes no longer: both at once.
        if (job_.kind.IsBrief() && OpenDirectory(job_.request.source).isOpen()) {
            looking_ = std::async([this] { return check_->Before(); });
            return;
        }
        job_.events.view().Begin("looking at " + EscapeBytes(job_.request.source),
                                 set_ ? set_->TotalSize() : 0);
        if (!check_->Before()) {
            check_.reset();
        } else if (!job_.request.force) {
            RefuseByTally(job_.kind, job_.request, *check_);
        }
        job_.events.view().End();
    }

    void OpenSet() {
        set_.emplace(job_.request.source, &job_.events.view());
        RefuseArchive(job_.kind, *set_);
        if (set_->size() == 0 && !job_.request.force) {
            throw Failure(kTaskFailed, DescribeFinding(*set_->finding()));
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

    // What is done about a task that the library has brought to a good end. Returns the program's
    // exit status.
    int Conclude(const TaskResult& result) {
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
        Summarize(result, check_ && is_whole ? &check_->expected() : nullptr);
        return is_whole ? kDone : kTaskFailed;
    }

    // `tally` is of what the task has brought; null where that is not known.
    void Summarize(const TaskResult& result, const Tally* tally) {
        Json object = {{"event", "summary"}, {"task", result.task}};
        std::vector<std::string> words;
        if (tally != nullptr) {
            object["entries"] = tally->entries();
            object["bytes"] = tally->bytes();
            words = {Counted(tally->entries(), "entry", "entries"), HumanSize(tally->bytes())};
        }
        object["seconds"] = std::round(result.seconds * 1000) / 1000;
        words.push_back(fmt::format("{:.{}f} s", result.seconds, result.seconds < 10 ? 2 : 1));
        // A brief moves no content in these seconds.
        if (tally != nullptr && tally->bytes() > 0 && !job_.kind.IsBrief()) {
            const uint64_t rate = BytesPerSecond(tally->bytes(), result.seconds);
            object["bytes_per_second"] = rate;
            words.push_back(HumanSize(rate) + "/s");
        }
        if (job_.kind.HandsOver() || job_.kind.RestoresSlices()) {
            const uint64_t slices = job_.kind.HandsOver() ? result.slices : set_->size();
            object["slices"] = slices;
            words.push_back(Counted(slices, "slice", "slices"));
        }
        std::string text = fmt::format("summary: {}", fmt::join(words, ", "));
        if (tally != nullptr) {
            text += fmt::format("\nleft out: {}", DescribeLeftOut(&object, *tally));
        }
        job_.events.Tell(object, text);
    }

    bool Check(const std::string& written) {
        job_.events.view().Begin("checking " + EscapeBytes(written));
        std::vector<std::string> lines = check_->After(written);
        job_.events.view().End();
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
        Summer summer(ParentOf(archive));
        summer.Add(directory.get(), name);
        summer.Finish(directory.get(), SumsName(name));
    }

    TaskJob job_;
    std::optional<ArchiveSet> set_;   // of a restore
    std::optional<TaskCheck> check_;  // none with --no-verify
    std::future<bool> looking_;       // of a check that goes on beside the task
    MadeDirectory made_;
    SetLinks links_;  // which may lie in what was made
    std::atomic<bool> is_over_{false};
};

}  // namespace

int RunTask(const Library& library, const TaskJob& job) {
    return TaskCommand(job).Run(library);
}

}  // namespace peltexctl
