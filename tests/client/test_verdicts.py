"""What verify says of archives that do not come back as they claim, and what a restore says."""

import os
import random
import shutil
import unittest

from client import ClientTest
from tar_model import CHUNK, END, MIB, header, long_record, padding, signed


def content(size):
    return (b"0123456789abcde" * (size // 15 + 1))[:size]


def file(name, data=b"x", typeflag=b"0", **fields):
    return header(name, typeflag, len(data), **fields) + data + padding(len(data))


def patched(block, at, data):
    return signed(block[:at] + data + block[at + len(data):])


GOOD = file(b"f", content(600))
LINK = header(b"l", b"2", link=b"/etc")
PLAIN = header(b"f", b"0")
RECORD = long_record(b"n" * 120, b"L")
BINARY = (600).to_bytes(8, "big")
MANY = b"".join(file(b"%d" % i, content(5000)) for i in range(6)) + END
THROUGH, NO_PARENT = r"\|goes through the link l of the archive", r"\|no entry in front of it"
# Name, bytes, and what the one fault says of slice, entry and reason: None of what comes back.
ARCHIVES = [
    ("whole", GOOD + END, None),
    ("filled up as others do", GOOD + bytes(10240), None),
    ("nothing in it", END, None),
    ("a label of its own", header(b"v", b"V") + GOOD + END, None),
    ("no file", b"", "without its end blocks"),
    ("not of 512", GOOD + END[:-1], "no multiple of 512"),
    ("one end block", GOOD + END[:512], "single zero block"),
    ("no end blocks", GOOD, "without its end blocks"),
    ("content cut", (GOOD + END)[:1024], r"\|f\|the bytes that its header promises"),
    ("size past all", header(b"f", b"0", 1 << 35) + END, r"\|f\|the bytes that its header prom"),
    ("broken checksum", GOOD + header(b"g", b"0")[:140] + b"9" * 372 + END, "behind f"),
    ("no archive", b"x" * 2048, "no valid header"),
    ("blocks zeroed in the middle", MANY[:5632] + bytes(4096) + MANY[9728:],
     "ends at 5632, and what follows at 9728"),
    ("bytes in the end blocks", GOOD + bytes(600) + b"x" + bytes(423),
     "ends at 1536, and what follows at 2136"),
    ("a name upwards", header(b"a/../x", b"0") + END, r"\|a/\.\./x\|.*\.\./"),
    ("a record's own name upwards", patched(RECORD[:512], 0, b"a/../x".ljust(100, b"\0")) +
     RECORD[512:] + GOOD + END, r"\|a/\.\./x\|.*\.\./"),
    ("a directory that ends in dots", header(b"foo../", b"5") + END, r"\|foo\.\./\|"),
    ("the directory above", header(b"..", b"5") + END, r"\|leaves the directory"),
    ("a link upwards", header(b"..", b"2", link=b"t") + END, r"\|leaves the directory"),
    ("a file that ends in a slash", header(b"f/", b"0") + END, r"\|f/\|is no name"),
    ("the directory itself", header(b"./", b"5") + GOOD + END, None),
    ("a component of 256", long_record(b"n" * 256, b"L") + GOOD + END, "more than 255"),
    ("one of 255", long_record(b"n" * 255, b"L") + GOOD + END, None),
    ("a path of 2046", long_record(b"n/" * 1023, b"L") + GOOD + END, "paths of more than 2,047"),
    ("a record of 2048", long_record(b"n" * 2047, b"L") + GOOD + END, r"\|f\|.* its name differ"),
    ("what others passed over", header(b"com.tencent.mm/", b"5") +
     header(b"com.tencent.mm/tinker/", b"5") + END, "directory that a restore passes over"),
    ("a directory that is called so", header(b"tinker/", b"5") + file(b"tinker/f") + END, None),
    ("one directory", file(b"a/f") + END, r"\|a/f" + NO_PARENT),
    ("no directory", header(b"a/b/f", b"0") + END, r"\|a/b/f" + NO_PARENT),
    ("a link's directory", header(b"a/l", b"2", link=b"t") + END, r"\|a/l" + NO_PARENT),
    ("a name again", GOOD + GOOD + END, r"\|f\|is there again"),
    ("a name again, spelt otherwise", GOOD + file(b".//f", b"") + END, "there again"),
    ("a size in binary", patched(PLAIN, 124, b"\x80\0\0\0" + BINARY) + END,
     r"\|f\|a restore and other programs read its size"),
    ("a uid in binary", patched(PLAIN, 108, b"\x80" + BINARY[1:]) + END, "read its uid"),
    ("no octal gid", patched(PLAIN, 116, b"9123") + END, "read its gid"),
    ("no octal mode", patched(PLAIN, 100, b"9123") + END, "read its mode"),
    ("a link's size in binary", patched(LINK, 124, b"\x80\0\0\0" + BINARY) + END, None),
    ("a prefix", patched(patched(PLAIN, 263, b"00"), 345, b"d") + END, "read its name"),
    ("no prefix of ours", patched(PLAIN, 345, b"d") + END, None),
    ("a link without a target", header(b"l", b"2") + END, r"\|l\|a link without"),
    ("a long target", long_record(b"t" * 2047, b"K") + LINK + END, r"\|l\|.* its target differ"),
    ("its record cut", long_record(b"t" * 200, b"L")[:512], "that its header promises"),
    ("a hard link", header(b"h", b"1", link=b"f") + END, r"\|h\|.* this hard link"),
    ("a part", header(b"p", b"A", 0) + END, r"\|p\|one part"),
    ("below a link", LINK + file(b"l/f") + END, r"\|l/f" + THROUGH),
    ("below a link, spelt otherwise", LINK + header(b"./l//d/", b"5") + END, THROUGH),
    ("a link below a link", LINK + header(b"l/m", b"2", link=b"t") + END, THROUGH),
    ("in place of a link", LINK + file(b"l") + END, THROUGH),
    ("of a link's target", LINK + header(b"l/", b"5") + END, THROUGH),
    ("a link again", LINK + LINK + END, "is there again"),
]
FIRST = header(b"f", b"8", CHUNK) + content(CHUNK) + END
MIDDLE = header(b"f", b"9", MIB) + content(MIB) + END
LAST, OTHER = file(b"f", typeflag=b"A") + END, file(b"g") + END
FULL = header(b"f", b"2", link=b"/etc/passwd")
SETS = [
    ("whole", [FIRST, MIDDLE, LAST], None),
    ("middle without last", [FIRST, MIDDLE], r"s.tar.1\|f\|its next part is not there"),
    ("last without first", [OTHER, LAST], r"s.tar.1\|f\|continues a file that does not"),
    ("of another file", [FIRST, file(b"g", typeflag=b"A") + END], r"\|g\|continues a file that"),
    ("part not at its slice's end", [FIRST[:-1024] + OTHER, LAST], "promises more content"),
    ("bytes behind the end", [FIRST + OTHER, LAST], r"s.tar.0\|\|ends at 524800"),
    ("zero block among entries", [header(b"e", b"0") + bytes(512) + OTHER], "single zero"),
    ("parts alone through a link", [FULL + END, LAST], "goes through the link"),
    ("one that is no slice", [FIRST, b"x" * 1024, LAST], "no valid header"),
]


class VerdictsTest(ClientTest):
    def check(self, path, pattern, kind=None):
        """Verify tells one fault or none, and a restore ends as verify does."""
        told, status = self.objects("verify", path)
        faults = [f"{each['slice']}|{each['entry']}|{each['message']}"
                  for each in told if each["event"] == "fault"]
        self.assertEqual((told[-1]["whole"], status), (not pattern, int(pattern is not None)), told)
        self.assertRegex("\n".join(faults), pattern or r"\A\Z")
        if kind:
            done = self.run_program("-q", "restore", kind, path, "/data/data/new")
            self.assertEqual(done.returncode, status, done)
            shutil.rmtree(self.path("new"), ignore_errors=True)
        return told

    def test_archives(self):
        for name, data, pattern in ARCHIVES:
            with self.subTest(name):
                path = self.write("a.tar", data)
                self.assertLessEqual(len(self.check(path, pattern, "tar")), 2)

    def test_sets(self):
        for name, slices, pattern in SETS:
            with self.subTest(name):
                for i, data in enumerate(slices):
                    self.write(f"s.tar.{i}", data)
                path = self.write("s.tar.txt", b"".join(
                    b"s.tar.%d|%d\n" % (i, len(data)) for i, data in enumerate(slices)))
                self.check(path, pattern, "split")
                done = self.run_program("export", path, "/data/data/out")
                self.assertEqual(done.returncode, int(pattern is not None), done)
                for i in range(len(slices)):
                    os.remove(self.path(f"s.tar.{i}"))

    def test_any_bytes_end_without_a_crash(self):
        chooser = random.Random(1)
        for at, width in [(0, 100), (100, 8), (108, 40), (124, 12), (157, 100), (265, 247)] * 9:
            field = bytes([chooser.choice(b"\xff7 \0" + chooser.randbytes(4))]) * width
            block = patched(PLAIN, at, field[chooser.randrange(width):])
            path = self.write("a.tar", block * 3 + END)
            for command in "verify", "list":
                self.objects(command, path)


if __name__ == "__main__":
    unittest.main()
