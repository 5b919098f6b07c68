// Tested by tests/client/peltexctl.md.
#include "archive/commands.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "archive/sums.h"
#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

std::string ModeAsText(uint32_t mode, char letter) {
    std::string text(1, letter);
    for (size_t i = 0; i < 9; i++) {
        text += (mode & (0400U >> i)) != 0 ? "rwx"[i % 3] : '-';
    }
    for (size_t i = 0; i < 3; i++) {
        if (char& last = text[3 + 3 * i]; (mode & (04000U >> i)) != 0) {
            last = (last == 'x' ? "sst" : "SST")[i];
        }
    }
    return text;
}

std::string TimeAsText(uint64_t seconds) {
    const auto time = static_cast<time_t>(seconds);
    struct tm parts = {};
    const bool is_date = localtime_r(&time, &parts) != nullptr;
    return is_date ? fmt::format("{:%Y-%m-%d %H:%M}", parts) : std::to_string(seconds);
}

// One line as `tar tv` writes it.
std::string EntryAsText(const ArchiveEntry& entry) {
    const TypeWords& words = WordsOf(entry.type);
    return fmt::format(
        "{} {:>11} {:>10} {} {}{}{}", ModeAsText(entry.mode, words.letter),
        fmt::format("{}/{}", entry.uid, entry.gid), HumanSize(entry.size), TimeAsText(entry.mtime),
        EscapeBytes(entry.name), entry.link.empty() ? "" : " -> " + EscapeBytes(entry.link),
        *words.name == '\0'
            ? ""
            : fmt::format(" ({}{})", words.name, entry.IsRestored() ? "" : ", not restored"));
}

std::string EntryAsJson(const ArchiveEntry& entry) {
    Json object = {{"event", "entry"},
                   {"type", BytesToUtf8({&entry.type, 1})},
                   {"mode", fmt::format("{:04o}", entry.mode)},
                   {"uid", entry.uid},
                   {"gid", entry.gid},
                   {"size", entry.size},
                   {"mtime", entry.mtime}};
    SetBytes(&object, "name", entry.name);
    if (!entry.link.empty()) {
        SetBytes(&object, "link", entry.link, "raw_link");
    }
    return JsonLine(object);
}

// A subcommand at work. What is wrong with the set is told as it is found, and counted.
class ArchiveCommand {
  public:
    ArchiveCommand(const ArchiveRequest& request, EventWriter* events)
        : request_(request), events_(*events), view_(events->view()), set_(request.file, &view_) {}

    int List() {
        // On a terminal the lines themselves are the progress.
        if (isatty(STDOUT_FILENO) == 0) {
            Begin();
        }
        VisitEntries(set_, sink_, [this](const ArchiveEntry& entry) {
            Print(stdout, (events_.json() ? EntryAsJson(entry) : EntryAsText(entry)) + "\n");
        });
        view_.End();
        return Status();
    }

    int Verify() {
        const Tally tally = Inspect();
        Json object = {{"event", "verified"}, {"whole", faults_ == 0}};
        const std::string verdict = faults_ == 0 ? Paint(stdout, Colour::kGreen, "whole")
                                                 : Paint(stdout, Colour::kRed, "not whole");
        const std::string numbers = SetNumbers(&object, tally);
        object["faults"] = faults_;
        object["warnings"] = warnings_;
        events_.Tell(object,
                     fmt::format("{}: {}, {}", EscapeBytes(request_.file), verdict, numbers),
                     faults_ > 0);
        return Status();
    }

    int Export() {
        Ensure(set_.is_check_file(), request_.file + " is no check file, which an export takes");
        const Tally tally = Inspect();
        Ensure(faults_ == 0, request_.file + " is not whole, nothing was exported");
        Begin();
        ExportSet(set_, request_.out);
        view_.End();
        Json object = {{"event", "exported"}};
        SetBytes(&object, "file", request_.out);
        const std::string numbers = SetNumbers(&object, tally);
        if (request_.out != "-" || events_.json()) {
            events_.Tell(object, fmt::format("{}: {}", EscapeBytes(request_.out), numbers));
        }
        return kDone;
    }

  private:
    // Returns what a restore would make of the set.
    Tally Inspect() {
        Begin();
        const Tally tally = VerifySet(set_, "", sink_);
        Begin();
        CheckSums(set_, sink_);
        return tally;
    }

    // To be called before each pass.
    void Begin() { view_.Begin(request_.subcommand, set_.TotalSize()); }

    int Status() const { return faults_ == 0 ? kDone : kTaskFailed; }

    void Add(const Finding& finding) {
        const bool is_warning = finding.severity == Severity::kWarning;
        ++(is_warning ? warnings_ : faults_);
        const char* const word = is_warning ? "warning" : "fault";
        Json object = {{"event", word}};
        SetBytes(&object, "slice", finding.slice, "raw_slice");
        SetBytes(&object, "entry", finding.entry);
        object["message"] = BytesToUtf8(finding.message);
        const std::string painted =
            Paint(events_.stream(), is_warning ? Colour::kYellow : Colour::kRed,
                  fmt::format("{}:", word));
        events_.Tell(object, fmt::format("{} {}", painted, EscapeBytes(DescribeFinding(finding))),
                     true);
    }

    // Returns the numbers in words.
    std::string SetNumbers(Json* object, const Tally& tally) const {
        std::string slices;
        if (set_.is_check_file()) {
            (*object)["slices"] = set_.size();
            slices = " in " + Counted(set_.size(), "slice", "slices");
        }
        (*object)["entries"] = tally.entries();
        (*object)["bytes"] = tally.bytes();
        return fmt::format("{}{}, {} of content", Counted(tally.entries(), "entry", "entries"),
                           slices, HumanSize(tally.bytes()));
    }

    const ArchiveRequest& request_;
    EventWriter& events_;
    ProgressView& view_;
    uint64_t faults_ = 0;
    uint64_t warnings_ = 0;
    const FindingSink sink_ = [this](const Finding& finding) { Add(finding); };
    const ArchiveSet set_;
};

}  // namespace

int RunArchive(const ArchiveRequest& request, EventWriter* events) {
    ArchiveCommand command(request, events);
    return request.subcommand == "list"     ? command.List()
           : request.subcommand == "verify" ? command.Verify()
                                            : command.Export();
}

}  // namespace peltexctl
