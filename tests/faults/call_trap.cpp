#include "tests/faults/call_trap.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/relabel_observer.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <new>
#include <utility>

namespace peltex_test {
namespace {

constexpr int kHere = -1;  // instead of a descriptor: a path alone
constexpr int kNone = -1;  // instead of a path: a descriptor alone

struct SystemCall {
    long number;
    Op op;
    int descriptor;  // the argument's index
    int path;
};

constexpr SystemCall kSystemCalls[] = {
    {SYS_access, Op::kAccess, kHere, 0},     {SYS_faccessat, Op::kAccess, 0, 1},
    {SYS_faccessat2, Op::kAccess, 0, 1},     {SYS_stat, Op::kStat, kHere, 0},
    {SYS_lstat, Op::kLstat, kHere, 0},       {SYS_fstat, Op::kFstat, 0, kNone},
    {SYS_newfstatat, Op::kStat, 0, 1},       {SYS_statx, Op::kStat, 0, 1},
    {SYS_open, Op::kOpen, kHere, 0},         {SYS_openat, Op::kOpen, 0, 1},
    {SYS_read, Op::kRead, 0, kNone},         {SYS_write, Op::kWrite, 0, kNone},
    {SYS_pread64, Op::kRead, 0, kNone},      {SYS_pwrite64, Op::kWrite, 0, kNone},
    {SYS_lseek, Op::kSeek, 0, kNone},        {SYS_ftruncate, Op::kTruncate, 0, kNone},
    {SYS_fsync, Op::kSync, 0, kNone},        {SYS_fdatasync, Op::kSync, 0, kNone},
    {SYS_close, Op::kClose, 0, kNone},       {SYS_getdents64, Op::kReadDir, 0, kNone},
    {SYS_readlink, Op::kReadLink, kHere, 0}, {SYS_readlinkat, Op::kReadLink, 0, 1},
    {SYS_mkdir, Op::kMkdir, kHere, 0},       {SYS_mkdirat, Op::kMkdir, 0, 1},
    {SYS_symlink, Op::kSymlink, kHere, 1},   {SYS_symlinkat, Op::kSymlink, 1, 2},
    {SYS_unlink, Op::kRemove, kHere, 0},     {SYS_rmdir, Op::kRemove, kHere, 0},
    {SYS_unlinkat, Op::kRemove, 0, 1},       {SYS_rename, Op::kRename, kHere, 0},
    {SYS_renameat, Op::kRename, 0, 1},       {SYS_renameat2, Op::kRename, 0, 1},
    {SYS_chmod, Op::kChmod, kHere, 0},       {SYS_fchmod, Op::kChmod, 0, kNone},
    {SYS_fchmodat, Op::kChmod, 0, 1},        {SYS_chown, Op::kChown, kHere, 0},
    {SYS_lchown, Op::kChown, kHere, 0},      {SYS_fchown, Op::kChown, 0, kNone},
    {SYS_fchownat, Op::kChown, 0, 1},        {SYS_utimensat, Op::kUtimes, 0, 1},
};

struct Operation {
    const char* name;
    int error;
};

constexpr Operation kOperations[] = {
    {"access, faccessat", EACCES},
    {"stat, fstatat", EIO},
    {"lstat, fstatat", EIO},
    {"fstat", EIO},
    {"open with O_PATH", EMFILE},
    {"opendir, open of a directory", EMFILE},
    {"open, openat, fopen: to read", EMFILE},
    {"open, openat, fopen: to write", ENOSPC},
    {"read, fread, fgets", EIO},
    {"read, fread, fgets: short", 0},
    {"write, fwrite, fflush", ENOSPC},
    {"write, fwrite, fflush: short", 0},
    {"lseek, fseek, ftell", EIO},
    {"ftruncate", EIO},
    {"fsync", EIO},
    {"close, fclose, closedir", EIO},
    {"readdir", EIO},
    {"readlink, realpath", EIO},
    {"readlink: short", 0},
    {"mkdir, mkdirat", ENOSPC},
    {"symlink", ENOSPC},
    {"unlink, rmdir, unlinkat, remove", EIO},
    {"rename", EIO},
    {"chmod, fchmod, fchmodat", EPERM},
    {"chown, lchown, fchown, fchownat", EPERM},
    {"utimensat", EPERM},
    {"malloc, posix_memalign, new (std::nothrow)", ENOMEM},
    {"selinux_android_restorecon_pkgdir", EACCES},
};
static_assert(std::size(kOperations) == static_cast<size_t>(Op::kCount), "a name for each");

// The filter lets a call with this sixth argument pass; no call on a file has one of its own.
constexpr long kOwnCall = 0x66617573;

std::string gRoot;
pid_t gExempt = 0;
Plan gPlan;
bool gIsTracing = false;
thread_local bool gIsBusy = false;  // with what a plan does before a call
std::vector<Call> gTrace;

long call(long number, const long (&args)[5]) {
    const long result = syscall(number, args[0], args[1], args[2], args[3], args[4], kOwnCall);
    return result < 0 ? -errno : result;
}

std::string descriptorPath(long descriptor) {
    char link[32] = "/proc/self/fd/";
    *std::to_chars(link + strlen(link), link + sizeof(link) - 1, descriptor).ptr = '\0';
    char path[4096];
    const long length = call(
        SYS_readlink, {reinterpret_cast<long>(link), reinterpret_cast<long>(path), sizeof(path)});
    std::string text(path, static_cast<size_t>(std::max(length, 0l)));
    constexpr char kDeleted[] = " (deleted)";
    const size_t end = text.rfind(kDeleted);
    return end == std::string::npos ? text : text.substr(0, end);
}

std::string pathOf(const SystemCall& systemCall, const long (&args)[5]) {
    const char* path =
        systemCall.path == kNone ? "" : reinterpret_cast<const char*>(args[systemCall.path]);
    if (systemCall.descriptor == kHere || path[0] == '/') {
        return path;
    }
    const std::string base = descriptorPath(args[systemCall.descriptor]);
    return path[0] == '\0' ? base : base + "/" + path;
}

bool isTrapped(const std::string& path) {
    const auto isBelow = [](const std::string& entry, const std::string& directory) {
        return entry.compare(0, directory.size(), directory) == 0 &&
               (entry.size() == directory.size() || entry[directory.size()] == '/');
    };
    return isBelow(path, gRoot) || (!path.empty() && isBelow(gRoot, path));
}

Op operationOf(const SystemCall& systemCall, const long (&args)[5]) {
    if (systemCall.number == SYS_newfstatat) {
        return (args[3] & AT_EMPTY_PATH) != 0         ? Op::kFstat
               : (args[3] & AT_SYMLINK_NOFOLLOW) != 0 ? Op::kLstat
                                                      : Op::kStat;
    }
    if (systemCall.op == Op::kOpen) {
        const long flags = args[systemCall.path + 1];
        return (flags & O_PATH) != 0             ? Op::kOpenPath
               : (flags & O_DIRECTORY) != 0      ? Op::kOpenDir
               : (flags & O_ACCMODE) != O_RDONLY ? Op::kCreate
                                                 : Op::kOpen;
    }
    return systemCall.op;
}

// Adds the call to the trace. Returns whether it is the one of the plan.
bool trace(Op op, const std::string& path, bool existed) {
    gTrace.push_back({op, path, existed, 0});
    return gTrace.size() - 1 == gPlan.at;
}

// Returns whether the plan is no fault, after it was carried out.
bool runBefore() {
    if (gPlan.before == nullptr) {
        return false;
    }
    gIsBusy = true;
    gPlan.before();
    gIsBusy = false;
    return true;
}

// What becomes of a call that the plan is for.
long disturbed(const SystemCall& systemCall, long (&args)[5]) {
    switch (gPlan.fault) {
        case Op::kShortRead:
        case Op::kShortWrite:
            args[2] = args[2] > 1 ? args[2] / 2 : args[2];
            return call(systemCall.number, args);
        case Op::kShortReadLink: {
            const long length = call(systemCall.number, args);
            return length > 1 ? length / 2 : length;
        }
        case Op::kClose:
            call(systemCall.number, args);  // closed all the same, as Linux does
            break;
        default:
            break;
    }
    return -errorOf(gPlan.fault);
}

long trapped(const SystemCall& systemCall, long (&args)[5]) {
    if (!gIsTracing || gIsBusy || gettid() == gExempt) {
        return call(systemCall.number, args);
    }
    const std::string path = pathOf(systemCall, args);
    // What the stand-in for the relabelling looks at is no call of the product's.
    const bool isOfRelabel = !gTrace.empty() && gTrace.back().op == Op::kRelabel;
    if (!isTrapped(path) || (isOfRelabel && gTrace.back().path == path)) {
        return call(systemCall.number, args);
    }
    const Op op = operationOf(systemCall, args);
    const bool exists = call(SYS_faccessat2, {AT_FDCWD, reinterpret_cast<long>(path.c_str()), F_OK,
                                              AT_SYMLINK_NOFOLLOW}) == 0;
    const bool isPlanned = trace(op, path, exists);
    const size_t at = gTrace.size() - 1;
    const long result =
        isPlanned && !runBefore() ? disturbed(systemCall, args) : call(systemCall.number, args);
    gTrace[at].result = result;
    return result;
}

// Synchronous: it interrupts nothing but the call itself, so it may do what any function may.
void onTrap(int, siginfo_t* info, void* context) {
    const int saved = errno;
    greg_t* registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    long args[] = {registers[REG_RDI], registers[REG_RSI], registers[REG_RDX], registers[REG_R10],
                   registers[REG_R8]};
    for (const SystemCall& systemCall : kSystemCalls) {
        if (systemCall.number == info->si_syscall) {
            registers[REG_RAX] = trapped(systemCall, args);
            break;
        }
    }
    errno = saved;
}

void installFilter() {
    std::vector<sock_filter> filter = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[5])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kOwnCall, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    for (const SystemCall& systemCall : kSystemCalls) {
        filter.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(systemCall.number), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program), 0) << strerror(errno);
}

// For calls that are functions of their own. Returns whether this one is to fail.
bool isRefused(Op op, const std::string& path) {
    if (!gIsTracing || gIsBusy || gettid() == gExempt) {
        return false;
    }
    const bool isPlanned = trace(op, path, true);
    return isPlanned && !runBefore();
}

bool isAllocationRefused(size_t size) {
    return isRefused(Op::kAllocate, std::to_string(size));
}

}  // namespace

const char* operationName(Op op) {
    return kOperations[static_cast<size_t>(op)].name;
}

int errorOf(Op op) {
    return kOperations[static_cast<size_t>(op)].error;
}

void installCallTrap(const std::string& root) {
    gRoot = root;
    // The handler allocates. Arenas beside the main one open a file, with their lock held, when
    // they shrink: the handler of that call would wait for the lock for ever.
    mallopt(M_ARENA_MAX, 1);
    struct sigaction action = {};
    action.sa_sigaction = onTrap;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    ASSERT_EQ(sigaction(SIGSYS, &action, nullptr), 0);
    installFilter();
    android::host::setRelabelObserver([](const char* path, const char*, uid_t, unsigned int) {
        return isRefused(Op::kRelabel, path) ? errorOf(Op::kRelabel) : 0;
    });
}

void setPlan(Plan plan) {
    gExempt = gettid();
    gPlan = std::move(plan);
    gTrace.clear();
    gIsTracing = true;
}

std::vector<Call> endPlan() {
    gIsTracing = false;
    return std::exchange(gTrace, {});
}

}  // namespace peltex_test

// The names are the linker's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void* __real_malloc(size_t size);
int __real_posix_memalign(void** memory, size_t alignment, size_t size);
void* __real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);

__attribute__((used)) void* __wrap_malloc(size_t size) {
    return peltex_test::isAllocationRefused(size) ? nullptr : __real_malloc(size);
}

__attribute__((used)) int __wrap_posix_memalign(void** memory, size_t alignment, size_t size) {
    return peltex_test::isAllocationRefused(size) ? ENOMEM
                                                  : __real_posix_memalign(memory, alignment, size);
}

__attribute__((used)) void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
    return peltex_test::isAllocationRefused(size) ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
