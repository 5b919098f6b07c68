// The one check of every task: what its kind takes is tallied before, what is there afterwards. Two
// passes in constant memory, and further ones, where they differ, that tell in what.
//
// Not thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "archive/set.h"
#include "archive/tally.h"
#include "task/task_kinds.h"

namespace peltexctl {

class TaskCheck {
  public:
    // `tick` is called now and then. `set` is what a restore of an archive reads, else null. All
    // must outlive the check.
    TaskCheck(const TaskKind& kind, const TaskRequest& request, const ArchiveSet* set,
              std::function<void()> tick);

    // Tallies what the task is to bring. Throws Failure where that cannot be known.
    void Before();

    // What the task brings, and what it leaves out.
    const Tally& expected() const { return expected_; }
    // The bytes that it takes on a file system with blocks of this size.
    uint64_t RoomFor(uint64_t block_size);
    // The first of those that a move leaves out and would delete, and how many there are.
    const std::vector<std::string>& first_lost() const { return first_lost_; }
    uint64_t lost() const;

    // Tallies what is there; `result` is where it is. Returns one line for each of the first
    // differences and one that counts the others; none when all is there.
    std::vector<std::string> After(const std::string& result);

    // Bytes that After() has not found.
    uint64_t missing_bytes() const;

  private:
    // The first in words, and a count of the others.
    struct Differences {
        void Add(const std::string& line);

        std::vector<std::string> lines;
        uint64_t more = 0;
    };

    bool VisitSource(const EntrySink& entries, const LeftOutSink& left_out) const;
    bool VisitList(const EntrySink& entries, const LeftOutSink& left_out) const;
    bool VisitSearch(WalkOptions options, const EntrySink& entries,
                     const LeftOutSink& left_out) const;
    bool VisitExpected(const EntrySink& entries) const;
    bool RecordsApply() const;
    void LookUp(const std::string& result);
    void LookInto(const std::string& result);
    void CompareWith(const std::string& result, const std::function<void(const EntrySink&)>& visit);

    const TaskKind& kind_;
    const TaskRequest& request_;
    const ArchiveSet* const set_;
    const std::function<void()> tick_;
    const std::string source_;
    Tally expected_;
    Tally found_;
    std::vector<std::string> first_lost_;
    Differences differences_;
    android::installd::UniqueFile spool_;  // records of a move, whose source is gone afterwards
};

// "SLICE: ENTRY: MESSAGE", not escaped.
std::string DescribeFinding(const Finding& finding);

// Whether the attribute file of a copy holds records, and the path of the first, if there is one.
std::optional<std::string> FirstRecordOf(const std::string& copy);

}  // namespace peltexctl
