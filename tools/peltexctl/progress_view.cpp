#include "progress_view.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "text.h"

namespace peltexctl {

namespace {

constexpr std::chrono::milliseconds kBarInterval{100};
constexpr std::chrono::seconds kLineInterval{1};

size_t TerminalColumns() {
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

ProgressView::ProgressView(bool terminal, uint64_t total) : terminal_(terminal), total_(total) {}

void ProgressView::OnStatus(const StatusEvent& event) {
    const std::lock_guard lock(mutex_);
    if (event.code == kStatusProgress) {
        OnProgress(event);
        return;
    }
    if (event.code == kStatusStarted) {
        running_ = true;
    }
    std::string line = fmt::format("task {}: {}", event.task, EscapeBytes(DescribeStatus(event)));
    if (event.code == kStatusSuccess || event.code == kStatusFailed) {
        running_ = false;
        const std::chrono::duration<double> elapsed = Clock::now() - start_;
        line += fmt::format(" after {:.1f} s", elapsed.count());
    }
    PrintLine(line);
}

void ProgressView::Note(const std::string& text) {
    const std::lock_guard lock(mutex_);
    PrintLine(EscapeBytes(text));
}

void ProgressView::Tick() {
    const std::lock_guard lock(mutex_);
    if (terminal_ && running_ && Clock::now() - last_drawn_ >= kBarInterval) {
        DrawBar();
    }
}

void ProgressView::OnProgress(const StatusEvent& event) {
    done_ = std::strtoull(event.message.c_str(), nullptr, 10);
    const Clock::time_point now = Clock::now();
    if (terminal_) {
        if (now - last_drawn_ >= kBarInterval) {
            DrawBar();
        }
        return;
    }
    if (now - last_drawn_ >= kLineInterval) {
        last_drawn_ = now;
        PrintLine(fmt::format("task {}: {}", event.task, Figures()));
    }
}

void ProgressView::DrawBar() {
    last_drawn_ = Clock::now();
    const std::string figures = Figures();
    const size_t columns = TerminalColumns();
    std::string bar;
    if (total_ > 0 && columns > figures.size() + 13) {
        const size_t width = std::min<size_t>(columns - figures.size() - 3, 40);
        const auto filled = static_cast<size_t>(Share() * static_cast<double>(width));
        bar = fmt::format("[{}{}] ", std::string(filled, '#'), std::string(width - filled, '.'));
    }
    fmt::print("\r{}{}\x1b[K", bar, figures);
    std::fflush(stdout);
    bar_shown_ = true;
}

void ProgressView::PrintLine(const std::string& line) {
    if (bar_shown_) {
        DrawBar();
        bar_shown_ = false;
        fmt::print("\n");
    }
    fmt::print("{}\n", line);
    std::fflush(stdout);
}

// Files may have grown since the total was taken.
double ProgressView::Share() const {
    return static_cast<double>(std::min(done_, total_)) / static_cast<double>(total_);
}

std::string ProgressView::Figures() const {
    const std::chrono::duration<double> elapsed = Clock::now() - start_;
    const auto seconds = static_cast<int64_t>(elapsed.count());
    std::string text = HumanSize(done_);
    if (total_ > 0) {
        text += fmt::format(" of {} ({} %)", HumanSize(total_), static_cast<int>(100 * Share()));
    }
    const double rate = static_cast<double>(done_) / std::max(elapsed.count(), 0.001);
    return text + fmt::format(", {}/s, {}:{:02}", HumanSize(static_cast<uint64_t>(rate)),
                              seconds / 60, seconds % 60);
}

}  // namespace peltexctl
