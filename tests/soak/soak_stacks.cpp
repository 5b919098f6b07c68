#include "tests/soak/soak_stacks.h"

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace fs = std::filesystem;

namespace peltex_soak {

namespace {

constexpr int kMaxCalls = 40;

void* gCalls[kMaxCalls];
std::atomic<int> gCount{-1};

void keepCalls(int /*signal*/) {
    const int error = errno;
    if (gCount < 0) {
        gCount = backtrace(gCalls, kMaxCalls);
    }
    errno = error;
}

// This program's own calls, by name.
void printCalls(int count) {
    Dl_info own = {};
    dladdr(reinterpret_cast<void*>(&printStacks), &own);
    std::string command = "addr2line -Cfpe " + fs::read_symlink("/proc/self/exe").string();
    for (int i = 0; i < count; ++i) {
        Dl_info info = {};
        if (dladdr(gCalls[i], &info) != 0 && info.dli_fbase == own.dli_fbase) {
            const auto offset =
                static_cast<char*>(gCalls[i]) - static_cast<char*>(own.dli_fbase) - 1;
            char text[32];
            snprintf(text, sizeof(text), " %tx", offset);
            command += text;
        }
    }
    fflush(stdout);
    // Nothing else runs any more that could mind.
    if (system(command.c_str()) != 0) {
        fprintf(stderr, "soak: this failed: %s\n", command.c_str());
    }
}

}  // namespace

void printStacks() {
    struct sigaction action = {};
    action.sa_handler = keepCalls;
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR2, &action, nullptr);
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
        const int tid = std::stoi(entry.path().filename());
        std::string name;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        printf("thread %d %s\n", tid, name.c_str());
        gCount = -1;
        syscall(SYS_tgkill, getpid(), tid, SIGUSR2);
        for (int i = 0; i < 100 && gCount < 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (gCount >= 0) {
            printCalls(gCount);
        }
    }
}

}  // namespace peltex_soak
