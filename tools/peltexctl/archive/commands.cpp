// Tested by tests/peltexctl/test_archives.py.
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

// A look at a set: what is wrong with it is told on `stream` and counted.
class Inspection {
  public:
    // Without a set, why there is none has been told.
    Inspection(const ArchiveRequest& request, FILE* stream, bool shows_progress = true)
        : stream_(stream),
          events_(request.json ? EventWriter::Format::kJson : EventWriter::Format::kText,
                  request.quiet, stream),
          view_(request.quiet || request.json || !shows_progress) {
        std::string error;
        set_ = ArchiveSet::Open(request.file, sink_, &error);
        if (!set_) {
            Fail(error);
            return;
        }
        set_->SetProgress([this](uint64_t done) {
            view_.SetDone(done);
            view_.Tick();
        });
    }

    std::optional<ArchiveSet>& set() { return set_; }
    EventWriter& events() { return events_; }
    uint64_t faults() const { return faults_; }
    uint64_t warnings() const { return warnings_; }

    // To be called before each pass.
    void Begin(const std::string& label) { view_.Begin(label, set_->TotalSize()); }
    void End() { view_.End(); }

    void List(const EntryVisitor& show) {
        Begin("list");
        VisitEntries(*set_, sink_, show);
    }

    // Returns what a restore would make of the set.
    Tally Verify() {
        Begin("verify");
        const Tally tally = VerifySet(*set_, "", sink_);
        Begin("compare with sums");
        CheckSums(*set_, sink_);
        End();
        return tally;
    }

    // Tells why nothing comes of it.
    int Fail(const std::string& message) {
        End();
        events_.Error(message);
        return kTaskFailed;
    }

    int Status() const { return set_ && faults_ == 0 ? kDone : kTaskFailed; }

  private:
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

    FILE* const stream_;
    EventWriter events_;
    ProgressView view_;
    const FindingSink sink_ = [this](const Finding& finding) { Add(finding); };
    std::optional<ArchiveSet> set_;
    uint64_t faults_ = 0;
    uint64_t warnings_ = 0;
};

// The same numbers under the same names, whatever looked at the set. Returns them in words.
std::string SetNumbers(Json* object, const ArchiveSet& set, const Tally& tally) {
    std::string slices;
    if (set.is_check_file()) {
        (*object)["slices"] = set.size();
        slices = " in " + Counted(set.size(), "slice", "slices");
    }
    (*object)["entries"] = tally.entries();
    (*object)["bytes"] = tally.bytes();
    return fmt::format("{}{}, {} of content", Counted(tally.entries(), "entry", "entries"), slices,
                       HumanSize(tally.bytes()));
}

}  // namespace

int RunList(const ArchiveRequest& request) {
    // On a terminal the lines themselves are the progress.
    Inspection inspection(request, request.json ? stdout : stderr, isatty(STDOUT_FILENO) == 0);
    if (inspection.set()) {
        inspection.List([&request](const ArchiveEntry& entry) {
            Print(stdout, (request.json ? EntryAsJson(entry) : EntryAsText(entry)) + "\n");
        });
    }
    return inspection.Status();
}

int RunVerify(const ArchiveRequest& request) {
    Inspection inspection(request, stdout);
    if (!inspection.set()) {
        return kTaskFailed;
    }
    const Tally tally = inspection.Verify();
    const bool is_whole = inspection.Status() == kDone;
    Json object = {{"event", "verified"}, {"whole", is_whole}};
    const std::string text = fmt::format("{}: {}, {}", EscapeBytes(request.file),
                                         is_whole ? Paint(stdout, Colour::kGreen, "whole")
                                                  : Paint(stdout, Colour::kRed, "not whole"),
                                         SetNumbers(&object, *inspection.set(), tally));
    object["faults"] = inspection.faults();
    object["warnings"] = inspection.warnings();
    if (is_whole) {
        inspection.events().Tell(object, text);
    } else {
        inspection.events().TellFault(object, text);
    }
    return inspection.Status();
}

int RunExport(const ArchiveRequest& request) {
    // Standard output may be the archive.
    FILE* const stream = request.out == "-" ? stderr : stdout;
    Inspection inspection(request, stream);
    if (!inspection.set()) {
        return kTaskFailed;
    }
    if (!inspection.set()->is_check_file()) {
        return inspection.Fail(request.file + " is no check file, which an export takes");
    }
    const Tally tally = inspection.Verify();
    if (inspection.Status() != kDone) {
        return inspection.Fail(request.file + " is not whole, nothing was exported");
    }
    inspection.Begin("export");
    if (std::string error; !ExportSet(*inspection.set(), request.out, &error)) {
        return inspection.Fail(error);
    }
    inspection.End();
    Json object = {{"event", "exported"}};
    SetBytes(&object, "file", request.out);
    const std::string numbers = SetNumbers(&object, *inspection.set(), tally);
    if (stream == stdout || request.json) {
        inspection.events().Tell(object, fmt::format("{}: {}", EscapeBytes(request.out), numbers));
    }
    return kDone;
}

}  // namespace peltexctl
