// Tested by tests/client/verdicts.md and peltexctl.md.
#include "task/task_check.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdio>
#include <future>

#include "archive/sums.h"
#include "base/path_rules.h"
#include "brief/search_rules.h"
#include "task/records.h"
#include "ui/ending.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

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

// A number for all that an entry's tally sees of it.
uint64_t SumOf(const TallyEntry& entry) {
    Tally tally;
    tally.Add(entry);
    return tally.sum();
}

// The records of `file`, but for its own: a brief may list itself, as far as it is written by then.
// Paths are those below `top`.
bool VisitRecords(const std::string& file, const std::string& top, const EntrySink& entries) {
    return ReadRecords(file, [&](TallyEntry entry) {
        if (entry.path != file) {
            entry.path.remove_prefix(entry.path.rfind(top, 0) == 0 ? top.size() : 0);
            entries(entry);
        }
        return true;
    });
}

}  // namespace

void FirstOf::Add(std::string_view line) {
    constexpr uint64_t kNamed = 3;
    if (++count_ <= kNamed) {
        lines_.emplace_back(line);
    } else {
        lines_.resize(kNamed);
        lines_.push_back(fmt::format("and {} more", count_ - kNamed));
    }
}

TaskCheck::TaskCheck(const TaskKind& kind, const TaskRequest& request, const ArchiveSet* set,
                     ProgressView* view)
    : kind_(kind),
      request_(request),
      set_(set),
      view_(*view),
      source_(kind.SourcePath(request)),
      spool_(kind.IsMove() ? std::tmpfile() : nullptr) {}

FindingSink TaskCheck::TellUpTo(Severity least) {
    return [this, least](const Finding& finding) {
        if (finding.severity <= least) {
            faults_.Add(DescribeFinding(finding));
        }
    };
}

bool TaskCheck::Before() {
    if (set_ != nullptr) {
        const FindingSink tell = TellUpTo(Severity::kSuspicion);
        expected_ = VerifySet(*set_, request_.destination, tell);
        CheckSums(*set_, tell);
        return true;
    }
    const auto count = [this](Tally* tally) {
        return TreeSink{
            [this, tally](const TallyEntry& entry) {
                tally->Add(entry);
                if (spool_) {
                    Print(spool_.get(), fmt::format("/{};0;{:d};{};0\n", entry.path,
                                                    entry.type == '5', entry.size));
                }
                view_.Tick();
            },
            [this, tally](LeftOut reason, std::string_view path) {
                tally->LeaveOut(reason);
                // Links keep their directory from being removed.
                if (kind_.IsMove() && reason != LeftOut::kLink) {
                    lost_.Add(path);
                }
            },
        };
    };
    // What a move loses is told in one order, and a brief has the other processor.
    const bool halves = kind_.source == Source::kTree && !kind_.IsMove() && !kind_.IsBrief();
    Tally other;
    auto half = std::async([&] { return !halves || VisitSource(count(&other), 1); });
    bool is_read = VisitSource(count(&expected_), halves ? std::optional(0) : std::nullopt);
    is_read = half.get() && is_read;
    expected_.Add(other);
    const bool is_listed = !kind_.IsMove() || (spool_ && std::fflush(spool_.get()) == 0 &&
                                               std::ferror(spool_.get()) == 0);
    Ensure((is_read && is_listed) || request_.force,
           fmt::format("{}: {}; --force goes on without a check", source_,
                       is_read ? "no room for a list of it in /tmp" : "cannot be read"));
    return is_read && is_listed;
}

std::vector<std::string> TaskCheck::After(const std::string& result) {
    kind_.result == Result::kTree ? LookUp(result) : LookInto(result);
    std::vector<std::string> lines = faults_.lines();
    lines.insert(lines.end(), differences_.lines().begin(), differences_.lines().end());
    return lines;
}

// Tallies what is in the directory `result` under the names of what is expected.
void TaskCheck::LookUp(const std::string& result) {
    FirstOf differences;
    const UniqueFd directory = OpenDirectory(result);
    std::string name;
    VisitExpected([&](const TallyEntry& expected) {
        view_.Tick();
        name = WithoutSlashes(expected.path);
        struct stat status = {};
        const bool is_there =
            fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        TallyEntry found;
        if (is_there) {
            found = EntryOf(expected.path, status, expected.mode ? kind_.modes() : Modes::kNone);
            found.link = found.type == '2' ? ReadLink(directory.get(), name.c_str()) : "";
            found_.Add(found);
        }
        if (!is_there || SumOf(found) != SumOf(expected)) {
            differences.Add(fmt::format("{}/{}: is {}, and should be {}", result, expected.path,
                                        is_there ? Describe(found) : "missing",
                                        Describe(expected)));
        }
    });
    if (!(found_ == expected_)) {
        differences_ = differences;
    }
}

// Tallies what is in the archive or brief that was written.
void TaskCheck::LookInto(const std::string& result) {
    if (kind_.result == Result::kRecords) {
        const std::string top = kind_.source == Source::kTree ? source_ + "/" : "/";
        const auto visit = [&](const EntrySink& entries) {
            return VisitRecords(result, top, entries);
        };
        const bool is_read = visit([this](const TallyEntry& entry) {
            found_.Add(entry);
            view_.Tick();
        });
        return is_read ? CompareWith(result, visit) : differences_.Add(result + ": cannot be read");
    }
    try {
        // Whether a suspicion is one the source tells.
        const FindingSink tell = TellUpTo(Severity::kFault);
        const ArchiveSet set(result, &view_);
        found_ = VerifySet(set, "", tell);
        CompareWith(result, [&set](const EntrySink& entries) { VisitRestored(set, entries); });
    } catch (const Failure& failure) {
        differences_.Add(failure.what());
    }
}

// Entries cannot be looked up in a file: some of their sums are kept at a time.
void TaskCheck::CompareWith(const std::string& result,
                            const std::function<void(const EntrySink&)>& visit) {
    constexpr uint64_t kAtATime = 1 << 16;
    const uint64_t parts = found_ == expected_ ? 0 : found_.entries() / kAtATime + 1;
    for (uint64_t part = 0; part < parts; part++) {
        std::vector<uint64_t> sums;
        visit([&](const TallyEntry& entry) {
            if (const uint64_t sum = SumOf(entry); sum % parts == part) {
                sums.push_back(sum);
            }
        });
        std::sort(sums.begin(), sums.end());
        VisitExpected([&](const TallyEntry& entry) {
            const uint64_t sum = SumOf(entry);
            if (sum % parts == part && !std::binary_search(sums.begin(), sums.end(), sum)) {
                differences_.Add(
                    fmt::format("{}/{}: is not in {} as it is there", source_, entry.path, result));
            }
            view_.Tick();
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
                  : VisitSource({entries, [](LeftOut, std::string_view) {}});
}

bool TaskCheck::VisitSource(const TreeSink& sink, std::optional<size_t> half) const {
    WalkOptions options{kind_.leaves_out, kind_.modes()};
    options.half = half;
    if (kind_.result == Result::kSet) {
        options.own = IdOf(kind_.ResultPath(request_));
    } else if (kind_.IsBrief()) {
        // It is listed as far as it is written by then.
        options.is_excluded = [this](const std::string& path) {
            return path == request_.destination;
        };
    }
    switch (kind_.source) {
        case Source::kFile: {
            const std::optional<struct stat> status = StatOf(source_);
            if (status) {
                sink.take(EntryOf(NameOf(TargetFile(request_)), *status, Modes::kNone));
            }
            return status.has_value();
        }
        case Source::kList:
            return VisitList(sink);
        case Source::kSearch:
            return VisitSearch(options, sink);
        case Source::kSet:
            VisitRestored(*set_, sink.take);
            return true;
        case Source::kRecords:
            if (RecordsApply()) {
                return VisitRecords(source_ + ".txt", request_.destination + "/", sink.take);
            }
            options.modes = Modes::kNone;
            break;
        case Source::kTree:
            break;
    }
    return WalkTree(source_, options, sink);
}

bool TaskCheck::VisitList(const TreeSink& sink) const {
    const std::string app = NameOf(request_.destination);
    return ReadRecords(
        source_,
        [&](const TallyEntry& record) {
            struct stat status = {};
            const std::string path(record.path);
            const size_t at = path.find(app);
            const std::string_view below =
                WithoutSlashes(at == std::string::npos ? "" : record.path.substr(at + app.size()));
            if (lstat(path.c_str(), &status) != 0) {
                sink.leave_out(LeftOut::kUnreadable, path);
            } else if (S_ISLNK(status.st_mode)) {
                sink.leave_out(LeftOut::kLink, path);
            } else if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
                sink.leave_out(LeftOut::kSpecial, path);
            } else if (record.type != '5' && EndsWith(path, ".dex")) {
                sink.leave_out(LeftOut::kDex, path);
            } else if (!below.empty()) {
                sink.take(EntryOf(below, status, Modes::kNone));
            }
            return true;
        },
        [&](std::string_view line) { sink.leave_out(LeftOut::kUnreadable, line); });
}

bool TaskCheck::VisitSearch(WalkOptions options, const TreeSink& sink) const {
    struct stat status = {};
    android::installd::SearchRules rules;
    if (stat(source_.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        !android::installd::GetIncludeAndExcludeFolder(source_.c_str(), rules)) {
        return false;
    }
    const android::installd::ExcludeRules excludes(rules.excludes);
    options.is_excluded = [&](const std::string& path) {
        return path == request_.destination || excludes.cover(path);
    };
    for (const std::string& include : rules.includes) {
        const std::string_view path = WithoutSlashes(include);
        options.begin = include.size() - path.size();
        if (lstat(include.c_str(), &status) != 0) {
            sink.leave_out(LeftOut::kUnreadable, include);
        } else if (S_ISDIR(status.st_mode)) {
            if (!excludes.cover(include)) {
                WalkTree(include, options, sink);
            }
        } else if (stat(include.c_str(), &status) == 0) {
            sink.take(EntryOf(path, status, options.modes));
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

std::optional<std::string> FirstRecordOf(const std::string& copy) {
    std::optional<std::string> first;
    ReadRecords(copy + ".txt", [&first](const TallyEntry& record) {
        first = std::string(record.path);
        return false;
    });
    return first;
}

}  // namespace peltexctl
