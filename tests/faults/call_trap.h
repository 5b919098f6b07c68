// The seam of the fault tests: every system call on a file and every fallible allocation of the
// threads under test passes through here and can be refused, cut short, or have something happen
// just before it. The product is linked as it is; a seccomp filter hands its system calls to a
// signal handler, so a stream's buffered writes fail as they would on a full disk.
//
// Trapped are the threads that the installing thread starts, not that one itself and not those that
// were there before. One of them at a time may run while a plan is set.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

namespace peltex_test {

// Calls by what they do; the names of the functions are those of operationName().
enum class Op {
    kAccess,
    kStat,
    kLstat,
    kFstat,
    kOpenPath,  // which only resolves it
    kOpenDir,
    kOpen,    // for reading
    kCreate,  // for writing
    kRead,
    kShortRead,
    kWrite,
    kShortWrite,
    kSeek,
    kTruncate,
    kSync,
    kClose,
    kReadDir,
    kReadLink,
    kShortReadLink,
    kMkdir,
    kSymlink,
    kRemove,
    kRename,
    kChmod,
    kChown,
    kUtimes,
    kAllocate,
    kRelabel,
    kCount,
};

const char* operationName(Op op);
int errorOf(Op op);  // what a refused call fails with

struct Call {
    Op op;
    std::string path;  // a descriptor's by what it was opened as; the size of an allocation
    bool existed;      // the entry, when the call came
    long result;       // of the system call: negative errno values on failure
};

// What happens at a call: `fault`, which is the call's own operation or the short one of it, or
// else `before` runs and the call goes as it came.
struct Plan {
    size_t at = SIZE_MAX;  // the call's index in the trace
    Op fault = Op::kCount;
    std::function<void()> before = nullptr;
};

// Traps calls on `root`, what is below it and the directories above it. REQUIRES: called once.
void installCallTrap(const std::string& root);

// Begins a trace with the plan, on the thread that installed the trap or in a fork of it.
void setPlan(Plan plan);
std::vector<Call> endPlan();

}  // namespace peltex_test
