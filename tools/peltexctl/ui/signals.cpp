// Tested by tests/client/test_running.py.
#include "ui/signals.h"

#include <pthread.h>

#include <csignal>
#include <mutex>
#include <thread>
#include <utility>

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
