// Tested by tests/client/test_verdicts.py and peltexctl.md.
#include "task/task_check.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <utility>

#include "archive/sums.h"
#include "archive/verify.h"
#include "base/path_rules.h"
#include "brief/search_rules.h"
#include "task/records.h"
#include "ui/exit_code.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr size_t kNamed = 3;
const LeftOutSink kIgnore = [](LeftOut, std::string_view) {};

std::string_view WithoutSlashes(std::string_view path) {
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    return path;
}

std::string Describe(const TallyEntry& entry) {
    const std::string text = entry.type == '0'   ? fmt::format("a file of {} bytes", entry.size)
                             : entry.type == '2' ? fmt::format("a link to {}", entry.link)
                             : entry.type == '5' ? "a directory"
                                                 : "a special file";
    return entry.mode ? fmt::format("{} with mode {:04o}", text, *entry.mode) : text;
}

// But for their paths.
bool AreSame(const TallyEntry& one, const TallyEntry& other) {
    return one.type == other.type && one.size == other.size && one.link == other.link &&
           one.mode == other.mode;
}

// A number for all that an entry's tally sees of it.
uint64_t SumOf(const TallyEntry& entry) {
    Tally tally;
    tally.Add(entry);
    return tally.sum();
}

}  // namespace

void TaskCheck::Differences::Add(const std::string& line) {
    if (lines.size() < kNamed) {
        lines.push_back(line);
    } else {
        ++more;
    }
}

TaskCheck::TaskCheck(const TaskKind& kind, const TaskRequest& request, const ArchiveSet* set,
                     std::function<void()> tick)
    : kind_(kind),
      request_(request),
      set_(set),
      tick_(std::move(tick)),
      source_(kind.SourcePath(request)),
      spool_(kind.IsMove() ? std::tmpfile() : nullptr) {}

void TaskCheck::Before() {
    if (set_ != nullptr) {
        const FindingSink tell = [this](const Finding& finding) {
            if (finding.severity != Finding::Severity::kWarning) {
                set_faults_.Add(DescribeFinding(finding));
            }
            tick_();
        };
        expected_ = VerifySet(*set_, request_.destination, tell);
        CheckSums(*set_, tell);
        return;
    }
    const bool is_read = VisitSource(
        [this](const TallyEntry& entry) {
            expected_.Add(entry);
            if (spool_) {
                Print(spool_.get(),
                      fmt::format("/{};0;{:d};{};0\n", entry.path, entry.type == '5', entry.size));
            }
            tick_();
        },
        [this](LeftOut reason, std::string_view path) {
            expected_.LeaveOut(reason);
            // Links keep their directory from being removed.
            if (reason != LeftOut::kLink && first_lost_.size() < kNamed) {
                first_lost_.emplace_back(path);
            }
        });
    if (!is_read || (kind_.IsMove() && (!spool_ || std::fflush(spool_.get()) != 0 ||
                                        std::ferror(spool_.get()) != 0))) {
        throw Failure(kTaskFailed,
                      fmt::format("{}: {}; --force goes on without a check", source_,
                                  is_read ? "no room for a list of it in /tmp" : "cannot be read"));
    }
}

uint64_t TaskCheck::lost() const {
    return expected_.left_out() - expected_.left_out(LeftOut::kLink);
}

uint64_t TaskCheck::RoomFor(uint64_t block_size) {
    // An archive's header and the padding behind content are whole blocks of it, a long name two.
    const bool packs = kind_.result == Result::kSet;
    const uint64_t block = packs ? 512 : std::max<uint64_t>(block_size, 1);
    uint64_t room = packs ? 1024 : 0;
    VisitExpected([&](const TallyEntry& entry) {
        room += (entry.size + block - 1) / block * block;
        if (packs) {
            room += entry.path.size() < 100 ? block : 3 * block;
        } else if (entry.type == '5') {
            room += block;
        }
    });
    return room;
}

std::vector<std::string> TaskCheck::After(const std::string& result) {
    found_ = {};
    Differences differences;
    if (kind_.result == Result::kTree) {
        differences = LookUp(result);
        if (found_ == expected_) {
            differences = {};
        }
    } else if (TallyFile(result, &differences) && found_ != expected_) {
        CompareWithFile(result, &differences);
    }
    std::vector<std::string> lines;
    for (const Differences& some : {set_faults_, differences}) {
        lines.insert(lines.end(), some.lines.begin(), some.lines.end());
        if (some.more > 0) {
            lines.push_back(fmt::format("and {} more", some.more));
        }
    }
    return lines;
}

uint64_t TaskCheck::missing_bytes() const {
    return expected_.bytes() - std::min(expected_.bytes(), found_.bytes());
}

// Tallies what is in the directory `result` under the names of what is expected, and tells in what
// it differs.
TaskCheck::Differences TaskCheck::LookUp(const std::string& result) {
    Differences differences;
    const UniqueFd directory = OpenDirectory(result);
    std::string name;
    LinkBuffer target;
    VisitExpected([&](const TallyEntry& expected) {
        tick_();
        name = WithoutSlashes(expected.path);
        struct stat status = {};
        const bool is_there =
            fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        TallyEntry found;
        if (is_there) {
            found = EntryOf(expected.path, status, expected.mode ? kind_.modes : Modes::kNone);
            found.link = found.type == '2' ? ReadLink(directory, name.c_str(), target) : "";
            found_.Add(found);
        }
        if (!is_there || !AreSame(found, expected)) {
            differences.Add(fmt::format("{}/{}: is {}, and should be {}", result, expected.path,
                                        is_there ? Describe(found) : "missing",
                                        Describe(expected)));
        }
    });
    return differences;
}

// Tallies what is in the archive or brief that was written. Returns whether it can be read.
bool TaskCheck::TallyFile(const std::string& result, Differences* faults) {
    if (kind_.result == Result::kRecords) {
        const bool is_read = VisitBrief(result, [this](const TallyEntry& entry) {
            found_.Add(entry);
            tick_();
        });
        if (!is_read) {
            faults->Add(result + ": cannot be read");
        }
        return is_read;
    }
    const FindingSink tell = [&](const Finding& finding) {
        // Whether a suspicion is one the source tells.
        if (finding.severity == Finding::Severity::kFault) {
            faults->Add(DescribeFinding(finding));
        }
        tick_();
    };
    try {
        found_ = VerifySet(ArchiveSet(result, tell), "", tell);
    } catch (const Failure& failure) {
        faults->Add(failure.what());
        return false;
    }
    return true;
}

// Entries cannot be looked up in a file: some of their sums are kept at a time.
void TaskCheck::CompareWithFile(const std::string& result, Differences* differences) const {
    constexpr uint64_t kAtATime = 1 << 16;
    const uint64_t parts = found_.entries() / kAtATime + 1;
    for (uint64_t part = 0; part < parts; part++) {
        std::vector<uint64_t> sums;
        const EntrySink keep = [&](const TallyEntry& entry) {
            if (const uint64_t sum = SumOf(entry); sum % parts == part) {
                sums.push_back(sum);
            }
            tick_();
        };
        if (kind_.result == Result::kRecords) {
            VisitBrief(result, keep);
        } else {
            VisitRestored(ArchiveSet(result, [](const Finding&) {}), keep);
        }
        std::sort(sums.begin(), sums.end());
        VisitExpected([&](const TallyEntry& entry) {
            const uint64_t sum = SumOf(entry);
            if (sum % parts == part && !std::binary_search(sums.begin(), sums.end(), sum)) {
                differences->Add(
                    fmt::format("{}/{}: is not in {} as it is there", source_, entry.path, result));
            }
            tick_();
        });
    }
}

// What the task is to bring, as far as it is still there to be asked.
bool TaskCheck::VisitExpected(const EntrySink& entries) const {
    return spool_ ? VisitRecords("/proc/self/fd/" + std::to_string(fileno(spool_.get())), "/",
                                 [&entries](TallyEntry entry) {
                                     entry.mode = std::nullopt;
                                     entries(entry);
                                 })
                  : VisitSource(entries, kIgnore);
}

bool TaskCheck::VisitSource(const EntrySink& entries, const LeftOutSink& left_out) const {
    switch (kind_.source) {
        case Source::kFile: {
            const std::optional<struct stat> status = StatOf(source_);
            if (status) {
                entries(EntryOf(NameOf(TargetFile(request_)), *status, kind_.modes));
            }
            return status.has_value();
        }
        case Source::kList:
            return VisitList(entries, left_out);
        case Source::kSearch:
            return VisitSearch(entries, left_out);
        case Source::kSet:
            VisitRestored(*set_, entries);
            return true;
        case Source::kRecords:
            if (RecordsApply()) {
                return VisitRecords(source_ + ".txt", request_.destination + "/", entries);
            }
            break;
        case Source::kTree:
            break;
    }
    WalkOptions options;
    options.rules = kind_.leaves_out;
    options.modes = kind_.source == Source::kTree ? kind_.modes : Modes::kNone;
    if (kind_.result == Result::kSet) {
        options.own = IdOf(kind_.ResultPath(request_));
    }
    if (kind_.IsBrief()) {
        // It is listed as far as it is written by then.
        options.is_excluded = [this](const std::string& path) {
            return path == request_.destination;
        };
    }
    return WalkTree(source_, options, entries, left_out);
}

bool TaskCheck::VisitList(const EntrySink& entries, const LeftOutSink& left_out) const {
    const std::string app = NameOf(request_.destination);
    return ReadRecords(
        source_, RecordLines::kEach,
        [&](const Record& record) {
            struct stat status = {};
            const std::string path(record.path);
            const size_t at = path.find(app);
            const std::string_view below = WithoutSlashes(
                at == std::string::npos ? "" : std::string_view(path).substr(at + app.size()));
            const bool is_there = lstat(path.c_str(), &status) == 0;
            if (!is_there) {
                left_out(LeftOut::kUnreadable, path);
            } else if (S_ISLNK(status.st_mode)) {
                left_out(LeftOut::kLink, path);
            } else if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
                left_out(LeftOut::kSpecial, path);
            } else if (!record.is_directory && EndsWith(path, ".dex")) {
                left_out(LeftOut::kDex, path);
            } else if (!below.empty()) {
                entries(EntryOf(below, status, kind_.modes));
            }
            return true;
        },
        [&](std::string_view line) { left_out(LeftOut::kUnreadable, line); });
}

bool TaskCheck::VisitSearch(const EntrySink& entries, const LeftOutSink& left_out) const {
    struct stat status = {};
    android::installd::SearchRules rules;
    if (stat(source_.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        !android::installd::GetIncludeAndExcludeFolder(source_.c_str(), rules)) {
        return false;
    }
    const android::installd::ExcludeRules excludes(rules.excludes);
    WalkOptions options;
    options.rules = kind_.leaves_out;
    options.modes = kind_.modes;
    options.is_excluded = [&](const std::string& path) {
        return path == request_.destination || excludes.cover(path);
    };
    for (const std::string& include : rules.includes) {
        if (lstat(include.c_str(), &status) != 0) {
            left_out(LeftOut::kUnreadable, include);
        } else if (!S_ISDIR(status.st_mode)) {
            if (stat(include.c_str(), &status) == 0) {
                entries(EntryOf(WithoutSlashes(include), status, kind_.modes));
            }
        } else if (!excludes.cover(include)) {
            const std::string top(WithoutSlashes(include));
            std::string path;
            WalkTree(
                include, options,
                [&](const TallyEntry& entry) {
                    path = fmt::format("{}/{}", top, entry.path);
                    TallyEntry whole = entry;
                    whole.path = path;
                    entries(whole);
                },
                left_out);
        }
    }
    return true;
}

// Whether modes are put back: nowhere on shared storage, and at the paths that they were taken
// from.
bool TaskCheck::RecordsApply() const {
    const std::optional<std::string> first = FirstRecordOf(source_);
    return first && first->rfind(request_.destination + "/", 0) == 0 &&
           !android::installd::isStoragePath(request_.destination.c_str());
}

// Paths are those below `top`.
bool TaskCheck::VisitRecords(const std::string& file, const std::string& top,
                             const EntrySink& entries) const {
    return ReadRecords(file, RecordLines::kJoined, [&](const Record& record) {
        TallyEntry entry;
        entry.path = record.path.substr(record.path.rfind(top, 0) == 0 ? top.size() : 0);
        entry.type = record.is_directory ? '5' : '0';
        entry.size = record.is_directory ? 0 : record.size;
        entry.mode = record.mode;
        entries(entry);
        return true;
    });
}

// A brief may list itself, as far as it is written by then.
bool TaskCheck::VisitBrief(const std::string& brief, const EntrySink& entries) const {
    const std::string top = kind_.source == Source::kTree ? source_ + "/" : "/";
    return VisitRecords(brief, top, [&](const TallyEntry& entry) {
        if (top.compare(0, top.size(), brief, 0, top.size()) != 0 ||
            entry.path != std::string_view(brief).substr(top.size())) {
            entries(entry);
        }
    });
}

std::string DescribeFinding(const Finding& finding) {
    std::string line = finding.slice;
    for (const std::string& part : {finding.entry, finding.message}) {
        if (!part.empty()) {
            line += (line.empty() ? "" : ": ") + part;
        }
    }
    return line;
}

std::optional<std::string> FirstRecordOf(const std::string& copy) {
    std::optional<std::string> first;
    ReadRecords(copy + ".txt", RecordLines::kJoined, [&first](const Record& record) {
        first = std::string(record.path);
        return false;
    });
    return first;
}

}  // namespace peltexctl
