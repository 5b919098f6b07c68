// Tested by tests/client/test_running.py.
#include "ui/progress_view.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr std::chrono::milliseconds kBarInterval{100};
constexpr std::chrono::seconds kLineInterval{1};
constexpr size_t kMaxBar = 40;
constexpr size_t kMinBar = 10;

// The width of the terminal; 80 where it tells none.
size_t Columns() {
    winsize size = {};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// "0:07", "1:02:03".
std::string HumanTime(double seconds) {
    const auto whole = static_cast<int64_t>(seconds);
    return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                        : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

}  // namespace

ProgressView::ProgressView(bool quiet) : quiet_(quiet), redraws_(CanRedraw(stderr)) {}

void ProgressView::Begin(const std::string& label, uint64_t total) {
    const std::lock_guard lock(mutex_);
    done_ = 0;
    label_ = quiet_ ? "" : label;
    note_.clear();
    total_ = total;
    start_ = Clock::now();
    // A bar is there at once; a line tells of what has gone on for a while.
    next_shown_ = start_ + (redraws_ ? Clock::duration::zero() : kLineInterval);
}

void ProgressView::SetNote(const std::string& note) {
    const std::lock_guard lock(mutex_);
    note_ = note;
}

void ProgressView::End() {
    const std::lock_guard lock(mutex_);
    label_.clear();
    EraseBar();
}

void ProgressView::Aside(const std::function<void()>& print) {
    const std::lock_guard lock(mutex_);
    EraseBar();
    print();
}

void ProgressView::Tick() {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock || label_.empty() || Clock::now() < next_shown_) {
        return;
    }
    next_shown_ = Clock::now() + (redraws_ ? Clock::duration(kBarInterval) : kLineInterval);
    const std::string standing = Standing();
    if (!redraws_) {
        return Print(stderr, fmt::format("{}: {}\n", label_, standing));
    }
    const size_t columns = Columns() - 1;
    const size_t taken = label_.size() + 2 + standing.size();
    std::string bar;
    if (total_ > 0 && columns > taken + kMinBar + 3) {
        const size_t width = std::min(columns - taken - 3, kMaxBar);
        const auto filled = static_cast<size_t>(Share() * static_cast<double>(width));
        bar = fmt::format("[{}{}] ", Paint(stderr, Colour::kGreen, std::string(filled, '#')),
                          std::string(width - filled, '.'));
    }
    const std::string line = fmt::format("{}: {}{}", label_, bar, standing);
    Print(stderr, fmt::format("\r{}\x1b[K", bar.empty() ? line.substr(0, columns) : line));
    bar_shown_ = true;
}

void ProgressView::EraseBar() {
    if (std::exchange(bar_shown_, false)) {
        Print(stderr, "\r\x1b[K");
    }
}

// Of the expected bytes, 0 to 1. Files may have grown since those were counted.
double ProgressView::Share() const {
    return static_cast<double>(std::min(done_.load(), total_)) / static_cast<double>(total_);
}

std::string ProgressView::Standing() const {
    const std::chrono::duration<double> elapsed = Clock::now() - start_;
    const uint64_t done = done_;
    std::vector<std::string> words;
    if (total_ > 0) {
        words = {fmt::format("{:2} %", static_cast<int>(100 * Share())),
                 fmt::format("{} of {}", HumanSize(done), HumanSize(total_))};
    } else if (done > 0) {
        words = {HumanSize(done)};
    }
    if (done > 0) {
        words.push_back(HumanSize(BytesPerSecond(done, elapsed.count())) + "/s");
    }
    words.push_back(total_ > 0 && done > 0
                        ? HumanTime(elapsed.count() * (1 / Share() - 1)) + " left"
                        : HumanTime(elapsed.count()));
    if (!note_.empty()) {
        words.push_back(note_);
    }
    return fmt::format("{}", fmt::join(words, ", "));
}

}  // namespace peltexctl
