"""A `peltexctl shell` whose tasks stop at each of their calls until we say how it goes on.

The kernel asks us (seccomp's user notification): the library is the one that ships, a stream's late
write fails as it does on a full disk, and nothing of ours runs inside the program.
"""

import collections
import contextlib
import ctypes
import errno
import fcntl
import json
import os
import pathlib
import select
import socket
import struct
import subprocess
import tempfile

import seccomp

# What a call does: the error it fails with, and its names with the index of the path; None: the
# first argument is a descriptor. In front of an index above 0 stands a directory's.
OPERATIONS = {
    "access": (errno.EACCES, {"access": 0, "faccessat": 1, "faccessat2": 1}),
    "stat": (errno.EIO, {"stat": 0, "lstat": 0, "newfstatat": 1, "fstat": None}),
    "open": (errno.EMFILE, {"open": 0, "openat": 1}),
    "create": (errno.ENOSPC, {}),  # an open that is to write
    "readdir": (errno.EIO, {"getdents64": None}),
    "read": (errno.EIO, {"read": None, "pread64": None}),
    "write": (errno.ENOSPC, {"write": None, "pwrite64": None}),
    "seek": (errno.EIO, {"lseek": None}),
    "sync": (errno.EIO, {"fsync": None}),
    "readlink": (errno.EIO, {"readlinkat": 1}),
    "mkdir": (errno.ENOSPC, {"mkdir": 0, "mkdirat": 1}),
    "symlink": (errno.ENOSPC, {"symlinkat": 2, "symlink": 1}),
    "remove": (errno.EIO, {"unlink": 0, "rmdir": 0, "unlinkat": 1}),
    "chmod": (errno.EPERM, {"chmod": 0, "fchmod": None, "fchmodat": 1}),
    "chown": (errno.EPERM, {"chown": 0, "lchown": 0, "fchown": None, "fchownat": 1}),
}
NUMBERS = {seccomp.resolve_syscall(seccomp.Arch(), name): (name, operation, path)
           for operation, (_, names) in OPERATIONS.items() for name, path in names.items()}
RECEIVE, SEND, CONTINUE, PIDFD_GETFD = 0xC0502100, 0xC0182101, 1, 438  # of the kernel's headers

Call = collections.namedtuple("Call", "operation path name arguments")
Run = collections.namedtuple("Run", "status calls slices size")


class Client:
    """Knows the files below `root`, by their relative paths, and lets calls on others go on."""

    def __init__(self, root):
        self.root, self.text, self.calls, self.ends, self.unanswered = root, b"", None, {}, 0
        self.log = tempfile.TemporaryFile()
        ours, theirs = socket.socketpair()

        def stop_at_calls():
            calls = seccomp.SyscallFilter(seccomp.ALLOW)
            for number in NUMBERS:
                calls.add_rule(seccomp.NOTIFY, number)
            calls.add_rule(seccomp.NOTIFY, "futex", seccomp.Arg(3, seccomp.NE, 0))  # a timed wait
            calls.load()
            socket.send_fds(theirs, [b" "], [calls.get_notify_fd()])

        self.process = subprocess.Popen(
            [os.environ["PELTEXCTL"], "shell"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=self.log, bufsize=0, preexec_fn=stop_at_calls,
            env={"ASAN_OPTIONS": "exitcode=9", "MALLOC_MMAP_THRESHOLD_": "100000"})
        self.stops = socket.recv_fds(ours, 1, 1)[1][0]
        self.memory = os.open(f"/proc/{self.process.pid}/mem", os.O_RDWR)
        self.last = self.next_event()["session"]

    def run(self, command, at=None, act=None):
        """Runs a task to its end, continued at its pauses. Returns its final status, its calls, the
        slices that were handed over and the size of its brief. `act(call)` gives the result of the
        call `at`; None: it goes on as it came."""
        slices, task, size = {}, None, None
        self.calls, self.command, self.at, self.act = [], command, at, act
        self.send(command)
        while task not in self.ends or self.unanswered:
            event = self.next_event()
            if event["event"] == "result":
                self.unanswered -= 1
                if event["result"] > self.last:
                    task = self.last = event["result"]
                elif task is None:
                    self.send(command)  # the same one before is just leaving
            elif event["code"] == 4 and event["message"] != "end":
                path = event["message"].removesuffix("|end")
                slices[path] = pathlib.Path(path).read_bytes()
            elif event["code"] == 6:
                size = event["message"]
            elif event["code"] in (0, -1):
                self.ends.setdefault(event["task"], []).append(event["code"])
        calls, self.calls = self.calls, None
        return Run(self.ends[task][0], calls, slices, size)

    def close(self):
        """Ends the program. Returns the tasks that had not just one end, or what it has died of."""
        self.process.stdin.close()
        with contextlib.suppress(EOFError):
            while self.next_event():
                pass
        if self.process.wait() not in (0, 1):
            self.log.seek(0)
            return [self.process.returncode, self.log.read()[-9999:].decode(errors="replace")]
        return [task for task, ends in self.ends.items() if len(ends) != 1]

    def descriptors(self):
        directory = f"/proc/{self.process.pid}/fd/"
        return sorted(os.readlink(directory + name) for name in os.listdir(directory))

    def come_short(self, call):
        """The result of a read or write of half of what was asked for."""
        descriptor, buffer, size, offset = call.arguments[:4]
        process = os.pidfd_open(self.process.pid)
        with os.fdopen(ctypes.CDLL(None).syscall(PIDFD_GETFD, process, descriptor, 0)) as file:
            os.close(process)
            same, half = file.fileno(), (size + 1) // 2
            if call.name == "write":
                return os.write(same, os.pread(self.memory, half, buffer))
            data = os.pread(same, half, offset) if call.name == "pread64" else os.read(same, half)
            return os.pwrite(self.memory, data, buffer)

    def send(self, command):
        self.unanswered += 1
        self.process.stdin.write(command.encode() + b"\n")

    def next_event(self):
        wait = select.poll()
        wait.register(self.stops, select.POLLIN)
        wait.register(self.process.stdout, select.POLLIN)
        while b"\n" not in self.text:
            ready = dict(wait.poll(60000))  # ms, for what takes one
            if ready.get(self.stops) == select.POLLIN:
                self.let_one_go_on()
            elif data := ready and os.read(self.process.stdout.fileno(), 65536):
                self.text += data
            elif self.stops in ready:
                raise EOFError("the program has ended")
            elif not ready:
                raise TimeoutError(f"{self.command} hangs after {self.calls}")
        line, self.text = self.text.split(b"\n", 1)
        return json.loads(line)

    def let_one_go_on(self):
        stop = bytearray(80)
        fcntl.ioctl(self.stops, RECEIVE, stop)
        number, thread, _, name, _, _, *arguments = struct.unpack("QIIiIQ6Q", stop)
        is_task = thread != self.process.pid and self.calls is not None
        result = self.stopped(name, arguments) if is_task else None
        answer = (0, 0, CONTINUE) if result is None else (max(result, 0), min(result, 0), 0)
        with contextlib.suppress(FileNotFoundError):  # killed meanwhile
            fcntl.ioctl(self.stops, SEND, struct.pack("QqiI", number, *answer))

    def stopped(self, number, arguments):
        if number not in NUMBERS:
            self.send(self.command)  # it pauses: whoever wakes it from now on finds it waiting
            return None
        name, operation, path = NUMBERS[number]
        place, directory = "", arguments[path - 1 if path else 0]
        if path is not None:
            place = os.pread(self.memory, 4096, arguments[path]).partition(b"\0")[0].decode()
        if not place.startswith("/") and directory < 1 << 31:
            base = os.readlink(f"/proc/{self.process.pid}/fd/{directory}")
            place = base + "/" * bool(place) + place
        if not (place + "/").startswith(self.root + "/"):
            return None
        if operation == "open" and arguments[path + 1] & os.O_ACCMODE:
            operation = "create"
        self.calls.append(Call(operation, place[len(self.root) + 1:], name, arguments))
        return self.act(self.calls[-1]) if len(self.calls) - 1 == self.at else None
