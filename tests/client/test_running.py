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
# A machine that is busy has hours left.
TIME = rb"(\d+:)?\d+:\d\d"
STANDING = (rb" +\d+ %%, [\d.]+ .?i?B of 8\.0 GiB, "
            rb"(" + TIME + rb"|[\d.]+ .?i?B/s, " + TIME + rb" left)")
BAR = rb"\rexport: \[%s\]" + STANDING + rb"\x1b\[K"
LINE = rb"export:" + STANDING.replace(b"%%", b"%") + rb"\r?\n"


def read_to(end, pattern):
    told = b""
    while not re.search(pattern, told):
        told += os.read(end, 1)
    return told


class RunningTest(ClientTest):
    def setUp(self):
        super().setUp()
        os.mkdir(self.path("src"))

    def write_endless(self, name, size=4 << 30):
        """A slice of one file, which takes longer than any test; all of it is a hole."""
        self.write(name, header(b"big", b"0", size))
        os.truncate(self.path(name), 512 + size)
        with open(self.path(name), "ab") as file:
            file.write(END)

    def write_endless_set(self, **size):
        os.makedirs(self.path("set"), exist_ok=True)
        self.write_endless("set/s.tar.0", **size)
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
        self.write_endless("src/endless")
        self.write_endless("a.tar")
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
        self.write_endless("src/endless")
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
        os.close(end)
        os.close(other_end)

    def test_an_interrupted_export_leaves_nothing(self):
        self.write_endless_set()
        before = self.files("set")
        export = self.start("export", SET, "/data/data/set/out", stderr=subprocess.PIPE)
        while self.files("set") == before and export.poll() is None:
            time.sleep(0.01)
        export.send_signal(signal.SIGINT)
        self.assertIn(b"interrupted: nothing of /data/data/set/out is", export.communicate()[1])
        self.assertEqual((export.returncode, self.files("set")), (130, before))

    def test_a_set_stays_whatever_ends_its_restore(self):
        self.write_endless_set()
        before = self.files("set")
        for number, status, left in (signal.SIGINT, 130, 0), (signal.SIGKILL, -signal.SIGKILL, 1):
            task, _ = self.start_task("restore split @set/s.tar.txt @new")
            task.send_signal(number)
            task.communicate()
            self.assertEqual(task.returncode, status)
            self.assertEqual(len(self.files("set")), len(before) + left)
        # What the killed one has left is told and taken away by the next.
        self.write_endless_set(size=0)
        done = self.run_program("restore", "split", SET, "/data/data/new")
        self.assertEqual((done.returncode, self.files("set")), (0, before), done)
        self.assertRegex(done.stderr, rb"/\.peltexctl-restore-\w+: left by a restore")

    def test_a_signal_leaves_no_unfinished_slice(self):
        self.write("src/large", os.urandom(MIB))
        os.truncate(self.path("src/large"), 600 * MIB)  # more slices than until the signal is seen
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

    def test_the_shell_waits_for_the_tasks_of_open_sessions(self):
        """Two tasks keep the workers busy while others are queued, aborted and dropped."""
        os.mkdir(self.path("bk"))  # of two workers that make one directory at once one fails
        for name in "12":
            os.mkfifo(self.path(name))
        for name in "345":
            self.write(name)
        commands = [f"backup file /data/data/{name} /data/data/bk default 0" for name in "12345"]
        shell = self.start("shell", stderr=subprocess.PIPE)
        shell.stdin.write("\n".join([
            *commands[:2], ".waitfor 101 1", ".waitfor 102 1", commands[2], ".open", *commands[3:],
            "abort 0x6a", ".wait 106", ".finish", ""]).encode())
        shell.stdin.close()
        told = read_until(shell, "closed", session=104)
        self.assertEqual([(entry["task"], entry["code"]) for entry in of_event(told, "waited")[2:]],
                         [(106, 2)])
        self.assertRegex(shell.stderr.readline(),
                         rb"waiting for task 101: started, task 102: .*103: waiting")
        for name in "12":
            os.close(os.open(self.path(name), os.O_WRONLY))
        rest = [json.loads(line) for line in shell.stdout]
        self.assertIn((103, 0), [(each["task"], each["code"]) for each in of_event(rest, "status")])
        self.assertEqual((of_event(rest, "closed"), shell.wait()),
                         ([{"event": "closed", "session": 100, "result": 0}], 0))

    def test_tasks_tell_of_their_progress(self):
        self.write_endless("src/endless")
        self.write_endless_set()
        for words in ("backup", "tar", SRC, BK), ("restore", "split", SET, BK):
            with self.subTest(words):
                end, other_end = pty.openpty()
                task = self.start(*words, stderr=other_end, env={"TERM": "xterm"})
                os.close(other_end)
                read_to(end, rb"\r%s %s: .* +\d+ %%, [1-9][\d.]* .iB of 4\.0 GiB, " % tuple(
                    word.encode() for word in words[:2]))
                task.send_signal(signal.SIGINT)
                self.assertEqual(task.wait(), 130)
                os.close(end)

    def test_progress(self):
        """Of exports that a slow reader holds back until they have told of it."""
        self.write_endless_set(size=8 << 30)

        def read_slowly(stream):
            while stream.read1(1 << 16):
                time.sleep(0.001)

        rows = [
            ({"TERM": "xterm"}, True, BAR % rb"\x1b\[32m#*\x1b\[0m\.*"),
            ({"TERM": "xterm", "NO_COLOR": "1"}, True, BAR % rb"#*\.*"),
            ({"TERM": "dumb"}, True, LINE),
            ({}, True, LINE),
            ({"TERM": "xterm"}, False, LINE),
        ]
        running = []
        for environment, is_terminal, expected in rows:
            end, other_end = pty.openpty() if is_terminal else os.pipe()
            export = self.start("export", SET, "-", stderr=other_end, env=environment)
            os.close(other_end)
            reader = threading.Thread(target=read_slowly, args=[export.stdout])
            reader.start()
            running.append((export, reader, end))
        for (environment, is_terminal, expected), (export, reader, end) in zip(rows, running):
            with self.subTest(environment=environment, is_terminal=is_terminal):
                told = read_to(end, rb" of 8\.0 GiB.*[\nK]\Z")
                self.assertRegex(told, rb"\A" + expected + rb"\Z")
                export.send_signal(signal.SIGINT)
                reader.join()
                self.assertEqual(export.wait(), 130)
            os.close(end)


if __name__ == "__main__":
    unittest.main()
