// One task's progress for people: a bar that is drawn over on a terminal, plain lines elsewhere.
//
// Thread-safe: statuses arrive on the library's threads, ticks on the program's own.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "events.h"

namespace peltexctl {

class ProgressView {
  public:
    // With `terminal` the bar is as wide as the terminal on standard output allows.
    // `total` is the number of bytes to be expected, 0 if unknown.
    ProgressView(bool terminal, uint64_t total);

    ProgressView(const ProgressView&) = delete;
    ProgressView& operator=(const ProgressView&) = delete;

    void OnStatus(const StatusEvent& event);

    // A line between the statuses.
    void Note(const std::string& text);

    // To be called now and then while the task runs: keeps the bar's clock going.
    void Tick();

  private:
    using Clock = std::chrono::steady_clock;

    void OnProgress(const StatusEvent& event);
    void DrawBar();
    void PrintLine(const std::string& line);
    std::string Figures() const;
    // Of a known total, 0 to 1.
    double Share() const;

    const bool terminal_;
    const uint64_t total_;
    const Clock::time_point start_ = Clock::now();

    std::mutex mutex_;
    // Protected by mutex_.
    uint64_t done_ = 0;
    bool running_ = false;
    bool bar_shown_ = false;
    Clock::time_point last_drawn_{};
};

}  // namespace peltexctl
