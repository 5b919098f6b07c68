"""Signals while a task runs: where it stands, and what is left of one that was interrupted."""

import json
import os
import signal
import subprocess
import sys
import unittest

from client import ClientTest, of_event, read_until

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tar"))
from split_model import END, header

GIB = 1 << 30
FILE = header(b"f", b"0", 1) + b"x".ljust(512, b"\0")


class SignalsTest(ClientTest):
    def write_endless(self, name):
        """An archive of one file, which takes longer than any test; all of it is a hole."""
        self.write(name, header(b"big", b"0", 4 * GIB))
        os.truncate(self.path(name), 512 + 4 * GIB)
        with open(self.path(name), "ab") as file:
            file.write(END)

    def write_set(self, *slices):
        for number, kind in enumerate(slices):
            name = f"data/s.tar.{number}"
            if kind == "endless":
                self.write_endless(name)
            else:
                self.write(name, FILE + END if kind == "file" else b"x" * 1000)
        sizes = [os.path.getsize(self.path(f"data/s.tar.{i}")) for i in range(len(slices))]
        self.write("data/s.tar.txt", "".join(
            f"s.tar.{i}|{size}\n" for i, size in enumerate(sizes)).encode())

    def restore(self):
        return ["restore", "split", "/data/data/s.tar.txt", "/data/data/new"]

    def slices(self):
        return sorted(set(os.listdir(self.path("data"))) - {"new", "s.tar.txt"})

    def interrupt(self, arguments, code=1, second_at=None):
        """Interrupts a task at its first status `code`; returns what it said last."""
        task = self.start("--log", "silent", "--json", *arguments)
        read_until(task, "status", code=code)
        task.send_signal(signal.SIGINT)
        if second_at is not None:
            read_until(task, "status", code=second_at)
            task.send_signal(signal.SIGTERM)
        rest = [json.loads(line) for line in task.stdout]
        self.assertEqual(task.wait(60), 130)
        return of_event(rest, "error")[-1]["message"]

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
                task = self.start("--log", "silent", "--json", command, kind,
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

    def test_restore_of_slices_that_does_not_end_well_loses_none(self):
        self.write_set("file", "bad", "file")
        before = self.slices()
        self.assertEqual(self.run_program(*self.restore()).returncode, 1)
        self.assertEqual(self.slices(), before)
        self.write_set("file", "endless", "file")
        self.assertIn("the slices are as before", self.interrupt(self.restore(), code=3))
        self.assertEqual(self.slices(), before)
        # Where they cannot be kept an abort would remove the last one.
        self.write("data/s.tar.2.kept")
        self.assertIn("not unpacked are as before", self.interrupt(self.restore(), code=3))
        self.assertEqual(self.slices(), ["s.tar.1", "s.tar.2", "s.tar.2.kept"])

    def test_slices_of_a_killed_restore_are_found(self):
        self.write_set("file", "file", "file")
        os.rename(self.path("data/s.tar.0"), self.path("data/s.tar.0.kept"))
        os.link(self.path("data/s.tar.1"), self.path("data/s.tar.1.kept"))
        done = self.run_program(*self.restore())
        self.assertEqual((done.returncode, self.slices()), (0, []), done.stderr)

    def test_interrupted_export_leaves_nothing(self):
        self.write_set("file", "endless")
        before = self.slices()
        export = self.start("export", "/data/data/s.tar.txt", "/data/data/out",
                            stderr=subprocess.PIPE)
        while self.slices() == before:
            pass
        export.send_signal(signal.SIGINT)
        self.assertIn(b"interrupted: nothing of /data/data/out is left", export.communicate()[1])
        self.assertEqual((export.returncode, self.slices()), (130, before))

    def test_usr1_tells_where_tasks_stand(self):
        os.mkfifo(self.path("data/fifo"))
        paths = ["/data/data/fifo", "/data/data/bk"]
        for arguments, line, expected in [
                (["backup", "file", *paths], b"", rb"task 101: 0 B, 0 B/s, 0:\d\d\n"),
                (["--json", "backup", "file", *paths], b"", rb"task 101: 0 B, 0 B/s, 0:\d\d\n"),
                (["shell"], f"backup file {' '.join(paths)} default 0\n".encode(),
                 rb"task 101: started\n")]:
            with self.subTest(arguments):
                task = self.start(*arguments, stderr=subprocess.PIPE)
                task.stdin.write(line)
                task.stdin.flush()
                while b"start" not in task.stdout.readline():
                    pass
                task.send_signal(signal.SIGUSR1)
                told = task.stderr.readline()
                # What is printed comes first.
                while told == b"no task is running\n" or b"waiting" in told:
                    task.send_signal(signal.SIGUSR1)
                    told = task.stderr.readline()
                self.assertRegex(told, expected)
                self.open_fifo("data/fifo")
                task.communicate(timeout=60)
                self.assertEqual(task.returncode, 0)


if __name__ == "__main__":
    unittest.main()
