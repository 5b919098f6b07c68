// The client's side of a split backup: takes each slice that is handed over, then lets the backup
// go on, and keeps it alive while taking is slow.
//
// The library forgets a continuation that comes before its worker waits, so it is sent again, soon
// at first, until a status shows that the backup has moved. A continuation for a backup that has
// ended would begin a second one, and one that comes late would release a slice that was not taken
// yet. Neither can happen: a continuation excludes the statuses that hand over a slice or end the
// backup, and until the last of them has been received the backup still counts as running.
//
// Heard() is for the library's threads, the rest for the program's own.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "archive/sums.h"
#include "task/directory.h"
#include "task/task_kinds.h"
#include "ui/events.h"

namespace peltexctl {

class SliceHandOver {
  public:
    using Clock = std::chrono::steady_clock;
    // Sends a command on the backup's session and returns the library's answer. A repetition need
    // not be told.
    using Send = std::function<int(const std::string& command, bool is_repeated)>;

    // `command` is the backup's own. `tick` is called now and then while a slice is copied; it
    // returns false to give that up.
    SliceHandOver(const TaskRequest& request, Send send, std::string command,
                  std::function<bool()> tick);

    SliceHandOver(const SliceHandOver&) = delete;
    SliceHandOver& operator=(const SliceHandOver&) = delete;

    // Makes and holds the directory that slices are taken to. Throws Failure.
    void Prepare();

    // Every status of the backup.
    void Heard(const StatusEvent& event);

    // Does what is due. Returns what went wrong, empty when nothing did; the backup is then to be
    // aborted.
    std::string Step();

    // The backup was asked to stop: makes it see that in its pause, instead of Step().
    void Wake();

    // When Step() is to be called next, whatever is heard until then.
    Clock::time_point next_step() const { return next_step_; }

    // The backup has ended: takes the rest and, if it is `whole`, the check file and the sums.
    // Returns what went wrong.
    std::string Finish(bool whole);

    // Where the set is in the end.
    std::string Directory() const { return take_.empty() ? destination_ : take_; }

    // How many slices were handed over.
    uint64_t Count() const;

    // Where how many of them are.
    std::string DescribeLeft() const;

  private:
    struct Slice {
        std::string name;  // empty when there is nothing to take
        bool last;
        uint64_t heard;  // how many statuses had been heard by then
    };

    static Slice Parse(const std::string& message);
    std::string Take(const std::string& name);
    std::string MoveAway(const std::string& name);
    std::string CopyAway(const std::string& name);
    bool CopyContent(int from, int to);
    // The directory that the set is in.
    const UniqueFd& Held() const { return take_.empty() ? from_ : to_.fd(); }
    std::optional<Slice> NextSlice();
    bool HasMoved() const;
    void Continue(bool is_repeated);

    const Send send_;
    const std::string command_;
    const std::function<bool()> tick_;
    const std::string destination_;
    const std::string take_;
    const std::string base_;  // of the slices' names
    UniqueFd from_;
    MadeDirectory to_;
    std::optional<Summer> summer_;

    std::optional<Slice> current_;  // handed over and not yet continued
    bool failed_ = false;           // a slice could not be taken
    uint64_t taken_ = 0;
    Clock::time_point next_step_ = Clock::time_point::max();
    Clock::duration repeat_after_{};

    mutable std::mutex mutex_;
    // Protected by mutex_.
    std::deque<Slice> handed_;  // those that nobody has looked at yet
    uint64_t count_ = 0;
    uint64_t heard_ = 0;

    std::mutex end_mutex_;  // held over a continuation; never waited for with the library's locks
    // Protected by end_mutex_.
    bool ended_ = false;
};

}  // namespace peltexctl
