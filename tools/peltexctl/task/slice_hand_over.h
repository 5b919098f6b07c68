// The client's side of a split backup: takes each slice that is handed over, then lets the backup
// go on, and keeps it alive while taking is slow.
//
// The library forgets a continuation that comes before its worker waits, so it is sent again until
// a status shows that the backup has moved. A continuation for a backup that has ended would begin
// a second one, and one that comes late would release a slice that was not taken yet. Neither can
// happen: a continuation excludes the statuses that hand over a slice or end the backup, and until
// the last of them has been received the backup still counts as running.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ui/events.h"
#include "task/kept_files.h"

namespace peltexctl {

class SliceHandOver {
  public:
    // Sends a command on the backup's session and returns the library's answer.
    using Send = std::function<int(const std::string& command)>;

    // `command` is the backup's own. Slices go to the directory `take`; empty: they stay.
    SliceHandOver(Send send, std::string command, std::string take);

    SliceHandOver(const SliceHandOver&) = delete;
    SliceHandOver& operator=(const SliceHandOver&) = delete;

    // Every status of the backup. Called on the library's threads.
    void Heard(const StatusEvent& event);

    // Does what is due, without waiting. Returns what went wrong, empty when nothing did; the
    // backup is then to be aborted.
    std::string Step();

    // The backup is about to be aborted, with which the library removes the slice that it works on,
    // be it handed over or not. Takes what was handed over, waiting for it, and keeps what cannot
    // be taken where it is. Returns what went wrong.
    std::string PrepareAbort();

    // The backup has ended: takes the rest and, where `check_file` names one, the check file.
    // Returns what went wrong.
    std::string Finish(const std::string& check_file);

    // Where a file of the backup is after it was taken.
    std::string TakenPath(const std::string& path) const;

    // How many slices were handed over.
    uint64_t Count() const;

    // Where how many of them are.
    std::string DescribeLeft() const;

  private:
    using Clock = std::chrono::steady_clock;

    struct Slice {
        std::string path;  // empty when there is nothing to take
        bool last;
        uint64_t heard;  // how many statuses had been heard by then
    };

    static Slice Parse(const std::string& message);
    std::string TakeHanded();
    std::optional<Slice> NextSlice();
    bool HasMoved() const;
    void Continue();

    const Send send_;
    const std::string command_;
    const std::string take_;

    // Of the thread that steps.
    std::optional<Slice> current_;     // handed over and not yet continued
    std::future<std::string> taking_;  // valid while current_ is being taken
    bool failed_ = false;              // a slice could not be taken
    Clock::time_point last_sent_{};    // of a continuation or keep-alive

    mutable std::mutex mutex_;
    // Protected by mutex_.
    std::deque<Slice> handed_;         // those that nobody has looked at yet
    std::vector<std::string> slices_;  // all that were handed over
    uint64_t heard_ = 0;
    bool aborting_ = false;
    KeptFiles kept_;

    std::mutex end_mutex_;  // held over a continuation; never waited for with the library's locks
    // Protected by end_mutex_.
    bool ended_ = false;
};

}  // namespace peltexctl
