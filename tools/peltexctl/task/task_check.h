// The one check of every task: what its kind takes is tallied before, what is there afterwards. Two
// passes in constant memory, and further ones, where they differ, that tell in what.
//
// Not thread-safe.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archive/set.h"
#include "archive/tally.h"
#include "task/task_kinds.h"

namespace peltexctl {

// The first of some things in words, and behind them a line that counts the others.
class FirstOf {
  public:
    void Add(std::string_view line);
    const std::vector<std::string>& lines() const { return lines_; }

  private:
    std::vector<std::string> lines_;
    uint64_t count_ = 0;
};

class TaskCheck {
  public:
    // `view` shows what goes on. `set` is what a restore of an archive reads, else null. All
    // must outlive the check.
    TaskCheck(const TaskKind& kind, const TaskRequest& request, const ArchiveSet* set,
              ProgressView* view);

    // Tallies what the task is to bring. Where that cannot be known it throws Failure, or returns
    // false if the request goes on all the same.
    bool Before();

    // What the task brings, and what it leaves out.
    const Tally& expected() const { return expected_; }
    // What a move leaves out and would delete.
    const std::vector<std::string>& lost() const { return lost_.lines(); }

    // Tallies what is there; `result` is where it is. Returns the first differences; none when all
    // is there.
    std::vector<std::string> After(const std::string& result);

    // Bytes that After() has not found.
    uint64_t missing_bytes() const {
        return expected_.bytes() - std::min(expected_.bytes(), found_.bytes());
    }

  private:
    bool VisitSource(const TreeSink& sink, std::optional<size_t> half = {}) const;
    bool VisitList(const TreeSink& sink) const;
    bool VisitSearch(WalkOptions options, const TreeSink& sink) const;
    bool VisitExpected(const EntrySink& entries) const;
    bool RecordsApply() const;
    FindingSink TellUpTo(Severity least);
    void LookUp(const std::string& result);
    void LookInto(const std::string& result);
    void CompareWith(const std::string& result, const std::function<void(const EntrySink&)>& visit);

    const TaskKind& kind_;
    const TaskRequest& request_;
    const ArchiveSet* const set_;
    ProgressView& view_;
    const std::string source_;
    Tally expected_;
    Tally found_;
    FirstOf lost_;
    FirstOf faults_;  // of the set, or of what was written
    FirstOf differences_;
    android::installd::UniqueFile spool_;  // records of a move, whose source is gone afterwards
};

// Whether the attribute file of a copy holds records, and the path of the first, if there is one.
std::optional<std::string> FirstRecordOf(const std::string& copy);

}  // namespace peltexctl
