// Tested by tests/unit/platform/platform_test.cpp.

#include <android/log.h>
#include <errno.h>
#include <stdarg.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

#include "host/log_tap.h"

namespace {

class ErrnoKeeper {
  public:
    ErrnoKeeper() = default;
    ~ErrnoKeeper() { errno = mSaved; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

    int saved() const { return mSaved; }

  private:
    const int mSaved = errno;
};

std::atomic<int32_t> gMinimumPriority{ANDROID_LOG_DEFAULT};
std::atomic<__android_logger_function> gLogger{__android_log_stderr_logger};

// One line may need several writes on a pipe that is nearly full.
std::mutex gStandardErrorLock;

bool passesMinimum(int prio) {
    const int32_t minimum = gMinimumPriority.load(std::memory_order_relaxed);
    return prio >= (minimum == ANDROID_LOG_DEFAULT ? ANDROID_LOG_INFO : minimum);
}

char priorityLetter(int prio) {
    constexpr char kLetters[] = "??VDIWEF";
    return prio >= 0 && prio <= ANDROID_LOG_FATAL ? kLetters[prio] : '?';
}

// `tapped`: the tap was there when the line came. Returns as __android_log_print() does.
int deliver(bool tapped, int prio, const char* tag, const std::string& text) {
    if (tapped && android::host::tellLogTap(prio, tag, text)) {
        return 1;
    }
    if (!passesMinimum(prio)) {
        return -EPERM;
    }
    __android_log_message message = {};
    message.struct_size = sizeof(message);
    message.priority = prio;
    message.tag = tag != nullptr ? tag : program_invocation_short_name;
    message.message = text.c_str();
    gLogger.load(std::memory_order_acquire)(&message);
    return 1;
}

}  // namespace

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    const bool tapped = android::host::logIsTapped();
    if (!tapped && !passesMinimum(prio)) {
        return -EPERM;
    }
    const ErrnoKeeper errnoKeeper;
    char shortText[512];
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(shortText, sizeof(shortText), fmt, args);
    va_end(args);
    if (length < 0) {
        return deliver(tapped, prio, tag, fmt);  // It still says where it comes from.
    }
    if (static_cast<size_t>(length) < sizeof(shortText)) {
        return deliver(tapped, prio, tag, shortText);
    }

    std::string longText(static_cast<size_t>(length), 0);
    va_start(args, fmt);
    errno = errnoKeeper.saved();
    vsnprintf(longText.data(), longText.size() + 1, fmt, args);
    va_end(args);
    return deliver(tapped, prio, tag, longText);
}

void __android_log_stderr_logger(const __android_log_message* message) {
    std::string line;
    line += priorityLetter(message->priority);
    line += '/';
    line += message->tag;
    line += '(' + std::to_string(getpid()) + "): ";
    line += message->message;
    if (line.back() != '\n') {
        line += '\n';
    }

    const std::lock_guard<std::mutex> lock(gStandardErrorLock);
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t written = write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return;  // There is nowhere left to tell it.
        }
        done += static_cast<size_t>(written);
    }
}

void __android_log_set_logger(__android_logger_function logger) {
    gLogger.store(logger, std::memory_order_release);
}

int32_t __android_log_set_minimum_priority(int32_t priority) {
    return gMinimumPriority.exchange(priority, std::memory_order_relaxed);
}

int32_t __android_log_get_minimum_priority() {
    return gMinimumPriority.load(std::memory_order_relaxed);
}
