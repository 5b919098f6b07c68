// Tested by tests/client/test_running.py.
#include "ui/signals.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <mutex>
#include <thread>
#include <utility>

namespace peltexctl {

namespace {

sigset_t g_held;  // constant after HoldSignals()
std::thread* g_thread = nullptr;
std::mutex g_mutex;
// Protected by g_mutex. Never destroyed: the program may end while the thread runs.
SignalScope::Handler& g_handler = *new SignalScope::Handler;
int g_times = 0;

// Ends the thread. Nobody else sends it.
int StopSignal() {
    return SIGRTMIN;
}

void Loop() {
    pthread_setname_np(pthread_self(), "signals");
    int number = 0;
    while (sigwait(&g_held, &number) == 0 && number != StopSignal()) {
        const std::lock_guard lock(g_mutex);
        if (g_handler) {
            g_handler(++g_times);
        }
    }
}

}  // namespace

SignalScope::SignalScope(Handler handler) {
    const std::lock_guard lock(g_mutex);
    before_ = std::exchange(g_handler, std::move(handler));
    times_before_ = std::exchange(g_times, 0);
}

SignalScope::~SignalScope() {
    const std::lock_guard lock(g_mutex);
    g_handler = std::move(before_);
    g_times = times_before_;
}

void HoldSignals() {
    sigemptyset(&g_held);
    sigaddset(&g_held, StopSignal());
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
    g_thread = new std::thread(Loop);
}

void LeaveSignals() {
    if (g_thread != nullptr) {
        pthread_kill(g_thread->native_handle(), StopSignal());
        g_thread->join();
    }
}

}  // namespace peltexctl
