"""Signals while a task runs: what is left of one that was interrupted."""

import fcntl
import json
import os
import pathlib
import signal
import subprocess
import unittest

from client import ClientTest, of_event, read_until
from split_model import END, header

GIB = 1 << 30


class SignalsTest(ClientTest):
    def write_endless(self, name):
        """An archive of one file, which takes longer than any test; all of it is a hole."""
        self.write(name, header(b"big", b"0", 4 * GIB))
        os.truncate(self.path(name), 512 + 4 * GIB)
        with open(self.path(name), "ab") as file:
            file.write(END)

    def interrupt(self, arguments, code=1, second_at=None):
        """Interrupts a task at its first status `code`; returns what it said last."""
        task = self.start("--log", "silent", "--json", *arguments, "--force", stderr=subprocess.PIPE)
        read_until(task, "status", code=code)
        task.send_signal(signal.SIGINT)
        if second_at is not None:
            read_until(task, "status", code=second_at)
            task.send_signal(signal.SIGTERM)
        rest, error = task.communicate(timeout=60)
        self.assertEqual(task.returncode, 130)
        told = of_event([json.loads(line) for line in rest.splitlines()], "error")
        return told[-1]["message"] if told else error.decode().removeprefix("peltexctl: ")

    def test_what_is_left(self):
        os.mkdir(self.path("data/src"))
        os.mkfifo(self.path("data/fifo"))
        self.write_endless("data/a.tar")
        self.write_endless("data/src/endless")
        rows = [
            (["backup", "tar", "src", "bk"], {}, "nothing is left of .*/bk/src.tar"),
            (["backup", "split", "src", "bk"], {"code": 4}, r"\d+ slices? in .*/bk (is|are) left, of a set that"),
            (["restore", "tar", "a.tar", "new"], {}, "what was unpacked is in .*/new"),
            (["backup", "file", "fifo", "bk"], {"second_at": 2}, ".*/bk is not complete"),
            (["restore", "file", "fifo", "bk/x"], {"second_at": 2}, ".*/bk/x is not complete"),
        ]
        for (command, kind, *paths), options, left in rows:
            with self.subTest(command=command, kind=kind):
                arguments = [command, kind, *["/data/data/" + path for path in paths]]
                if kind == "split":
                    arguments += ["--slice-size", "1"]
                self.assertRegex(self.interrupt(arguments, **options), r"\Ainterrupted: " + left)

    def test_copies_are_brought_to_their_end(self):
        """Their source is a brief that comes from a pipe, so that they begin but cannot end."""
        os.mkdir(self.path("data/src"))
        self.write("data/src/file")
        rows = [
            (["brief", "byfile", "fifo", "list"], b"[include]/data/data/src\n", "/list had been"),
            (["backup", "byfile", "fifo", "bk/src"], b"", "/bk/src had been completed"),
        ]
        for (command, kind, *paths), content, left in rows:
            with self.subTest(command):
                os.mkfifo(self.path("data/fifo"))
                task = self.start("--log", "silent", "--json", command, kind, "--force",
                                  *["/data/data/" + path for path in paths])
                read_until(task, "status", code=1)
                task.send_signal(signal.SIGINT)
                read_until(task, "result", command="abort 101")
                with open(self.path("data/fifo"), "wb") as fifo:
                    fifo.write(content)
                rest = [json.loads(line) for line in task.stdout]
                self.assertEqual(task.wait(60), 130)
                self.assertIn(left, of_event(rest, "error")[-1]["message"])
                os.remove(self.path("data/fifo"))
        self.assertTrue(os.path.getsize(self.path("data/list")))

    def test_a_second_signal_waits_for_nobody(self):
        """The output is a full pipe that nobody reads."""
        os.mkdir(self.path("data/src"))
        self.write_endless("data/src/endless")
        end, other_end = os.pipe()
        fcntl.fcntl(other_end, fcntl.F_SETPIPE_SZ, 4096)
        task = self.start("--json", "backup", "tar", "/data/data/src", "/data/data/bk", "--no-verify",
                          stdout=other_end, stderr=other_end)
        threads = pathlib.Path(f"/proc/{task.pid}/task")
        while not any("pipe_write" in (thread / "wchan").read_text() for thread in threads.iterdir()):
            pass
        task.send_signal(signal.SIGINT)
        with self.assertRaises(subprocess.TimeoutExpired):
            task.wait(0.3)
        task.send_signal(signal.SIGINT)
        self.assertEqual(task.wait(20), 130)
        os.close(end)
        os.close(other_end)

    def test_interrupted_export_leaves_nothing(self):
        self.write_endless("data/s.tar.0")
        self.write("data/s.tar.txt", b"s.tar.0|%d\n" % os.path.getsize(self.path("data/s.tar.0")))
        before = sorted(os.listdir(self.path("data")))
        export = self.start("export", "/data/data/s.tar.txt", "/data/data/out",
                            stderr=subprocess.PIPE)
        while sorted(os.listdir(self.path("data"))) == before:
            pass
        export.send_signal(signal.SIGINT)
        self.assertIn(b"interrupted: nothing of /data/data/out is left", export.communicate()[1])
        self.assertEqual((export.returncode, sorted(os.listdir(self.path("data")))), (130, before))


if __name__ == "__main__":
    unittest.main()
