"""The subcommands list, verify and export, over archives of ours, of others and of nobody."""

import io
import itertools
import json
import os
import random
import resource
import signal
import struct
import subprocess
import tarfile
import tempfile
import unittest

from split_model import END, MIB, UNIT, SplitPacker, header, long_record, padding, restore

PROGRAM = os.environ["PELTEXCTL"]
NAMES = [b"a", *[b"d/" + b"n" * length for length in (97, 99, 250)], b"line\nfeed",
         b"\xff\xc2\x9b\\"]


def content(size):
    return (b"0123456789abcde" * (size // 15 + 1))[:size]


def file_entry(name, data, typeflag=b"0"):
    return header(name, typeflag, len(data)) + data + padding(len(data))


def signed(block):
    """The block with the checksum that its other bytes ask for."""
    block = bytearray(block)
    block[148:156] = b" " * 8
    block[148:155] = b"%06o\0" % sum(block)
    return bytes(block)


def patched(block, at, data):
    return signed(block[:at] + data + block[at + len(data):])


class ArchiveTest(unittest.TestCase):
    def setUp(self):
        self.directory = self.enterContext(tempfile.TemporaryDirectory())

    def path(self, name):
        return os.path.join(self.directory, name)

    def write(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def write_set(self, slices, base="s.tar"):
        lines = [f"{base}.{i}|{len(data)}\n" for i, data in enumerate(slices)]
        for i, data in enumerate(slices):
            self.write(f"{base}.{i}", data)
        return self.write(base + ".txt", "".join(lines).encode())

    def run_program(self, *arguments):
        done = subprocess.run([PROGRAM, *arguments], capture_output=True, timeout=120)
        self.assertIn(done.returncode, (0, 1), done)
        return done

    def objects(self, *arguments):
        done = self.run_program("--json", *arguments)
        return [json.loads(line) for line in done.stdout.splitlines()], done.returncode

    def cut_set(self):
        """A set of three slices in which one file has all three kinds of parts."""
        self.tree = [(b"d/", None), (b"d/big" + b"g" * 120, content(MIB + MIB // 2 + 700)),
                     (b"after", content(513)), (b"empty", b"")]
        return self.write_set(SplitPacker(1, 20).pack(self.tree))

    # --- list

    def test_list_of_others_archives(self):
        out = io.BytesIO()
        with tarfile.open(fileobj=out, mode="w", format=tarfile.GNU_FORMAT,
                          errors="surrogateescape") as archive:
            for i, name in enumerate(NAMES):
                member = tarfile.TarInfo(os.fsdecode(name))
                member.size, member.mode, member.uid = i * 300, 0o4751, 10123
                member.mtime = 86400 * i
                archive.addfile(member, io.BytesIO(content(member.size)))
            for length in (5, 99, 101, 150):
                member = tarfile.TarInfo(f"link{length}")
                member.type, member.linkname = tarfile.SYMTYPE, "t" * length
                archive.addfile(member)
        path = self.write("a.tar", out.getvalue())
        told, status = self.objects("list", path)
        self.assertEqual(status, 0)
        for i, name in enumerate(NAMES):
            shown = {"name": name.decode()} if name[0] != 0xff else {
                "name": "\u00ff\u009b\\", "raw": name.hex()}
            self.assertEqual(told[i], {"event": "entry", "type": "0", "mode": "4751", "uid": 10123,
                                       "gid": 0, "size": i * 300, "mtime": 86400 * i, **shown})
        self.assertEqual([len(entry["link"]) for entry in told[len(NAMES):]], [5, 99, 101, 150])
        text = self.run_program("list", path).stdout.decode().splitlines()
        self.assertRegex(text[4], r"^-rwsr-x--x +10123/0 +1\.2 KiB 1970-01-05 \d\d:\d\d line\\nfeed$")
        self.assertTrue(text[5].endswith(" \\377\\302\\233\\\\"), text[5])
        self.assertTrue(text[6].endswith(" link5 -> ttttt"))

    def test_list_of_a_set_shows_a_cut_file_once(self):
        told, status = self.objects("list", self.cut_set())
        self.assertEqual(status, 0)
        self.assertEqual([(entry["type"], entry["name"].encode(), entry["size"]) for entry in told],
                         [("0" if data is not None else "5", name, len(data or b""))
                          for name, data in self.tree])
        told, status = self.objects("list", self.path("s.tar.1"))
        self.assertEqual((status, [entry["type"] for entry in told]), (0, ["A", "0", "0"]))

    # --- verify

    def verify(self, path):
        """The messages of faults and of warnings, the entries they name, and the exit status."""
        told, status = self.objects("verify", path)
        if told[-1]["event"] == "verified":
            self.assertEqual(told[-1]["whole"], status == 0)
        return [f'{entry.get("slice", "")}|{entry.get("entry", "")}|{entry["message"]}'
                for entry in told if entry["event"] != "verified"], status

    def check_faults(self, path, pattern):
        told, status = self.verify(path)
        self.assertEqual(status, 1 if pattern else 0, told)
        if pattern:
            self.assertRegex("\n".join(told), pattern)

    def test_faults_of_whole_archives(self):
        good = file_entry(b"f", content(600))
        long_link = long_record(b"t" * 2047, b"K") + header(b"l", b"2", link=b"t" * 99)
        record = long_record(b"n" * 120, b"L")
        upwards = signed(b"a/../x".ljust(100, b"\0") + record[100:512]) + record[512:]
        binary = (600).to_bytes(8, "big")
        zeroed = bytearray(b"".join(file_entry(b"%d" % i, content(5000)) for i in range(6)) + END)
        zeroed[5632:5632 + 4096] = bytes(4096)
        link = header(b"l", b"2", link=b"/etc")
        through = r"\|goes through the link l of the archive"
        rows = [
            ("whole", good + END, None),
            ("filled up as others do", good + bytes(10240), None),
            ("nothing in it", END, None),
            ("no file", b"", "without its end blocks"),
            ("not of 512", good + END[:-1], "no multiple of 512"),
            ("one end block", good + END[:512], "single zero block"),
            ("no end blocks", good, "without its end blocks"),
            ("content cut", (good + END)[:1024], r"\|f\|the bytes that its header promises"),
            ("size past all", header(b"f", b"0", 1 << 35) + END, r"\|f\|the bytes that its header promises"),
            ("broken checksum", good + header(b"g", b"0")[:140] + b"9" * 372 + END, "behind f"),
            ("no archive", b"x" * 2048, "no valid header"),
            ("blocks zeroed in the middle", bytes(zeroed), "ends at 5632, and what follows at 9728"),
            ("bytes in the end blocks", good + bytes(600) + b"x" + bytes(423), "ends at 1536, and what follows at 2136"),
            ("a name upwards", header(b"a/../x", b"0") + END, r"\|a/\.\./x\|.*\.\./"),
            ("a record's own name upwards", upwards + good + END, r"\|a/\.\./x\|.*\.\./"),
            ("a directory that ends in dots", header(b"foo../", b"5") + END, r"\|foo\.\./\|"),
            ("the directory above", header(b"..", b"5") + END, r"\|leaves the directory"),
            ("a link upwards", header(b"..", b"2", link=b"t") + END, r"\|leaves the directory"),
            ("a file that ends in a slash", header(b"f/", b"0") + END, r"\|f/\|is no name"),
            ("a component of 256", long_record(b"n" * 256, b"L") + good + END, "more than 255"),
            ("one of 255", long_record(b"n" * 255, b"L") + good + END, None),
            ("a path of 2046", long_record(b"n/" * 1023, b"L") + good + END, "paths of more than 2,047"),
            ("what others passed over", header(b"com.tencent.mm/", b"5") +
             header(b"com.tencent.mm/tinker/", b"5") + END, "directory that a restore passes over"),
            ("one directory", file_entry(b"a/f", b"x") + END, r"\|a/f\|no entry in front of it"),
            ("no directory", header(b"a/b/f", b"0") + END, r"\|a/b/f\|no entry in front of it"),
            ("a link's directory", header(b"a/l", b"2", link=b"t") + END, r"\|a/l\|no entry in front of it"),
            ("a name again", good + good + END, r"\|f\|is there again"),
            ("a name again, spelt otherwise", good + file_entry(b".//f", b"") + END, "there again"),
            ("a size in binary", patched(header(b"f", b"0"), 124, b"\x80\0\0\0" + binary) + END,
             r"\|f\|a restore and other programs read its size"),
            ("a uid in binary", patched(header(b"f", b"0"), 108, b"\x80" + binary[1:]) + END,
             "read its uid"),
            ("no octal gid", patched(header(b"f", b"0"), 116, b"9123") + END, "read its gid"),
            ("a link's size in binary", patched(link, 124, b"\x80\0\0\0" + binary) + END, None),
            ("a link without a target", header(b"l", b"2") + END, r"\|l\|a link without"),
            ("a long target", long_link + END, r"\|l\|.* its target differently"),
            ("its record cut", long_record(b"t" * 200, b"L")[:512] + END[:0], "that its header promises"),
            ("a hard link", header(b"h", b"1", link=b"f") + END, r"\|h\|.* this hard link"),
            ("a part", header(b"p", b"A", 0) + END, r"\|p\|one part"),
            ("below a link", link + file_entry(b"l/f", b"x") + END, r"\|l/f" + through),
            ("below a link, spelt otherwise", link + header(b"./l//d/", b"5") + END, through),
            ("a link below a link", link + header(b"l/m", b"2", link=b"t") + END, through),
            ("in place of a link", link + file_entry(b"l", b"x") + END, through),
            ("of a link's target", link + header(b"l/", b"5") + END, through),
            ("a link again", link + link + END, "is there again"),
        ]
        with io.BytesIO() as out:  # others end no name that fills its field
            tarfile.open(fileobj=out, mode="w", format=tarfile.GNU_FORMAT).addfile(
                tarfile.TarInfo("n" * 100))
            rows.append(("a name of 100 bytes", out.getvalue() + END, r"\|n{100}0000644\|"))
        for name, data, pattern in rows:
            with self.subTest(name):
                self.check_faults(self.write("a.tar", data), pattern)
                self.assertLessEqual(len(self.verify(self.path("a.tar"))[0]), 1)

    def test_warnings_of_what_an_archive_would_reach(self):
        rows = [
            ("own links", header(b"d/", b"5") + header(b"d/l", b"2", link=b"..") +
             file_entry(b"d/ll", b"x"), []),
            ("absolute", header(b"/etc/", b"5") + file_entry(b"/etc/passwd", b"x"), []),
            ("set-user-id of root", header(b"f", b"0", mode=0o4755, uid=0),
             ["is a set-user-id file of uid 0"]),
            ("set-user-id of an application", header(b"f", b"0", mode=0o4755, uid=10123), []),
            ("set-group-id directory", header(b"d/", b"5", mode=0o2755, uid=0), []),
        ]
        for name, data, warnings in rows:
            with self.subTest(name):
                told, status = self.objects("verify", self.write("a.tar", data + END))
                self.assertEqual(([(each["event"], each["message"]) for each in told[:-1]], status),
                                 ([("warning", each) for each in warnings], 0))
                self.assertEqual(told[-1]["warnings"], len(warnings))

    def test_faults_of_cut_files(self):
        first = header(b"f", b"8", UNIT) + content(UNIT) + END
        last = file_entry(b"f", b"x", b"A") + END
        middle = header(b"f", b"9", MIB) + content(MIB) + END
        other = file_entry(b"g", b"x") + END
        link = header(b"f", b"2", link=b"/etc/passwd")
        rows = [
            ("whole", [first, middle, last], None),
            ("ended where its slice did", [first, other], None),
            ("ended inside its slice", [file_entry(b"f", content(700), b"8") + END, other], None),
            ("middle without last", [first, middle], r"s.tar.1\|f\|its next part is not there"),
            ("last without first", [other, last], r"s.tar.1\|f\|continues a file that does not"),
            ("of another file", [first, file_entry(b"g", b"x", b"A") + END], r"g\|continues a file that does not"),
            ("part not at its slice's end", [first[:-1024] + other, last], "promises more content"),
            ("zeros at its end", [header(b"f", b"8", UNIT) + bytes(UNIT) + END, other], "not be its"),
            ("zeros behind the end", [first + bytes(512), last + bytes(4096)], None),
            ("bytes behind the end", [first + other, last], r"s.tar.0\|\|ends at 524800"),
            ("zero block among entries", [header(b"e", b"0") + bytes(512) + other], "single zero"),
            ("through a link", [link + END, first, last],
             r"\|f\|goes through the link f of the archive"),
            ("parts alone through a link", [link + END, last], "goes through the link"),
        ]
        for name, slices, pattern in rows:
            with self.subTest(name):
                self.check_faults(self.write_set(slices), pattern)
                self.assertEqual(
                    self.run_program("export", self.path("s.tar.txt"), self.path("o")).returncode,
                    1 if pattern else 0)
                for i in range(len(slices)):
                    os.remove(self.path(f"s.tar.{i}"))

    def test_faults_of_check_files(self):
        for i in range(3):
            self.write(f"s.tar.{i}", END)
        self.write("other", END)
        os.mkdir(self.path("set"))
        os.mkfifo(self.path("f.tar.0"))
        os.symlink("s.tar.0", self.path("l.tar.0"))
        line = b"s.tar.0|1024\n"
        number, elsewhere = "line 1 is not NAME", "names a file elsewhere"
        rows = [
            (line + b"s.tar.1|1024\ns.tar.2|1024\n", None),
            (line + b"s.tar.1|1024\ns.tar.2|1024", None),
            *[(b"s.tar.0|" + size + b"\n", number) for size in (
                b"", b" 1024", b"+1024", b"-1024", b"0x400", b"02000", b"1024 ", b"1e3", b"1024\r",
                b"99999999999999999999")],
            (b"|1024\n", number),
            (b"s.tar.0\n", number),
            (line + b"\n", "line 2 is not NAME"),
            (b"../other|1024\n", elsewhere),
            (b"/etc/passwd|1024\n", elsewhere),
            (b"..|1024\n", "line 1 lists .. where"),
            (b"../../../tmp/v\0|1\n", "line 1 has a NUL"),
            (line[:-1] + b"\0x", "line 1 has a NUL"),
            (line + line, "line 2 lists s.tar.0 where s.tar.1 should be"),
            (line + b"s.tar.2|1024\n", "line 2 lists s.tar.2 where s.tar.1 should be"),
            (line + b"x" * 2100 + b"|1\n", "line 2 has a NUL, or more than 2,046 bytes"),
            (b"", "lists no slice"),
            (b"s.tar.0|1023\n", "has 1024 bytes, the check file says 1023"),
            (line + b"s.tar.1|1024\ns.tar.2|1024\ns.tar.3|1024\n", "s.tar.3||cannot be opened"),
            (b"l.tar.0|1024\n", "l.tar.0||is a symbolic link"),
            (b"f.tar.0|1024\n", "f.tar.0||is no regular file"),
            (b"s.tar.%d|1\n" * 100001 % tuple(range(100001)), "line 100001 is more than"),
        ]
        for text, pattern in rows:
            with self.subTest(text[:80]):
                self.check_faults(self.write("set/s.tar.txt" if b"/" in text else "s.tar.txt", text),
                                  pattern)
        for name in ("missing", ".", "f.tar.0"):
            done = self.run_program("verify", self.path(name))
            self.assertEqual((done.returncode, done.stderr.count(b"\n")), (1, 1))

    def test_every_set_that_does_not_come_back_is_named(self):
        # Sizes around the room that the packer finds, for each way in which it can be wrong.
        fillers = [[], [(b"e", b"")], *[[(b"f", content(UNIT - 512 - rest))]
                                        for rest in (512, 1024, 1536)]]
        sizes = [k * UNIT + rest for k in (1, 2) for rest in (-1024, -600, -512, -1, 0, 1, 1025)]
        tails = [], [(b"t/", None)], [(b"t", content(512))]
        lengths = [(99, 10), (100, 10), (512, 10), (1100, 10), (110, 100)]  # of path and name
        lost = 0
        cases = itertools.product(lengths, fillers, sizes, tails)
        for (path_length, name_length), filler, size, tail in cases:
            entries = filler + [(b"n" * name_length, content(size))] + tail
            slices = SplitPacker(1, path_length - name_length - 1).pack(entries)
            whole = restore(slices) == (dict(entries), 0)
            lost += not whole
            told, status = self.verify(self.write_set(slices))
            self.assertEqual(status, 0 if whole else 1,
                             (path_length, name_length, len(filler), size, tail, told))
        self.assertGreater(lost, 200)
        for count in (2048, 2049, 3073):  # headers alone carry the slice past its size
            entries = [(b"%d" % i, b"") for i in range(count)] + [(b"f", b"x")]
            slices = SplitPacker(1, 9).pack(entries)
            self.assertEqual(self.verify(self.write_set(slices))[1], int(count > 2048))

    # --- sums

    @unittest.skipIf(PROGRAM.endswith("-emulated"), "there is no OpenSSL for that processor")
    def test_sums_name_what_is_other_than_it_was(self):
        check_file = self.cut_set()
        files = [f"s.tar.{i}" for i in range(3)] + ["s.tar.txt"]
        done = subprocess.run(["sha256sum", *files], cwd=self.directory, capture_output=True)
        lines = done.stdout.splitlines(keepends=True)
        slice_0 = self.read("s.tar.0")
        rows = [
            ("as it was", lines, None),
            ("in another order, with others' sums", [lines[0][:66] + b"x\n", *lines[::-1]], None),
            ("one missing", lines[:-1], r"s.tar.txt\|\|has no sum in s.tar.sha256"),
            ("one of another", [lines[1][:66] + lines[0][66:], *lines[1:]],
             r"s.tar.0\|\|its bytes are not"),
            ("of another archive of that name", [lines[0][:66] + b"s.tar\n"], None),
            ("no sums", [b"s.tar.0\n"], "a line is not a sum"),
            ("nothing", [], "has no sum"),
        ]
        for name, text, pattern in rows:
            with self.subTest(name):
                self.write("s.tar.sha256", b"".join(text))
                self.check_faults(check_file, pattern)
                done = self.run_program("export", check_file, self.path("out"))
                self.assertEqual(done.returncode, 1 if pattern else 0)
        self.write("s.tar.sha256", b"".join(lines))
        self.write("s.tar.0", slice_0[:2000] + b"0123456789" + slice_0[2010:])
        for path in (check_file, self.path("s.tar.0")):
            self.check_faults(path, r"s.tar.0\|\|its bytes are not those of its sum")

    # --- export

    def test_export_is_read_by_others(self):
        check_file = self.cut_set()
        self.assertEqual(self.run_program("export", check_file, self.path("out.tar")).returncode, 0)
        data = self.read("out.tar")
        self.assertEqual((data[263:265], data[-1024:]), (b"00", END))
        self.assertEqual(self.run_program("export", check_file, "-").stdout, data)
        with tarfile.open(self.path("out.tar")) as archive:
            files = {member.name.encode(): archive.extractfile(member).read()
                     for member in archive if member.isreg()}
        self.assertEqual(files, dict(self.tree[1:]))
        done = subprocess.run(["tar", "tf", self.path("out.tar")], capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertEqual(done.stdout.splitlines(), [name for name, _ in self.tree])

    def test_failed_export_leaves_nothing(self):
        check_file = self.cut_set()
        before = sorted(os.listdir(self.directory))
        cases = [(check_file, "s.tar.1"), (check_file, "s.tar.txt"), (check_file, "no/out"),
                 (self.path("s.tar.0"), "out"), (self.path("none"), "out")]
        for source, out in cases:
            with self.subTest(source=source, out=out):
                self.assertEqual(self.run_program("export", source, self.path(out)).returncode, 1)
                self.assertEqual(sorted(os.listdir(self.directory)), before)
        self.assertEqual(self.run_program("export", check_file, "/dev/full").returncode, 1)
        terminal, inside = os.openpty()
        done = subprocess.run([PROGRAM, "export", check_file, "-"], stdout=inside, timeout=120,
                              stderr=subprocess.PIPE)
        for descriptor in (terminal, inside):
            os.close(descriptor)
        self.assertEqual((done.returncode, done.stderr.count(b"terminal")), (1, 1))
        self.write("s.tar.1", self.read("s.tar.1")[:-1])
        self.assertEqual(self.run_program("export", check_file, self.path("out")).returncode, 1)
        self.assertEqual(sorted(os.listdir(self.directory)), before)

    def test_export_is_no_looser_than_what_it_is_made_of(self):
        check_file = self.cut_set()
        out = self.path("out.tar")
        for slice_mode, mode_before, mode in [(0o644, None, 0o644), (0o600, None, 0o600),
                                              (0o640, 0o644, 0o640), (0o666, 0o600, 0o600)]:
            with self.subTest(slice=slice_mode, before=mode_before):
                os.chmod(self.path("s.tar.1"), slice_mode)
                if mode_before:
                    os.chmod(self.write("out.tar", b""), mode_before)
                self.run_program("export", check_file, out)
                self.assertEqual(os.stat(out).st_mode & 0o777, mode)
                os.remove(out)

    def test_export_that_ends_early_leaves_one_file_at_most(self):
        check_file = self.cut_set()
        before = sorted(os.listdir(self.directory))

        def end_early(kills):
            limit = (MIB, MIB)
            return subprocess.run(
                [PROGRAM, "export", check_file, self.path("out")], capture_output=True, timeout=120,
                restore_signals=kills,  # where it is not ignored, the signal kills
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, limit)).returncode

        self.assertEqual((end_early(False), sorted(os.listdir(self.directory))), (1, before))
        for _ in range(2):
            self.assertEqual(end_early(True), -signal.SIGXFSZ)
            self.assertEqual(sorted(os.listdir(self.directory)), ["out.unfinished", *before])
        self.assertEqual(self.run_program("export", check_file, self.path("out")).returncode, 0)
        self.assertEqual(sorted(os.listdir(self.directory)), ["out", *before])

    # --- bytes from anywhere

    def test_any_bytes_end_without_a_crash(self):
        plain = bytearray(header(b"f", b"0"))
        rows = [signed(plain[:at] + filling * width + plain[at + width:])
                for at, width in [(0, 100), (100, 8), (108, 40), (124, 12), (157, 100), (265, 247)]
                for filling in (b"\xff", b"7", b" ", b"\0", b"9")]
        rows += [signed(plain[:156] + kind + plain[157:]) for kind in (b"K", b"L", b"9", b"\xff")]
        rows += [signed(plain[:124] + struct.pack(">B11s", 0x80, b"\x7f" * 11) + plain[136:]),
                 plain[:148] + b"\0" * 364, b"\xff" * 512,
                 b"f" + b"\xff" * 256 + b"ustar" + b" " * 250]
        chooser = random.Random(1)
        for _ in range(60):
            block = bytearray(plain)
            for _ in range(3):
                block[chooser.randrange(512)] = chooser.randrange(256)
            rows.append(signed(block))
        for row in rows:
            for name in ("a.tar", "s.tar.0"):
                path = self.write(name, bytes(row) * 3 + END)
                for command in (["list", path], ["verify", path], ["--json", "list", path]):
                    self.run_program(*command)


if __name__ == "__main__":
    unittest.main()
