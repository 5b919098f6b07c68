// Tested by tests/peltexctl/test_archives.py.
#include "archive/commands.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "archive/export.h"
#include "archive/listing.h"
#include "archive/set.h"
#include "archive/verify.h"
#include "ui/events.h"
#include "ui/exit_code.h"
#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

using Json = nlohmann::ordered_json;
using Severity = Finding::Severity;

void PrintLine(FILE* stream, const std::string& line) {
    fmt::print(stream, "{}\n", line);
}

// A finding's slice and entry in front of its text.
std::string FindingAsText(const Finding& finding) {
    std::string line = EscapeBytes(finding.slice);
    for (const std::string& part : {finding.entry, finding.message}) {
        if (!part.empty()) {
            line += (line.empty() ? "" : ": ") + EscapeBytes(part);
        }
    }
    return line;
}

// Prints what is wrong with an archive, and counts it.
class Report {
  public:
    Report(bool json, FILE* stream) : json_(json), stream_(stream) {}

    FindingSink sink() {
        return [this](const Finding& finding) { Add(finding); };
    }

    void Add(const Finding& finding) {
        const bool is_warning = finding.severity == Severity::kWarning;
        warnings_ += is_warning ? 1 : 0;
        faults_ += finding.severity == Severity::kFault ? 1 : 0;
        suspicions_ += finding.severity == Severity::kSuspicion ? 1 : 0;
        if (!json_) {
            PrintLine(stream_, fmt::format("{} {}",
                                           is_warning ? Paint(stream_, Colour::kYellow, "warning:")
                                                      : Paint(stream_, Colour::kRed, "fault:"),
                                           FindingAsText(finding)));
            return;
        }
        PrintLine(stream_, Json({{"event", is_warning ? "warning" : "fault"},
                                 {"slice", BytesToUtf8(finding.slice)},
                                 {"entry", BytesToUtf8(finding.entry)},
                                 {"message", BytesToUtf8(finding.message)}})
                               .dump(-1, ' ', true));
    }

    uint64_t faults() const { return faults_; }
    uint64_t suspicions() const { return suspicions_; }
    uint64_t warnings() const { return warnings_; }

  private:
    const bool json_;
    FILE* stream_;
    uint64_t faults_ = 0;
    uint64_t suspicions_ = 0;
    uint64_t warnings_ = 0;
};

int Fail(bool json, FILE* stream, const std::string& message) {
    if (json && stream == stdout) {
        EventWriter(EventWriter::Format::kJson).Error(message);
    } else {
        PrintError(message);
    }
    return kTaskFailed;
}

// The status of a command whose output was asked for: it failed when that could not be written.
int Written(int status) {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return status;
    }
    PrintError(fmt::format("standard output cannot be written: {}", ErrorText(errno)));
    return kTaskFailed;
}

int ShowVerified(const ArchiveSet& set, const VerifyCounts& counts, const Report& report,
                 bool json) {
    const uint64_t faults = report.faults() + report.suspicions();
    if (json) {
        PrintLine(stdout, Json({{"event", "verified"},
                                {"whole", faults == 0},
                                {"slices", set.slices.size()},
                                {"entries", counts.entries},
                                {"bytes", counts.bytes},
                                {"faults", faults},
                                {"warnings", report.warnings()}})
                              .dump());
    } else {
        const std::string slices = set.kind == ArchiveSet::Kind::kCheckFile
                                       ? fmt::format(" in {} slice{}", set.slices.size(),
                                                     set.slices.size() == 1 ? "" : "s")
                                       : "";
        PrintLine(stdout, fmt::format("{}: {}, {} entries{}, {} of content", EscapeBytes(set.path),
                                      faults == 0 ? Paint(stdout, Colour::kGreen, "whole")
                                                  : Paint(stdout, Colour::kRed, "not whole"),
                                      counts.entries, slices, HumanSize(counts.bytes)));
    }
    return Written(faults == 0 ? kDone : kTaskFailed);
}

}  // namespace

int RunList(const ArchiveRequest& request, bool json) {
    Report report(json, json ? stdout : stderr);
    ArchiveSet set;
    std::string error;
    if (!OpenArchiveSet(request.file, report.sink(), &set, &error)) {
        return Fail(json, stdout, error);
    }
    ListSet(set, report.sink(), [json](const ArchiveEntry& entry) {
        PrintLine(stdout, json ? EntryAsJson(entry) : EntryAsText(entry));
    });
    return Written(report.faults() == 0 ? kDone : kTaskFailed);
}

int RunVerify(const ArchiveRequest& request, bool json) {
    Report report(json, stdout);
    ArchiveSet set;
    std::string error;
    if (!OpenArchiveSet(request.file, report.sink(), &set, &error)) {
        return Fail(json, stdout, error);
    }
    const VerifyCounts counts = VerifySet(set, report.sink());
    return ShowVerified(set, counts, report, json);
}

// The kernel's clocks do not tell it: a change may get a later time than the coarse one shows, once
// somebody has looked at another, and an earlier one than the fine one shows.
int64_t FileSystemNow() {
    struct stat info = {};
    const int fd = memfd_create("now", MFD_CLOEXEC);
    if (fd == -1 || fstat(fd, &info) != 0) {
        clock_gettime(CLOCK_REALTIME_COARSE, &info.st_ctim);
    }
    if (fd != -1) {
        close(fd);
    }
    return int64_t{info.st_ctim.tv_sec} * 1000000000 + info.st_ctim.tv_nsec;
}

int RunVerifyBackup(const std::string& file, const std::string& source_directory,
                    int64_t packing_began, bool json, std::optional<TreeCounts>* counts) {
    Report report(json, stdout);
    ArchiveSet set;
    std::string error;
    if (!OpenArchiveSet(file, report.sink(), &set, &error)) {
        return Fail(json, stdout, error);
    }
    const VerifyCounts found =
        VerifyAgainstSource(set, source_directory, packing_began, report.sink());
    const int status = ShowVerified(set, found, report, json);
    if (status == kDone) {
        *counts = {found.entries, found.bytes};
    }
    return status;
}

std::vector<std::string> ListSlices(const std::string& check_file) {
    ArchiveSet set;
    std::string error;
    std::vector<std::string> paths;
    if (OpenArchiveSet(
            check_file, [](const Finding&) {}, &set, &error) &&
        set.kind == ArchiveSet::Kind::kCheckFile) {
        for (const ArchiveSet::Slice& slice : set.slices) {
            paths.push_back(slice.path);
        }
    }
    return paths;
}

std::optional<TreeCounts> CountArchive(const std::string& file) {
    uint64_t faults = 0;
    const FindingSink sink = [&faults](const Finding& finding) {
        faults += finding.severity == Severity::kFault ? 1 : 0;
    };
    ArchiveSet set;
    std::string error;
    if (!OpenArchiveSet(file, sink, &set, &error)) {
        return std::nullopt;
    }
    const VerifyCounts counts = VerifySet(set, sink);
    return faults == 0 ? std::optional(TreeCounts{counts.entries, counts.bytes}) : std::nullopt;
}

int RunExport(const ArchiveRequest& request, bool json) {
    // Standard output may be the archive.
    FILE* const stream = request.out == "-" ? stderr : stdout;
    Report report(json, stream);
    ArchiveSet set;
    std::string error;
    if (!OpenArchiveSet(request.file, report.sink(), &set, &error)) {
        return Fail(json, stream, error);
    }
    if (set.kind == ArchiveSet::Kind::kSlice) {
        return Fail(json, stream, request.file + " is one slice: an export takes the check file");
    }
    VerifySet(set, report.sink());
    if (report.faults() > 0) {
        return Fail(json, stream, request.file + " is not whole, nothing was exported");
    }
    ExportCounts counts;
    if (!ExportSet(set, request.out, &counts, &error)) {
        return Fail(json, stream, error);
    }
    if (json) {
        PrintLine(stream, Json({{"event", "exported"},
                                {"file", BytesToUtf8(request.out)},
                                {"entries", counts.entries},
                                {"bytes", counts.bytes}})
                              .dump(-1, ' ', true));
    } else if (stream == stdout) {
        PrintLine(stdout, fmt::format("{}: {} entries, {}", EscapeBytes(request.out),
                                      counts.entries, HumanSize(counts.bytes)));
    }
    return kDone;
}

}  // namespace peltexctl
