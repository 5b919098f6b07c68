// Tested by tests/peltexctl/test_terminal.py.
#include "ui/progress_view.h"

#include <android/log.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "ui/terminal.h"
#include "ui/text.h"

namespace peltexctl {

namespace {

constexpr std::chrono::milliseconds kBarInterval{100};
constexpr std::chrono::seconds kLineInterval{1};
constexpr size_t kMaxBar = 40;
constexpr size_t kMinBar = 10;

std::mutex g_log_mutex;
ProgressView* g_log_view = nullptr;  // protected by g_log_mutex

// Logged as an error for each further part of a cut file, which is none.
bool IsNoError(const __android_log_message& message) {
    return __android_log_get_minimum_priority() == ANDROID_LOG_ERROR &&
           std::string_view(message.message) == "CreateFile:appending this file\n";
}

void LogPastBar(const __android_log_message* message) {
    if (IsNoError(*message)) {
        return;
    }
    const std::lock_guard lock(g_log_mutex);
    if (g_log_view == nullptr) {
        __android_log_stderr_logger(message);
    } else {
        g_log_view->Aside([message] { __android_log_stderr_logger(message); });
    }
}

void SetLogView(ProgressView* view) {
    const std::lock_guard lock(g_log_mutex);
    g_log_view = view;
}

}  // namespace

ProgressView::ProgressView(Scale scale, std::function<std::string()> slices)
    : scale_(scale), slices_(std::move(slices)), redraws_(CanRedraw(stderr)) {
    SetLogView(this);
    __android_log_set_logger(LogPastBar);
}

ProgressView::~ProgressView() {
    SetLogView(nullptr);
    EraseBar();
}

void ProgressView::Heard(const StatusEvent& event) {
    const std::lock_guard lock(mutex_);
    if (event.code == kStatusProgress) {
        done_ = std::strtoull(event.message.c_str(), nullptr, 10);
    }
    task_ = event.task;
    running_ = event.code == kStatusStarted || (running_ && !EndsTask(event));
}

void ProgressView::Aside(const std::function<void()>& print) {
    const std::lock_guard lock(mutex_);
    EraseBar();
    print();
}

void ProgressView::Tick() {
    const std::lock_guard lock(mutex_);
    const Clock::time_point now = Clock::now();
    if (!running_ || now - std::max(last_shown_, start_) <
                         (redraws_ ? Clock::duration(kBarInterval) : kLineInterval)) {
        return;
    }
    last_shown_ = now;
    if (redraws_) {
        DrawBar();
    } else {
        PrintLine();
    }
}

void ProgressView::Report() {
    const std::lock_guard lock(mutex_);
    EraseBar();
    PrintLine();
}

void ProgressView::PrintLine() const {
    if (running_) {
        fmt::print(stderr, "task {}: {}\n", task_, Standing());
    } else {
        fmt::print(stderr, "no task is running\n");
    }
}

void ProgressView::DrawBar() {
    std::string line = Standing();
    const size_t columns = Columns(stderr) - 1;
    if (scale_.total > 0 && columns > line.size() + kMinBar + 3) {
        const size_t width = std::min(columns - line.size() - 3, kMaxBar);
        const auto filled = static_cast<size_t>(Share() * static_cast<double>(width));
        line = fmt::format("[{}{}] {}", Paint(stderr, Colour::kGreen, std::string(filled, '#')),
                           std::string(width - filled, '.'), line);
    } else {
        line.resize(std::min(line.size(), columns));
    }
    fmt::print(stderr, "\r{}\x1b[K", line);
    bar_shown_ = true;
}

void ProgressView::EraseBar() {
    if (std::exchange(bar_shown_, false)) {
        fmt::print(stderr, "\r\x1b[K");
    }
}

double ProgressView::Share() const {
    return static_cast<double>(std::min(done_, scale_.total)) / static_cast<double>(scale_.total);
}

std::string ProgressView::Standing() const {
    const std::chrono::duration<double> elapsed = Clock::now() - start_;
    std::string text;
    if (scale_.total > 0) {
        text = fmt::format("{:2} %, {} of {}, ", static_cast<int>(100 * Share()), HumanSize(done_),
                           HumanSize(scale_.total));
    } else if (scale_.counts_bytes) {
        text = HumanSize(done_) + ", ";
    }
    if (scale_.counts_bytes) {
        text += HumanRate(done_, elapsed.count()) + ", ";
    }
    text += HumanTime(elapsed.count());
    const std::string slices = slices_();
    return slices.empty() ? text : text + ", " + slices;
}

}  // namespace peltexctl
