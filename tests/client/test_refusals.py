"""What a task is refused for: one line, exit 1, and nothing is changed; --force goes on."""

import os
import subprocess
import unittest

from client import PROGRAM, ClientTest
from test_round_trip import describe

SRC, BK = "/data/data/src", "/data/data/bk"


class RefusalsTest(ClientTest):
    def setUp(self):
        super().setUp()
        os.makedirs(self.path("data/src/d"))
        self.write("data/src/a", b"a" * 100_000)
        self.write("data/src/d/b.dex")

    def refuse(self, pattern, *arguments, status=1, wrapper=()):
        before = describe(self.data)
        done = subprocess.run([*wrapper, PROGRAM, "--data", self.data, *arguments],
                              capture_output=True, timeout=60)
        self.assertEqual((done.returncode, done.stdout), (status, b""), done)
        self.assertRegex(done.stderr.decode(), rf"\Apeltexctl: .*{pattern}.*\n\Z")
        self.assertEqual(describe(self.data), before)

    def test_refusals(self):
        os.mkfifo(self.path("data/fifo"))
        os.symlink("src", self.path("data/alias"))
        self.write("data/empty.tar.txt", b"")
        for kind in "dir", "tar", "split":
            self.assertEqual(self.run_program("backup", kind, SRC, BK).returncode, 0)
        os.makedirs(self.path("data/other"))
        rows = [
            ("are the same", ["move", SRC, "/data/data/alias"]),
            ("is inside", ["move", SRC, SRC + "/d/new"]),
            ("is inside", ["move", SRC + "/d", SRC]),
            ("are the same", ["backup", "dir", SRC, "/data/data"]),
            ("is inside", ["backup", "dir", "/data/data/alias", SRC + "/d"]),
            ("are the same", ["backup", "file", SRC + "/a", SRC]),
            (r"would delete what it leaves out: d/b\.dex;", ["move", SRC, "/data/data/new"]),
            ("is no regular file", ["backup", "file", "/data/data/fifo", BK]),
            ("none: does not exist", ["brief", "dir", "/data/data/none", "/data/data/b"]),
            ("lists no slice", ["restore", "split", "/data/data/empty.tar.txt", "/data/data/new"]),
            ("records of the copy are not there", ["restore", "dir", "/data/data", "/data/data/x/src"]),
            ("its records are of /data/data/src/", ["restore", "dir", BK, "/data/data/x/src"]),
            ("src.tar: is there already; --replace", ["backup", "tar", SRC, BK]),
            ("src.tar.txt: is there already; --replace", ["backup", "split", SRC, BK]),
            ("src.tar.txt: is there already; --replace",
             ["backup", "split", SRC, "/data/data/other", "--take", BK]),
            ("is a check file: restore split takes it",
             ["restore", "tar", BK + "/src.tar.txt", "/data/data/new"]),
            ("is a slice: restore split takes", ["restore", "split", BK + "/src.tar.0", "/data/data/new"]),
            ("is an archive: restore split", ["restore", "split", BK + "/src.tar", "/data/data/new"]),
            ("no regular file", ["restore", "tar", "/data/data/fifo", "/data/data/new"]),
        ]
        for pattern, arguments in rows:
            with self.subTest(arguments):
                self.refuse(pattern, *arguments)
        forced = self.run_program("move", "--force", SRC, "/data/data/new")
        self.assertEqual((forced.returncode, os.path.exists(self.path("data/src"))), (0, False))

    def test_options_of_other_kinds(self):
        os.mkdir(self.path("data/bk"))
        os.symlink("bk", self.path("data/alias"))
        rows = [(["backup", "tar", SRC, BK, "--take", "/data/data/t"], "--take is an option of backup split"),
                (["backup", "dir", SRC, BK, "--slice-size", "5"], "--slice-size is"),
                (["backup", "dir", SRC, BK, "--sums"], "backup split and tar only"),
                (["restore", "tar", SRC, BK, "--consume"], "--consume is an option of restore split"),
                (["backup", "split", SRC, BK, "--take", BK], "is DEST itself"),
                (["backup", "split", SRC, BK, "--take", self.path("data/bk")], "is DEST itself"),
                (["backup", "split", SRC, BK, "--take", "/data/data/alias"], "is DEST itself")]
        for arguments, pattern in rows:
            with self.subTest(arguments):
                self.refuse(pattern, *arguments, status=2)

    def test_room(self):
        self.write("data/src/big", bytes(3 << 20))
        os.mkdir(self.path("data/full"))
        full = ["unshare", "--mount", "sh", "-ec",
                'mount -t tmpfs -o size=2m none "$1/data/full"; shift; exec "$@"', "sh", self.data]
        rows = [["backup", "tar", SRC, "/data/data/full"],
                ["backup", "split", SRC, BK, "--take", "/data/data/full"],
                ["backup", "split", SRC, "/data/data/full", "--take", BK, "--slice-size", "3"]]
        for arguments in rows:
            with self.subTest(arguments):
                self.refuse("full: 3.* MiB are needed and 2.0 MiB are free", *arguments, wrapper=full)
        # A slice of room is enough for slices that are taken elsewhere.
        done = subprocess.run([*full, PROGRAM, "--data", self.data, *rows[2][:-1], "1"],
                              capture_output=True, timeout=60)
        self.assertEqual(done.returncode, 0, done)

    def test_replace(self):
        """A new set of fewer slices leaves none of the old one, a failed one no check file."""
        self.write("data/src/big", bytes(5 << 20))
        for directory, options in ("bk", []), ("taken", ["--take", "/data/data/taken"]):
            split = ["backup", "split", SRC, BK, *options, "--slice-size"]
            self.assertEqual(self.run_program(*split, "1", "--sums", "--replace").returncode, 0)
            done = self.run_program(*split, "4", "--replace")
            self.assertEqual((done.returncode, sorted(os.listdir(self.path("data", directory)))),
                             (0, ["src.tar.0", "src.tar.1", "src.tar.txt"]))


if __name__ == "__main__":
    unittest.main()
