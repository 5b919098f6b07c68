"""Archives of other programs, restored by us."""

import os
import shutil
import stat
import subprocess
import unittest

from client import ClientTest
from tar_model import CHUNK, Entry, entries_in, restored

OTHER = 10456  # the application that is restored for
FULL, LONG = b"n" * 100, b"n" * 101


def file(name, size, mode=0o640, uid=10123, gid=10123):
    return Entry(name, stat.S_IFREG | mode, uid, gid, None, b"0123456789abcde"[:size] or b"x" * size)


def directory(name, mode, gid=10123):
    return Entry(name + b"/", stat.S_IFDIR | mode, 10123, gid, None, b"")


def link(name, target):
    return Entry(name, stat.S_IFLNK | 0o777, 10123, 10123, None, target)


PLAIN = [
    directory(b"d", 0o750, 20123), file(b"d/file", 700), directory(b"d/sub", 0o3775),
    file(b"d/empty", 0, 0o400, 9999, 9999), file(b"d/chunk", CHUNK + 1, 0o600, 10123, 1065),
    file(b"m" * 99, 1), file(b"\xff\n", 512), link(b"link99", b"t" * 99),
]
WIDE = [file(FULL, 3), link(b"link100", b"t" * 100)]
PARTED = [directory(b"x" * 60, 0o700), file(b"x" * 60 + b"/" + b"y" * 60, 5)]
BEYOND = [*PARTED, file(LONG, 5), link(b"link150", b"t" * 150)]
# The directory of a name in two fields is not looked at.
NO_PREFIX = [PARTED[0], file(b"y" * 60, 5)]


def filled(mode, magic):
    """Names and targets that fill their field: its end is the next NUL, wherever it is."""
    return [file(FULL + mode, 3), link(b"link100", b"t" * 100 + magic)]


# Program and format, what is packed beside PLAIN, what of that comes back: nothing of a refused one.
ROWS = [
    ("tar ustar", WIDE + PARTED, filled(b"0000640", b"ustar") + NO_PREFIX),
    ("tar gnu", WIDE + BEYOND, filled(b"0000640", b"ustar  ") + BEYOND),
    ("tar oldgnu", WIDE + BEYOND, WIDE + BEYOND),
    # The records in front of entries are passed over, and with them the rest of a name.
    ("tar posix", [file(LONG, 5)], [file(FULL + b"0000640", 5)]),
    ("tar v7", [], None),
    ("bsdtar ustar", WIDE + PARTED, filled(b"000640 ", b"ustar") + NO_PREFIX),
    ("bsdtar gnutar", WIDE + BEYOND, filled(b"0000640", b"ustar  ") + BEYOND),
    ("bsdtar v7", [], None),
]


def make_tree(root, entries):
    os.makedirs(root)
    for entry in entries:
        path = os.fsencode(root) + b"/" + entry.name
        if stat.S_ISLNK(entry.mode):
            os.symlink(entry.what, path)
        elif stat.S_ISDIR(entry.mode):
            os.mkdir(path)
        else:
            with open(path, "xb") as new:
                new.write(entry.what)
        os.lchown(path, entry.uid, entry.gid)
        if not stat.S_ISLNK(entry.mode):
            os.chmod(path, entry.mode & 0o7777)


class PeersTest(ClientTest):
    def test_restore_of_others_archives(self):
        for writer, packed, back in ROWS:
            with self.subTest(writer):
                program, form = writer.split()
                source = self.path("source " + writer)
                make_tree(source, PLAIN + packed)
                # What a restore passes over must not disturb what follows it.
                os.link(source + "/d/file", source + "/d/hard")
                passed_over = ["d/hard"]
                if form != "v7":  # which knows no such thing
                    os.mkfifo(source + "/d/fifo")
                    passed_over.append("d/fifo")
                names = [entry.name for entry in PLAIN + packed]
                # Whoever takes an archive of which not all comes back is told so.
                for also, is_whole in ([], back == packed), (passed_over, False):
                    shutil.rmtree(self.path("came"), ignore_errors=True)
                    subprocess.run([program, "--format", form, "-cf", self.path("a.tar"), "-C", source,
                                    "--no-recursion", *names[:2], *also, *names[2:]], check=True)
                    for command in ["verify"], ["-q", "restore", "tar"]:
                        to = ["/data/data/came", "--uid", str(OTHER)] * (len(command) > 1)
                        done = self.run_program(*command, "/data/data/a.tar", *to)
                        self.assertEqual(done.returncode, int(not is_whole), done)
                expected = PLAIN + back if back is not None else []
                self.assertEqual({entry._replace(mtime=None)
                                  for entry in entries_in(self.path("came"))},
                                 {restored(entry, OTHER) for entry in expected})


if __name__ == "__main__":
    unittest.main()
