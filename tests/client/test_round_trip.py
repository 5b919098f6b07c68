"""A directory is backed up, lost and restored."""

import os
import stat
import unittest

from client import ClientTest

NAMES = [b"plain", b"with;semicolon", b"new\nline", b"\xff\xfe", b"n" * 255]
SIZES = [0, 1, 8191, 8193, 81921]  # around the copy buffer and the progress step
MODES = [0o600, 0o644, 0o4755, 0o1000, 0]


def describe(root):
    """Mode and content of everything under a directory, by relative path."""
    entries = {}
    for directory, names, files in os.walk(os.fsencode(root)):
        for path in [os.path.join(directory, name) for name in names + files]:
            content = None
            if os.path.isfile(path):
                with open(path, "rb") as file:
                    content = file.read()
            entries[os.path.relpath(path, os.fsencode(root))] = (
                stat.S_IMODE(os.lstat(path).st_mode), content)
    return entries


class RoundTripTest(ClientTest):
    def test_backup_and_restore(self):
        root = os.fsencode(self.path("data/com.example"))
        for depth, directory in enumerate([b"", b"a", b"a/b", b"a/b/lib"]):
            os.mkdir(os.path.join(root, directory))
            for number, name in enumerate(NAMES):
                path = os.path.join(root, directory, name)
                with open(path, "wb") as file:
                    file.write(os.urandom(SIZES[(number + depth) % len(SIZES)]))
                os.chmod(path, MODES[number])
        os.chmod(os.path.join(root, b"a/b"), 0o2750)
        before = describe(root)
        os.mkdir(self.path("data/backup"))
        for arguments in [["backup", "dir", "/data/data/com.example", "/data/data/backup"],
                          ["restore", "dir", "/data/data/backup", "/data/data/com.example"]]:
            done = self.run_program(*arguments, "--uid", "10123")
            self.assertEqual((done.returncode, done.stderr), (0, b""))
            if arguments[0] == "backup":
                os.rename(root, self.path("lost"))
        self.assertEqual(describe(root), before)
        self.assertEqual(os.stat(os.path.join(root, b"a/b")).st_uid, 10123)


if __name__ == "__main__":
    unittest.main()
