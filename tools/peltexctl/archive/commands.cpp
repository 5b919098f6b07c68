// Tested by tests/peltexctl/test_archives.py.
#include "archive/commands.h"

#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <optional>

#include "archive/export.h"
#include "archive/listing.h"
#include "archive/sums.h"
#include "archive/verify.h"
#include "ui/events.h"
#include "ui/exit_code.h"
#include "ui/json.h"
#include "ui/progress_view.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using Severity = Finding::Severity;

void PrintLine(FILE* stream, const std::string& line) {
    fmt::print(stream, "{}\n", line);
}

// Prints what is wrong with an archive, and counts it.
class Report {
  public:
    Report(bool json, FILE* stream) : json_(json), stream_(stream) {}

    std::optional<ArchiveSet> Open(const std::string& path) const {
        std::string error;
        std::optional<ArchiveSet> set = ArchiveSet::Open(path, sink_, &error);
        if (!set) {
            Fail(error);
        }
        return set;
    }

    // What a restore would make of the set.
    Tally Verify(const ArchiveSet& set) const {
        const Tally tally = VerifySet(set, "", sink_);
        CheckSums(set, sink_);
        return tally;
    }

    const FindingSink& sink() const { return sink_; }
    uint64_t faults() const { return faults_; }
    uint64_t warnings() const { return warnings_; }

    // What an operation could not begin with.
    int Fail(const std::string& message) const {
        if (json_ && stream_ == stdout) {
            EventWriter(EventWriter::Format::kJson).Error(message);
        } else {
            PrintError(message);
        }
        return kTaskFailed;
    }

    int Status() const { return faults_ == 0 ? kDone : kTaskFailed; }

  private:
    void Add(const Finding& finding) {
        const bool is_warning = finding.severity == Severity::kWarning;
        ++(is_warning ? warnings_ : faults_);
        if (json_) {
            Json object = {{"event", is_warning ? "warning" : "fault"}};
            SetBytes(&object, "slice", finding.slice, "raw_slice");
            SetBytes(&object, "entry", finding.entry);
            object["message"] = BytesToUtf8(finding.message);
            return PrintLine(stream_, JsonLine(object));
        }
        std::string line = is_warning ? Paint(stream_, Colour::kYellow, "warning:")
                                      : Paint(stream_, Colour::kRed, "fault:");
        for (const std::string& part : {finding.slice, finding.entry, finding.message}) {
            line += part.empty() ? "" : " " + EscapeBytes(part) + ":";
        }
        line.pop_back();
        PrintLine(stream_, line);
    }

    const bool json_;
    FILE* const stream_;
    const FindingSink sink_ = [this](const Finding& finding) { Add(finding); };
    uint64_t faults_ = 0;
    uint64_t warnings_ = 0;
};

// The same numbers under the same names, whatever looked at the set.
void SetNumbers(Json* object, const ArchiveSet& set, const Tally& tally) {
    if (set.is_check_file()) {
        (*object)["slices"] = set.size();
    }
    (*object)["entries"] = tally.entries();
    (*object)["bytes"] = tally.bytes();
}

std::string NumbersAsText(const ArchiveSet& set, const Tally& tally) {
    const std::string slices =
        set.is_check_file() ? " in " + Counted(set.size(), "slice", "slices") : "";
    return fmt::format("{}{}, {} of content", Counted(tally.entries(), "entry", "entries"), slices,
                       HumanSize(tally.bytes()));
}

}  // namespace

int RunList(const ArchiveRequest& request, bool json) {
    const Report report(json, json ? stdout : stderr);
    const std::optional<ArchiveSet> set = report.Open(request.file);
    if (!set) {
        return kTaskFailed;
    }
    ListSet(*set, report.sink(), [json](const ArchiveEntry& entry) {
        PrintLine(stdout, json ? EntryAsJson(entry) : EntryAsText(entry));
    });
    return report.Status();
}

int RunVerify(const ArchiveRequest& request, bool json) {
    const Report report(json, stdout);
    const std::optional<ArchiveSet> set = report.Open(request.file);
    if (!set) {
        return kTaskFailed;
    }
    const Tally tally = report.Verify(*set);
    const bool is_whole = report.faults() == 0;
    if (json) {
        Json object = {{"event", "verified"}, {"whole", is_whole}};
        SetNumbers(&object, *set, tally);
        object["faults"] = report.faults();
        object["warnings"] = report.warnings();
        PrintLine(stdout, JsonLine(object));
    } else if (!is_whole || !request.quiet) {
        PrintLine(stdout, fmt::format("{}: {}, {}", EscapeBytes(set->path()),
                                      is_whole ? Paint(stdout, Colour::kGreen, "whole")
                                               : Paint(stdout, Colour::kRed, "not whole"),
                                      NumbersAsText(*set, tally)));
    }
    return report.Status();
}

int RunExport(const ArchiveRequest& request, bool json) {
    // Standard output may be the archive.
    FILE* const stream = request.out == "-" ? stderr : stdout;
    const Report report(json, stream);
    const std::optional<ArchiveSet> set = report.Open(request.file);
    if (!set) {
        return kTaskFailed;
    }
    if (!set->is_check_file()) {
        return report.Fail(request.file + " is no check file, which an export takes");
    }
    const Tally tally = report.Verify(*set);
    if (report.faults() > 0) {
        return report.Fail(request.file + " is not whole, nothing was exported");
    }
    ProgressView view(request.quiet || json);
    view.Begin("export", tally.bytes());
    std::string error;
    const bool is_done = ExportSet(
        *set, request.out,
        [&view](uint64_t done) {
            view.SetDone(done);
            view.Tick();
        },
        &error);
    view.End();
    if (!is_done) {
        return report.Fail(error);
    }
    if (json) {
        Json object = {{"event", "exported"}};
        SetBytes(&object, "file", request.out);
        SetNumbers(&object, *set, tally);
        PrintLine(stream, JsonLine(object));
    } else if (stream == stdout && !request.quiet) {
        PrintLine(stdout,
                  fmt::format("{}: {}", EscapeBytes(request.out), NumbersAsText(*set, tally)));
    }
    return report.Status();
}

}  // namespace peltexctl
