"""What a task leaves out is told, what it should have brought is looked for, in every kind of task."""

import json
import os
import subprocess
import unittest

from client import PROGRAM, ClientTest, of_event

SRC, BK = "/data/data/src", "/data/data/bk"


class ChecksTest(ClientTest):
    def make_source(self):
        """Entries of every kind that some task leaves out."""
        os.makedirs(self.path("data/src/d/lib"))
        os.mkdir(self.path("data/src/lib"))
        for size, name in enumerate(["a", "line\nfeed", "d/b", "d/c.dex", "lib/c", "d/lib/c"]):
            self.write("data/src/" + name, bytes(1000 * size))
        os.symlink("a", self.path("data/src/link"))
        os.mkfifo(self.path("data/src/d/fifo"))
        os.link(self.path("data/src/d/b"), self.path("data/src/hard"))

    def count(self, name):
        """Entries and bytes below a directory."""
        entries = size = 0
        for where, folders, files in os.walk(self.path("data", name)):
            entries += len(folders) + len(files)
            size += sum(os.lstat(os.path.join(where, file)).st_size for file in files
                        if os.path.isfile(os.path.join(where, file))
                        and not os.path.islink(os.path.join(where, file)))
        return entries, size

    def summary(self, *arguments):
        done = self.run_program("--json", *arguments)
        told = of_event([json.loads(line) for line in done.stdout.splitlines()], "summary")
        self.assertEqual((done.returncode, len(told), done.stderr), (0, 1, b""), done.stdout)
        return told[0]

    def test_figures_and_what_is_left_out(self):
        self.make_source()
        copied = {"dex": 1, "link": 1, "special": 1}
        packed = {"hard_linked": 2, "dex": 1, "special": 1}
        rows = [
            (["backup", "file", SRC + "/d/b", BK], lambda: (1, 2000), {}, None),
            (["backup", "dir", SRC, BK], lambda: self.count("bk/src"), {**copied, "lib": 1}, None),
            (["brief", "dir", SRC, BK + "/brief"], lambda: (9, 14000), copied, None),
            (["backup", "byfile", BK + "/brief", "/data/data/list/src"],
             lambda: self.count("list/src/src"), {"unreadable": 2}, None),
            (["backup", "tar", SRC, BK], lambda: (8, 10000), packed, None),
            (["restore", "tar", BK + "/src.tar", "/data/data/tar"], lambda: self.count("tar"), {}, None),
            (["backup", "split", SRC, BK, "--slice-size", "1"], lambda: self.count("tar"), packed, 1),
            (["restore", "split", BK + "/src.tar.txt", "/data/data/split"],
             lambda: self.count("split"), {}, 1),
            (["restore", "dir", BK, SRC], lambda: self.count("bk/src"), {}, None),
            (["backup", "dir", SRC, BK, "--no-verify"], lambda: (None, None), None, None),
            (["move", "/data/data/tar/d", "/data/data/moved"], lambda: self.count("moved"), {}, None),
        ]
        for arguments, expected, left_out, slices in rows:
            with self.subTest(arguments):
                told = self.summary(*arguments)
                self.assertEqual((told.get("entries"), told.get("bytes")), expected())
                self.assertEqual(told.get("reasons"), left_out)
                self.assertEqual(told.get("left_out"), left_out and sum(left_out.values()) or
                                 (None if left_out is None else 0))
                self.assertEqual((told["task"], told.get("slices")), (101, slices))

    def test_words(self):
        self.make_source()
        done = self.run_program("backup", "tar", SRC, BK)
        self.assertRegex(done.stdout.decode(), r"\Atask 101: started\ntask 101: done\n"
                         r"summary: 8 entries, 9\.8 KiB, [\d.]+ s, \S+ .iB/s\n"
                         r"left out: 4 \(2 hard-linked, 1 \.dex, 1 special file\)\n\Z")
        self.assertEqual(done.stderr, b"")
        done = self.run_program("-q", "backup", "dir", SRC, BK)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))

    def test_search_files(self):
        self.make_source()
        self.write("data/search", f"[include]{SRC}\n[exclude]{SRC}/lib\n".encode())
        told = self.summary("brief", "byfile", "/data/data/search", "/data/data/brief")
        with open(self.path("data/brief"), "rb") as brief:
            self.assertEqual(told["entries"], brief.read().count(b";") // 4)
        self.assertEqual(told["entries"], 7)

    def test_what_a_full_disk_swallows_is_named(self):
        os.mkdir(self.path("data/src"))
        for name in "abcdefgh":
            self.write("data/src/" + name, bytes(700_000))
        for kind in "dir", "tar", "split":
            self.assertEqual(self.run_program("backup", kind, SRC, BK).returncode, 0)
        rows = [["restore", "dir", BK, "/data/data/full/src"],
                ["restore", "tar", BK + "/src.tar", "/data/data/full"],
                ["restore", "split", BK + "/src.tar.txt", "/data/data/full"],
                ["move", SRC, "/data/data/full/new"]]
        os.mkdir(self.path("data/full"))
        before = self.count("bk")
        for arguments in rows:
            for force in [], ["--force"]:
                done = subprocess.run(
                    ["unshare", "--mount", "sh", "-ec",
                     'mount -t tmpfs -o size=2m none "$1/data/full"; shift; exec "$@"', "sh",
                     self.data, PROGRAM, "--data", self.data, "--log", "silent", *arguments, *force],
                    capture_output=True, timeout=60)
                with self.subTest(arguments=arguments, force=force):
                    self.assertEqual(done.returncode, 1, done)
                    lines = done.stderr.decode().splitlines()
                    if force:
                        self.assertEqual(len(lines), 4, lines)
                        self.assertRegex(lines[0], r"peltexctl: /data/data/full/.*: (is a file of \d+ bytes|is "
                                         "missing).*, and should be a file of 700000 bytes")
                        self.assertRegex(lines[3], r"and \d more; make room")
                    else:
                        self.assertRegex(lines[0], r"5\.3 MiB are needed and 2\.0 MiB are free|its records are of")
                    self.assertEqual(self.count("bk"), before)

    def test_set_that_does_not_hold_all_is_told(self):
        """A slice that is full behind a header, and files behind a full last slice, lose entries."""
        os.mkdir(self.path("data/src"))
        name = "n" * 85  # the packed path has 100 bytes
        self.write("data/src/" + name, bytes((1 << 20) - 1))
        split = ["backup", "split", SRC, BK, "--slice-size", "1"]
        done = self.run_program(*split)
        self.assertEqual(done.returncode, 1)
        self.assertIn(f"{name}", done.stderr.decode())
        self.assertEqual(self.run_program(*split, "--no-verify", "--replace").returncode, 0)


if __name__ == "__main__":
    unittest.main()
