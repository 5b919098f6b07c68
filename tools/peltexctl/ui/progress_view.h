// Progress for people, on standard error: a bar that is drawn over on a terminal, a line a second
// elsewhere, each with what it is about. What else is printed meanwhile goes past the bar.
//
// Thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace peltexctl {

class ProgressView {
  public:
    // Shows nothing if it is `quiet`.
    explicit ProgressView(bool quiet);

    // Begins something called `label`, which does `total` bytes; 0 if that is not known.
    void Begin(const std::string& label, uint64_t total = 0);
    void SetDone(uint64_t bytes) { done_ = bytes; }
    // What the bytes do not tell, such as "3 slices".
    void SetNote(const std::string& note);
    // Nothing is shown until the next Begin().
    void End();

    // To be called now and then: shows what is due. Costs next to nothing when nothing is.
    void Tick();

    // Prints something that is no progress.
    void Aside(const std::function<void()>& print);

  private:
    using Clock = std::chrono::steady_clock;

    void EraseBar();
    double Share() const;
    std::string Standing() const;

    const bool quiet_;
    const bool redraws_;
    std::atomic<uint64_t> done_{0};

    std::mutex mutex_;
    // Protected by mutex_.
    std::string label_;  // empty while nothing is shown
    std::string note_;
    uint64_t total_ = 0;
    bool bar_shown_ = false;
    Clock::time_point start_{};
    Clock::time_point next_shown_{};
};

}  // namespace peltexctl
