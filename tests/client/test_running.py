"""Tasks that are interrupted, watched or obstructed while they run, and what is left of them."""

import fcntl
import json
import os
import pty
import re
import shutil
import signal
import subprocess
import termios
import threading
import time
import unittest

from client import ClientTest, of_event, read_until
from tar_model import END, MIB, header

SRC, BK, SET = "/data/data/src", "/data/data/bk", "/data/data/set/s.tar.txt"
EXPORT = ["export", SET, "-"]
# A machine that is busy has hours left.
TIME = rb"(\d+:)?\d+:\d\d"
STANDING = (rb" +\d+ %%, [\d.]+ .?i?B of 8\.0 GiB, "
            rb"(" + TIME + rb"|[\d.]+ .?i?B/s, " + TIME + rb" left)")
BAR = rb"\A\rexport: \[%s\]" + STANDING + rb"\x1b\[K\Z"
LINE = rb"\Aexport:" + STANDING.replace(b"%%", b"%") + rb"\r?\n\Z"
FIRST = rb" of 8\.0 GiB.*[\nK]\Z"
TASK = rb"\r%s: .* +\d+ %%, [1-9][\d.]* .iB of 8\.0 GiB, "


def read_to(end, pattern):
    told = b""
    while not re.search(pattern, told):
        told += os.read(end, 1)
    return told


class RunningTest(ClientTest):
    def setUp(self):
        super().setUp()
        os.mkdir(self.path("src"))
        os.mkdir(self.path("set"))
        for name in "src/endless", "a.tar":
            self.write_archive(name)
        self.write_set()

    def write_archive(self, name, size=8 << 30):
        """One file, which takes longer than any test; all of it is a hole."""
        self.write(name, header(b"big", b"0", size))
        os.truncate(self.path(name), 512 + size)
        with open(self.path(name), "ab") as file:
            file.write(END)

    def write_set(self, **size):
        self.write_archive("set/s.tar.0", **size)
        self.write("set/s.tar.txt", b"s.tar.0|%d\n" % os.path.getsize(self.path("set/s.tar.0")))

    def files(self, name=""):
        return sorted(os.listdir(self.path(name)))

    def start_task(self, command, code=1):
        """Starts a task, with what /data/data/ is to stand in front of, and waits for a status."""
        command = [word.replace("@", "/data/data/") for word in command.split()]
        task = self.start("--log", "silent", "--json", *command, "--force", stderr=subprocess.PIPE)
        return task, read_until(task, "status", code=code)

    def end(self, task, status=130):
        """The statuses that it still tells, and its last error."""
        rest = [json.loads(line) for line in task.stdout]
        errors = [error["message"] for error in of_event(rest, "error")]
        self.assertEqual(task.wait(), status)
        return of_event(rest, "status"), (errors or task.stderr.read().decode().splitlines())[-1]

    def test_signals_abort_and_tell_what_is_left(self):
        os.mkfifo(self.path("fifo"))
        rows = [
            ("backup tar @src @bk", signal.SIGTERM, 1, "nothing is left of /data/data/bk/src.tar"),
            ("restore tar @a.tar @new", signal.SIGHUP, 1, "what was unpacked is in /data/data/new"),
            # What reads a FIFO ends when there is a writer, or with the second signal.
            ("backup file @fifo @bk", signal.SIGINT, 1, "/data/data/bk had been completed by then"),
            ("backup file @fifo @bk", signal.SIGINT, 2, "/data/data/bk is not complete"),
            ("restore file @fifo @bk/x", signal.SIGINT, 2, "/data/data/bk/x is not complete"),
            ("brief byfile @fifo @list", signal.SIGINT, 1, "/data/data/list had been completed"),
            ("backup byfile @fifo @copy/src", signal.SIGTERM, 1, "/copy/src had been completed"),
        ]
        for command, number, times, left in rows:
            with self.subTest(command=command, times=times):
                task, _ = self.start_task(command)
                task.send_signal(number)
                read_until(task, "result", command="abort 101", result=0)
                if times == 2:
                    task.send_signal(number)
                elif "fifo" in command:
                    with open(self.path("fifo"), "wb") as fifo:
                        fifo.write(b"[include]/data/data/src\n" * ("brief" in command))
                self.assertRegex(self.end(task)[1], "interrupted: .*" + left)

    def test_a_second_signal_waits_for_nobody(self):
        """The output is a full pipe that nobody reads."""
        end, other_end = os.pipe()
        fcntl.fcntl(other_end, fcntl.F_SETPIPE_SZ, 4096)
        task = self.start("--json", "backup", "tar", SRC, BK, stdout=other_end, stderr=other_end)
        while int.from_bytes(fcntl.ioctl(end, termios.FIONREAD, bytes(4)), "little") < 3900:
            time.sleep(0.01)
        task.send_signal(signal.SIGINT)
        with self.assertRaises(subprocess.TimeoutExpired):
            task.wait(0.3)
        task.send_signal(signal.SIGINT)
        self.assertEqual(task.wait(), 130)

    def test_an_interrupted_export_leaves_nothing(self):
        before = self.files("set")
        export = self.start("export", SET, "/data/data/set/out", stderr=subprocess.PIPE)
        while self.files("set") == before and export.poll() is None:
            time.sleep(0.01)
        export.send_signal(signal.SIGINT)
        self.assertIn(b"interrupted: nothing of /data/data/set/out is", export.communicate()[1])
        self.assertEqual((export.returncode, self.files("set")), (130, before))

    def test_a_set_stays_whatever_ends_its_restore(self):
        before = self.files("set")
        for number, status, left in (signal.SIGINT, 130, 0), (signal.SIGKILL, -signal.SIGKILL, 1):
            task, _ = self.start_task("restore split @set/s.tar.txt @new")
            task.send_signal(number)
            task.communicate()
            self.assertEqual(task.returncode, status)
            self.assertEqual(len(self.files("set")), len(before) + left)
        # What the killed one has left is told and taken away by the next.
        self.write_set(size=0)
        done = self.run_program("restore", "split", SET, "/data/data/new")
        self.assertEqual((done.returncode, self.files("set")), (0, before), done)
        self.assertRegex(done.stderr, rb"/\.peltexctl-restore-\w+: left by a restore")

    def test_a_signal_leaves_no_unfinished_slice(self):
        self.write("src/endless", os.urandom(MIB))
        os.truncate(self.path("src/endless"), 600 * MIB)  # of slices that a signal outruns
        for directory, options in ("bk", ""), ("taken", " --take @taken"):
            with self.subTest(directory):
                task, told = self.start_task(f"backup split @src @bk --slice-size 1{options}", 4)
                told += read_until(task, "status", code=4)
                task.send_signal(signal.SIGINT)
                rest, error = self.end(task)
                # The worker's end may overtake the word that the abort was taken, a slice both.
                self.assertEqual(sorted(each["code"] for each in rest if each["code"] < 3), [-1, 2])
                handed = {os.path.basename(each["message"])
                          for each in of_event(told, "status") + rest if each["code"] == 4}
                # Also the last one, which an abort while the task pauses deletes.
                self.assertEqual({*self.files(directory)}, handed)
                self.assertIn(f"interrupted: {len(handed)} slices in /data/data/{directory} are "
                              "left, of a set that is not complete", error)
                self.assertLessEqual({*self.files("bk")}, handed)
                shutil.rmtree(self.path(directory))

    def test_progress(self):
        """Of tasks, and of exports that a slow reader holds back until they have told of it."""

        def read_slowly(stream):
            while stream.read1(1 << 16):
                time.sleep(0.001)

        rows = [
            (["backup", "tar", SRC, BK], {"TERM": "xterm"}, True, TASK % b"backup tar"),
            (["restore", "split", SET, BK], {"TERM": "xterm"}, True, TASK % b"restore split"),
            (EXPORT, {"TERM": "xterm"}, True, BAR % rb"\x1b\[32m#*\x1b\[0m\.*"),
            (EXPORT, {"TERM": "xterm", "NO_COLOR": "1"}, True, BAR % rb"#*\.*"),
            (EXPORT, {"TERM": "dumb"}, True, LINE),
            (EXPORT, {}, True, LINE),
            (EXPORT, {"TERM": "xterm"}, False, LINE),
        ]
        running = []
        for words, environment, is_terminal, expected in rows:
            end, other_end = pty.openpty() if is_terminal else os.pipe()
            task = self.start(*words, stderr=other_end, env=environment)
            os.close(other_end)
            reader = threading.Thread(target=read_slowly, args=[task.stdout])
            reader.start()
            running.append((task, reader, end))
        for (words, environment, is_terminal, expected), (task, reader, end) in zip(rows, running):
            with self.subTest(words, environment=environment, is_terminal=is_terminal):
                told = read_to(end, FIRST if words is EXPORT else expected)
                self.assertRegex(told, expected)
                task.send_signal(signal.SIGINT)
                reader.join()
                self.assertEqual(task.wait(), 130)


if __name__ == "__main__":
    unittest.main()
