// Tested by tests/client/peltexctl.md.
#include "archive/commands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>

#include "archive/export.h"
#include "archive/sums.h"
#include "archive/verify.h"
#include "ui/events.h"
#include "ui/exit_code.h"
#include "ui/progress_view.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using Severity = Finding::Severity;

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
    char text[64] = {};
    const bool is_date = localtime_r(&time, &parts) != nullptr &&
                         strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &parts) != 0;
    return is_date ? text : fmt::format("{}", seconds);
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
    explicit ArchiveCommand(const ArchiveRequest& request) : request_(request) {}

    int Run() {
        try {
            Open();
            return request_.subcommand == "list"     ? List()
                   : request_.subcommand == "verify" ? Verify()
                                                     : Export();
        } catch (const Failure& failure) {
            view_.End();
            events_.Error(failure.what());
            return failure.code();
        }
    }

  private:
    void Open() {
        std::string error;
        set_ = ArchiveSet::Open(request_.file, sink_, &error);
        Expect(set_.has_value(), error);
        set_->SetProgress([this](uint64_t done) {
            view_.SetDone(done);
            view_.Tick();
        });
    }

    static void Expect(bool is_so, const std::string& otherwise) {
        if (!is_so) {
            throw Failure(kTaskFailed, otherwise);
        }
    }

    int List() {
        // On a terminal the lines themselves are the progress.
        if (isatty(STDOUT_FILENO) == 0) {
            Begin();
        }
        VisitEntries(*set_, sink_, [this](const ArchiveEntry& entry) {
            Print(stdout, (request_.json ? EntryAsJson(entry) : EntryAsText(entry)) + "\n");
        });
        return Status();
    }

    int Verify() {
        const Tally tally = Inspect();
        const bool is_whole = faults_ == 0;
        Json object = {{"event", "verified"}, {"whole", is_whole}};
        const std::string text = fmt::format("{}: {}, {}", EscapeBytes(request_.file),
                                             is_whole ? Paint(stdout, Colour::kGreen, "whole")
                                                      : Paint(stdout, Colour::kRed, "not whole"),
                                             SetNumbers(&object, tally));
        object["faults"] = faults_;
        object["warnings"] = warnings_;
        if (is_whole) {
            events_.Tell(object, text);
        } else {
            events_.TellFault(object, text);
        }
        return Status();
    }

    int Export() {
        Expect(set_->is_check_file(), request_.file + " is no check file, which an export takes");
        const Tally tally = Inspect();
        Expect(faults_ == 0, request_.file + " is not whole, nothing was exported");
        Begin();
        ExportSet(*set_, request_.out);
        view_.End();
        Json object = {{"event", "exported"}};
        SetBytes(&object, "file", request_.out);
        const std::string numbers = SetNumbers(&object, tally);
        if (stream_ == stdout || request_.json) {
            events_.Tell(object, fmt::format("{}: {}", EscapeBytes(request_.out), numbers));
        }
        return kDone;
    }

    // Returns what a restore would make of the set.
    Tally Inspect() {
        Begin();
        const Tally tally = VerifySet(*set_, "", sink_);
        Begin();
        CheckSums(*set_, sink_);
        view_.End();
        return tally;
    }

    // To be called before each pass.
    void Begin() { view_.Begin(request_.subcommand, set_->TotalSize()); }

    int Status() const { return faults_ == 0 ? kDone : kTaskFailed; }

    void Add(const Finding& finding) {
        const bool is_warning = finding.severity == Severity::kWarning;
        ++(is_warning ? warnings_ : faults_);
        Json object = {{"event", is_warning ? "warning" : "fault"}};
        SetBytes(&object, "slice", finding.slice, "raw_slice");
        SetBytes(&object, "entry", finding.entry);
        object["message"] = BytesToUtf8(finding.message);
        std::string line = is_warning ? Paint(stream_, Colour::kYellow, "warning:")
                                      : Paint(stream_, Colour::kRed, "fault:");
        for (const std::string& part : {finding.slice, finding.entry, finding.message}) {
            line += part.empty() ? "" : " " + EscapeBytes(part) + ":";
        }
        line.pop_back();
        view_.Aside([&] { events_.TellFault(object, line); });
    }

    // The same numbers under the same names, whatever looked at the set. Returns them in words.
    std::string SetNumbers(Json* object, const Tally& tally) const {
        std::string slices;
        if (set_->is_check_file()) {
            (*object)["slices"] = set_->size();
            slices = " in " + Counted(set_->size(), "slice", "slices");
        }
        (*object)["entries"] = tally.entries();
        (*object)["bytes"] = tally.bytes();
        return fmt::format("{}{}, {} of content", Counted(tally.entries(), "entry", "entries"),
                           slices, HumanSize(tally.bytes()));
    }

    const ArchiveRequest& request_;
    // Standard output may be the archive, or lines for people to read on.
    FILE* const stream_ =
        request_.out == "-" || (request_.subcommand == "list" && !request_.json) ? stderr : stdout;
    EventWriter events_{request_.json ? EventWriter::Format::kJson : EventWriter::Format::kText,
                        request_.quiet, stream_};
    ProgressView view_{request_.quiet || request_.json};
    const FindingSink sink_ = [this](const Finding& finding) { Add(finding); };
    std::optional<ArchiveSet> set_;
    uint64_t faults_ = 0;
    uint64_t warnings_ = 0;
};

}  // namespace

int RunArchive(const ArchiveRequest& request) {
    return ArchiveCommand(request).Run();
}

}  // namespace peltexctl
