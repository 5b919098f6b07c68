// Runs a command and tells what it took.
//
//   bench_measure STDOUT COMMAND [ARGUMENT...]
//
// The command's standard output goes to the file STDOUT. Prints "WALL CPU PEAK STATUS": elapsed
// nanoseconds from before the fork until it was waited for, processor microseconds in user and
// system mode with those of its own children, the largest resident memory of one of its processes
// in KiB, and its exit status. Linked statically: what a process was before its exec counts as its
// peak, so it has to be little.

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace {

// The workers run at this nice value: who is compared with them does too.
constexpr int kNice = 10;

long long nanoseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

long long microseconds(const timeval& time) {
    return time.tv_sec * 1000000LL + time.tv_usec;
}

[[noreturn]] void become(const char* output, char** command) {
    const int fd = open(output, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0 || setpriority(PRIO_PROCESS, 0, kNice) != 0) {
        perror(output);
        _exit(126);
    }
    close(fd);
    execvp(command[0], command);
    perror(command[0]);
    _exit(127);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: bench_measure STDOUT COMMAND [ARGUMENT...]\n");
        return 2;
    }
    const long long start = nanoseconds();
    const pid_t child = fork();
    if (child == 0) {
        become(argv[1], argv + 2);
    }
    int status = 0;
    rusage used = {};
    if (child < 0 || wait4(child, &status, 0, &used) != child) {
        perror("bench_measure");
        return 2;
    }
    const long long wall = nanoseconds() - start;
    printf("%lld %lld %ld %d\n", wall, microseconds(used.ru_utime) + microseconds(used.ru_stime),
           used.ru_maxrss, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return 0;
}
