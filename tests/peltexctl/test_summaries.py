"""The figures at the end of a task, against what is found on disk."""

import json
import os
import unittest

from client import ClientTest, of_event

SRC, BK = "/data/data/src", "/data/data/bk"


class SummariesTest(ClientTest):
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

    def test_figures(self):
        self.make_source()
        rows = [
            (["backup", "file", SRC + "/d/b", BK], lambda: (1, 2000), None),
            (["backup", "dir", SRC, BK], lambda: self.count("bk/src"), None),
            (["restore", "dir", BK, "/data/data/new/src"], lambda: self.count("new/src"), None),
            (["backup", "tar", SRC, BK], lambda: (8, 1000 + 4000 + 5000), None),
            (["restore", "tar", BK + "/src.tar", "/data/data/tar"], lambda: self.count("tar"), None),
            (["backup", "split", SRC, BK, "--slice-size", "1"], lambda: self.count("tar"), 1),
            (["restore", "split", BK + "/src.tar.txt", "/data/data/split"],
             lambda: self.count("split"), 1),
            (["move", "/data/data/new/src", "/data/data/moved"], lambda: self.count("moved"), None),
            (["backup", "tar", SRC, BK, "--no-verify"], lambda: (None, None), None),
        ]
        for arguments, expected, slices in rows:
            with self.subTest(arguments):
                done = self.run_program("--json", "--log", "silent", *arguments)
                told = of_event([json.loads(line) for line in done.stdout.splitlines()], "summary")
                self.assertEqual((done.returncode, len(told)), (0, 1), done.stdout)
                self.assertEqual((told[0].get("entries"), told[0].get("bytes")), expected())
                self.assertEqual((told[0]["task"], told[0].get("slices")), (101, slices))
                self.assertGreaterEqual(told[0]["seconds"], 0)

    def test_lists(self):
        self.make_source()
        self.write("data/search", b"[include]" + SRC.encode() + b"\n")
        for kind, source, target in [("dir", SRC, "b1"), ("byfile", "/data/data/search", "b2")]:
            done = self.run_program("--log", "silent", "brief", kind, source, "/data/data/" + target)
            with open(self.path("data", target), "rb") as brief:
                records = brief.read().count(b";") // 4
            # The library counts the bytes of what it does not list, too, and follows links.
            self.assertRegex(done.stdout.decode(),
                             rf"(?m)^task 101: (\S+ KiB) listed$[^$]*^summary: {records} entries, \1, \S+ s$")
        done = self.run_program("--log", "silent", "backup", "byfile", "/data/data/b1",
                                "/data/data/copies/src")
        entries, size = self.count("copies/src/src")
        self.assertRegex(done.stdout.decode(),
                         rf"summary: {entries} entries, {size / 1024:.1f} KiB, ")


if __name__ == "__main__":
    unittest.main()
