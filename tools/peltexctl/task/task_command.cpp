// Tested by tests/client/peltexctl.md.
#include "task/task_command.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <fstream>
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
#include "task/task_run.h"
#include "ui/exit_code.h"
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
    explicit TaskCommand(const TaskJob& job)
        : job_(job), kind_(job.kind), request_(job.request), events_(job.events), view_(job.view) {}

    ~TaskCommand() {
        links_.reset();  // they may lie in what was made
        if (!is_over_) {
            made_.Remove();
        }
    }

    TaskCommand(const TaskCommand&) = delete;
    TaskCommand& operator=(const TaskCommand&) = delete;

    // Returns the program's exit status. Throws Failure.
    int Run(const Library& library) {
        const SignalScope signals([this] {
            EndInterrupted(is_over_ ? "interrupted: it is done, but not checked"
                                    : "interrupted: nothing was begun");
        });
        RefuseAll();
        Prepare();
        const TaskResult result = RunJob(library, job_);
        is_over_ = true;
        return Conclude(result);
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
        check_.emplace(kind_, request_, set_ ? &*set_ : nullptr, &view_);
        if (!check_->Before()) {
            check_.reset();
        }
        if (!request_.force) {
            RefuseByTally(kind_, request_, &*check_);
        }
        view_.End();
    }

    void OpenSet() {
        set_.emplace(request_.source, &view_);
        RefuseArchive(kind_, *set_);
        if (set_->size() == 0 && !request_.force) {
            throw Failure(kTaskFailed, DescribeFinding(*set_->finding()));
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
        job_.command = kind_.Command(request_);
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
        links_.emplace(*set_, ParentOf(request_.source));
        if (const std::string left = links_->RemoveLeftovers(); !left.empty()) {
            events_.Note(left + ": left by a restore that was killed, removed");
        }
        links_->Make(request_.destination);
        TaskRequest of_links = request_;
        of_links.source = links_->CheckFile();
        job_.command = kind_.Command(of_links);
        job_.left_too = "; " + links_->path() + " is left, which the next restore removes";
    }

    // What is done about a task that the library has brought to a good end. Returns the program's
    // exit status.
    int Conclude(const TaskResult& result) {
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
        if (tally != nullptr && tally->bytes() > 0 && !kind_.IsBrief()) {
            const uint64_t rate = BytesPerSecond(tally->bytes(), result.seconds);
            object["bytes_per_second"] = rate;
            words.push_back(HumanSize(rate) + "/s");
        }
        if (kind_.HandsOver() || kind_.RestoresSlices()) {
            const uint64_t slices = kind_.HandsOver() ? result.slices : set_->size();
            object["slices"] = slices;
            words.push_back(Counted(slices, "slice", "slices"));
        }
        std::string text = fmt::format("summary: {}", fmt::join(words, ", "));
        if (tally != nullptr) {
            text += fmt::format("\nleft out: {}", DescribeLeftOut(&object, *tally));
        }
        events_.Tell(object, text);
    }

    bool Check(const std::string& written) {
        view_.Begin("checking " + EscapeBytes(written));
        std::vector<std::string> lines = check_->After(written);
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
        Summer summer(ParentOf(archive));
        summer.Add(directory.get(), name);
        summer.Finish(directory.get(), SumsName(name));
    }

    TaskJob job_;
    const TaskKind& kind_;
    const TaskRequest& request_;
    EventWriter& events_;
    ProgressView& view_;
    std::optional<ArchiveSet> set_;   // of a restore
    std::optional<TaskCheck> check_;  // none with --no-verify
    std::optional<SetLinks> links_;
    MadeDirectory made_;
    std::atomic<bool> is_over_{false};
};

}  // namespace

int RunTask(const Library& library, const TaskJob& job) {
    return TaskCommand(job).Run(library);
}

}  // namespace peltexctl
