"""Sets of slices come back, and stay whatever happens; archives with faults are told of."""

import os
import signal
import unittest

from client import ClientTest, read_until
from test_round_trip import describe
from split_model import END, header

FILE = header(b"f", b"0", 1) + b"x".ljust(512, b"\0")
NEW = "/data/data/new"
SET = "/data/data/sets/s.tar.txt"


class RestoresTest(ClientTest):
    def write_set(self, *slices, check_file=None):
        os.makedirs(self.path("data/sets"), exist_ok=True)
        lines = b""
        for number, content in enumerate(slices):
            self.write(f"data/sets/s.tar.{number}", content)
            lines += b"s.tar.%d|%d\n" % (number, len(content))
        self.write("data/sets/s.tar.txt", lines if check_file is None else check_file)

    def write_endless(self):
        """A set of a file that takes longer than any test; all of it is a hole."""
        self.write_set(header(b"big", b"0", 4 << 30))
        os.truncate(self.path("data/sets/s.tar.0"), 512 + (4 << 30) + 1024)
        self.write("data/sets/s.tar.txt", b"s.tar.0|%d\n" % (1536 + (4 << 30)))

    def files(self):
        return sorted(os.listdir(self.path("data/sets")))

    def test_a_set_stays_unless_it_is_to_be_consumed(self):
        os.makedirs(self.path("data/src/d/empty"))
        os.symlink("../a", self.path("data/src/d/link"))
        self.write("data/src/a", os.urandom(2_500_000))
        os.chmod(self.path("data/src/a"), 0o640)
        os.chown(self.path("data/src/a"), 10123, 10123)
        self.run_program("backup", "split", "/data/data/src", "/data/data/sets", "--slice-size", "1",
                         "--sums")
        before = self.files()
        for options, left in ([], before), (["--consume"], []):
            done = self.run_program("restore", "split", "/data/data/sets/src.tar.txt", NEW, "--uid",
                                    "10456", *options)
            self.assertEqual((done.returncode, done.stderr, self.files()), (0, b"", left))
            self.assertEqual(describe(self.path("data/new")), describe(self.path("data/src")))
            self.assertEqual([os.lstat(self.path("data/new", name)).st_uid
                              for name in ("a", "d", "d/link")], [10456, 0, 0])

    def test_faults(self):
        """Each is named and makes the exit status, and all files stay as they were."""
        self.write("data/victim", b"v")
        whole = FILE + END
        rows = [
            ("s.tar.1", [whole, b"x" * 1000], None),
            ("s.tar.0", [whole], b"s.tar.0|1024\n"),
            ("line 1", [whole], b"../victim|1\n"),
            ("line 1", [whole], b"../../../data/data/victim\0|1\n"),
            ("line 2", [whole], b"s.tar.0|%d\n/data/data/victim|1\n" % len(whole)),
            ("line 1", [whole], b"s.tar.0| %d\n" % len(whole)),
            ("line 1", [whole], b"s.tar.0|+%d\n" % len(whole)),
            ("line 2", [whole], b"s.tar.0|%d\n" % len(whole) * 2),
        ]
        for pattern, slices, check_file in rows:
            for options in [], ["--force", "--consume"]:
                with self.subTest(pattern=pattern, check_file=check_file, options=options):
                    self.write_set(*slices, check_file=check_file)
                    before = describe(self.path("data/sets"))
                    done = self.run_program("restore", "split", SET, NEW, *options)
                    self.assertEqual(done.returncode, 1, done)
                    self.assertIn(pattern, done.stderr.decode())
                    self.assertEqual(describe(self.path("data/sets")), before)
                    with open(self.path("data/victim")) as victim:
                        self.assertEqual(victim.read(), "v")

    def test_an_archive_with_a_hole_is_not_done(self):
        self.write("data/a.tar", FILE + bytes(1024) + header(b"g", b"0", 0) + END)
        done = self.run_program("restore", "tar", "/data/data/a.tar", NEW)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"does not come back", done.stderr)

    def test_whatever_ends_a_restore_the_set_stays(self):
        self.write_endless()
        before = self.files()
        rows = [([signal.SIGINT], 130, 0), ([signal.SIGKILL], -signal.SIGKILL, 1)]
        for signals, status, left in rows:
            task = self.start("--json", "restore", "split", SET, NEW, "--force")
            read_until(task, "status", code=1)
            for number in signals:
                task.send_signal(number)
            task.communicate(timeout=60)
            self.assertEqual((task.returncode, len(self.files())), (status, len(before) + left))
        # What the killed one has left is told and taken away by the next.
        self.write_set(FILE + END)
        done = self.run_program("restore", "split", SET, NEW)
        self.assertEqual((done.returncode, self.files()), (0, before), done)
        self.assertRegex(done.stderr.decode(), r"/sets/\.peltexctl-restore-\w+: left by a restore")

    def test_refused_restore_leaves_no_directories(self):
        self.assertEqual(self.run_program("restore", "tar", "/data/data/none.tar",
                                          "/data/data/a/b").returncode, 1)
        self.assertEqual(os.listdir(self.path("data")), [])


if __name__ == "__main__":
    unittest.main()
