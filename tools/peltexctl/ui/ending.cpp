// Tested by tests/client/test_running.py.
#include "ui/ending.h"

#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <mutex>
#include <thread>
#include <utility>

#include "ui/text.h"

namespace peltexctl {

namespace {

sigset_t g_held;  // constant after HoldSignals()
std::mutex g_mutex;
SignalScope::Handler g_handler;  // protected by g_mutex

void Loop() {
    pthread_setname_np(pthread_self(), "signals");
    for (int number = 0; sigwait(&g_held, &number) == 0;) {
        const std::lock_guard lock(g_mutex);
        if (g_handler) {
            g_handler();
        }
    }
}

}  // namespace

void EndInterrupted(const std::string& message) {
    const std::string line = fmt::format("peltexctl: {}\n", EscapeBytes(message));
    pollfd ready = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT) != 0) {
        [[maybe_unused]] const ssize_t told = write(STDERR_FILENO, line.data(), line.size());
    }
    // Past those who would flush streams, which may wait for a reader.
    syscall(SYS_exit_group, kInterrupted);
    __builtin_unreachable();
}

SignalScope::SignalScope(Handler handler) : before_(std::move(handler)) {
    const std::lock_guard lock(g_mutex);
    std::swap(before_, g_handler);
}

SignalScope::~SignalScope() {
    const std::lock_guard lock(g_mutex);
    std::swap(before_, g_handler);
}

void HoldSignals() {
    sigemptyset(&g_held);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        // Jobs in the background of a script are started so that Ctrl-C leaves them alone.
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&g_held, number);
        }
    }
    pthread_sigmask(SIG_BLOCK, &g_held, nullptr);
}

void TakeSignals() {
    std::thread(Loop).detach();
}

}  // namespace peltexctl
