// One task's progress for people, on standard error: a bar that is drawn over on a terminal, a line
// a second elsewhere. What else is printed meanwhile, the library's log included, goes past the
// bar.
//
// Thread-safe: statuses and log lines arrive on the library's threads, ticks on the program's own.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "ui/events.h"

namespace peltexctl {

class ProgressView {
  public:
    struct Scale {
        bool counts_bytes;  // whether the library's figure is bytes of content
        uint64_t total;     // the bytes to be expected, 0 if unknown
    };

    // `slices` tells in words how many slices are done, nothing where there are none. It is called
    // on any thread that calls this object.
    ProgressView(Scale scale, std::function<std::string()> slices);
    ~ProgressView();

    ProgressView(const ProgressView&) = delete;
    ProgressView& operator=(const ProgressView&) = delete;

    void Heard(const StatusEvent& event);

    // Prints something that is no progress.
    void Aside(const std::function<void()>& print);

    // To be called now and then while the task runs: keeps the bar's clock going.
    void Tick();

    // A line that says where the task stands.
    void Report();

  private:
    using Clock = std::chrono::steady_clock;

    void DrawBar();
    void EraseBar();
    void PrintLine() const;
    std::string Standing() const;
    // Of the expected bytes, 0 to 1. Files may have grown since those were counted.
    double Share() const;

    const Scale scale_;
    const std::function<std::string()> slices_;
    const bool redraws_;
    const Clock::time_point start_ = Clock::now();

    std::mutex mutex_;
    // Protected by mutex_.
    uint64_t done_ = 0;
    int task_ = 0;
    bool running_ = false;
    bool bar_shown_ = false;
    Clock::time_point last_shown_{};
};

}  // namespace peltexctl
