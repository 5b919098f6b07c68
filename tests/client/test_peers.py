"""Archives between us and other programs: they unpack what we pack, we restore what they pack."""

import codecs
import hashlib
import os
import shutil
import stat
import subprocess
import tarfile
import unittest

from client import PROGRAM, ClientTest

CHUNK = 524288  # contents are written and read in pieces of this many bytes
SOURCE = "/data/data/src"  # where the packer sees the tree: it takes paths of 2,047 bytes
USER, OTHER = 10123, 10456  # neither is in /etc/passwd
DEEP = b"/".join([b"deep", *[b"%d" % i + b"p" * 230 for i in range(8)]])

# name: (mode, uid, gid, mtime, what), what being a file's size, a link's target, or None
TREE = {
    b"d": (0o750, USER, USER, 1, None),
    b"d/sticky": (0o3771, USER, 20123, 978307199, None),
    b"d" * 99: (0o755, 0, 0, 0, None),
    b"d/setuid": (0o4755, 0, 0, 0, 100),
    b"d/setgid": (0o2711, USER, 1065, 978307200, 100),
    b"d/all": (0o7777, USER, USER, 2147483647, 100),
    b"d/none": (0, 9999, 9999, 2147483648, 100),
    b"daemon": (0o644, 1, 1, 4102444800, 1),
    b"seven digits": (0o644, 0o7777777, 0o7777777, 0o77777777777, 1),
    b"eight digits": (0o644, 0o77777777, 0o10000000, 0o100000000000, 1),
    **{name: (0o644, USER, USER, 5, 1)
       for name in (b"\xff\xfe\xc3", b"line\nfeed \\n\t\x7f'\"*", b"-rf", b" ")},
    **{b"n" * n: (0o640, USER, USER, n, n) for n in (99, 100, 101, 155, 255)},
    **{DEEP[:at]: (0o700, USER, USER, at, None) for at, byte in enumerate(DEEP) if byte == 47},
    DEEP: (0o700, USER, USER, 9, None),
    **{DEEP + b"/" + b"z" * (n - len(SOURCE) - len(DEEP) - 2): (0o640, USER, USER, n, n)
       for n in (2046, 2047)},
    **{b"link%d" % n: (0o777, USER, USER, n, b"t" * n) for n in (1, 99, 100, 150, 2046)},
    b"l" * 120: (0o777, OTHER, OTHER, 7, b"\xff\n/" * 50),
    **{b"size%d" % n: (0o600, USER, USER, 7, n) for n in (0, 1, 511, 512, 513)},
}
CHUNKS = {b"chunk%+d" % n: (0o600, USER, USER, 7, CHUNK + n) for n in (-1, 0, 1)}


def content(size):
    return (b"0123456789abcde" * (size // 15 + 1))[:size]


def make_tree(root, tree):
    os.mkdir(root)
    paths = {name: os.path.join(os.fsencode(root), name) for name in tree}
    for name, (mode, uid, gid, _, what) in tree.items():
        if isinstance(what, bytes):
            os.symlink(what, paths[name])
        elif what is None:
            os.mkdir(paths[name])
        else:
            with open(paths[name], "xb") as file:
                file.write(content(what))
        os.lchown(paths[name], uid, gid)
        if not isinstance(what, bytes):
            os.chmod(paths[name], mode)
    for name, entry in reversed(tree.items()):  # a directory after what is in it
        os.utime(paths[name], (0, entry[3]), follow_symlinks=False)


def snapshot(root):
    """Everything about everything under a directory, by relative path."""
    root, entries = os.fsencode(root), {}
    for directory, names, files in os.walk(root):
        for path in [os.path.join(directory, name) for name in names + files]:
            info, what = os.lstat(path), None
            if stat.S_ISLNK(info.st_mode):
                what = os.readlink(path)
            elif stat.S_ISREG(info.st_mode):
                with open(path, "rb") as file:
                    what = info.st_size, hashlib.sha256(file.read()).hexdigest()
            entries[os.path.relpath(path, root)] = (oct(info.st_mode), info.st_uid, info.st_gid,
                                                    what, int(info.st_mtime))
    return entries


def run(*command):
    """The output of what must succeed and have nothing to say."""
    done = subprocess.run(command, capture_output=True, timeout=120,
                          env={**os.environ, "LC_ALL": "C"})
    assert (done.returncode, done.stderr) == (0, b""), done
    return done.stdout


def names_in(archive, program):
    return [codecs.escape_decode(line)[0]
            for line in run(program, "-tf", archive).split(b"\n")[:-1]]


def unpack(reader, archive, directory):
    """Returns the names that the reader lists."""
    os.mkdir(directory)
    if reader != "tarfile":
        quiet = ["--warning=no-timestamp"] if reader == "tar" else []  # times in the future
        run(reader, "-xpf", archive, "-C", directory, *quiet)
        return names_in(archive, reader)
    with tarfile.open(archive, errors="surrogateescape") as opened:
        opened.extractall(directory)
        for member in opened:
            if member.issym():  # it leaves their times
                os.utime(os.path.join(directory, member.name), (0, member.mtime),
                         follow_symlinks=False)
        return [os.fsencode(member.name) + b"/" * member.isdir() for member in opened]


class PeersTest(ClientTest):
    def backup(self, kind, *options):
        # As objects: in words, progress goes to standard error.
        done = self.run_program("--json", "backup", kind, SOURCE, "/data/data/backup", *options)
        self.assertEqual((done.returncode, done.stderr), (0, b""), done.stdout)

    def restore(self, archive, name):
        return self.run_program("restore", "tar", "/data/data/" + archive, "/data/data/" + name,
                                "--uid", str(OTHER)).returncode

    def check_same(self, came, went):
        for name in {**went, **came}:
            self.assertEqual(came.get(name), went.get(name), name)

    def check_readers(self, archive):
        went = snapshot(self.path("data/src"))
        names = sorted(name + b"/" * entry[0].startswith("0o4") for name, entry in went.items())
        for reader in "tar", "bsdtar", "tarfile":
            with self.subTest(reader):
                self.assertEqual(sorted(unpack(reader, archive, self.path(reader))), names)
                self.check_same(snapshot(self.path(reader)), went)

    def test_others_unpack_whole_archives(self):
        make_tree(self.path("data/src"), {**TREE, **CHUNKS})
        self.backup("tar")
        self.check_readers(self.path("data/backup/src.tar"))

    def test_others_list_slices_and_unpack_exports(self):
        # The large file is cut wherever it comes; all others together never fill a slice.
        make_tree(self.path("data/src"), {**TREE, b"large": (0o640, USER, USER, 7, 2292736)})
        self.backup("split", "--slice-size", "1")
        names, parts = [], []
        for i in range(3):
            path = self.path(f"data/backup/src.tar.{i}")
            names += names_in(path, "tar")
            with tarfile.open(path, errors="surrogateescape") as archive:
                parts += [member.type for member in archive if member.name == "large"]
        self.assertEqual((parts, names.count(b"large")), ([b"8", b"9", b"A"], 3))
        self.assertEqual(len(names), len(TREE) + 3)
        run(PROGRAM, "export", self.path("data/backup/src.tar.txt"), self.path("out.tar"))
        self.check_readers(self.path("out.tar"))

    @unittest.skipUnless("PELTEX_LARGE" in os.environ, "writes 9 GiB where TMPDIR says")
    def test_hole_beyond_4_gib(self):
        hole, rest = (4 << 30) + CHUNK + 1, content(600)
        os.mkdir(self.path("data/src"))
        self.write("data/src/sparse", b"")
        os.truncate(self.path("data/src/sparse"), hole)
        with open(self.path("data/src/sparse"), "ab") as file:
            file.write(rest)
        self.backup("tar")
        archive = self.path("data/backup/src.tar")
        for program in "tar", "bsdtar":
            self.assertIn(b" %d " % (hole + 600), run(program, "-tvf", archive))
        self.assertEqual(self.restore("backup/src.tar", "came"), 0)
        with tarfile.open(archive) as opened, opened.extractfile("sparse") as packed, \
                open(self.path("data/came/sparse"), "rb") as came:
            for file in packed, came:
                file.seek(hole - 1)
                self.assertEqual(file.read(), b"\0" + rest)

    def test_restore_of_others_archives(self):
        full, long, tail = b"n" * 100, b"n" * 101, b"y" * 60
        plain = {
            b"d": (0o750, USER, 20123, 1, None),
            b"d/file": (0o640, USER, USER, 1, 700),
            b"d/sub": (0o3775, USER, USER, 1, None),
            b"d/empty": (0o400, 9999, 9999, 1, 0),
            b"d/chunk": (0o600, USER, 1065, 1, CHUNK + 1),
            b"m" * 99: (0o600, USER, USER, 1, 1),
            b"\xff\n": (0o600, USER, USER, 1, 512),
            b"link99": (0o777, USER, USER, 1, b"t" * 99),
        }
        wide = {full: (0o640, USER, USER, 1, 3), b"link100": (0o777, USER, USER, 1, b"t" * 100)}
        parted = {b"x" * 60: (0o700, USER, USER, 1, None),
                  b"x" * 60 + b"/" + tail: (0o600, USER, USER, 1, 5)}
        beyond = {**parted, long: (0o600, USER, USER, 1, 5),
                  b"link150": (0o777, USER, USER, 1, b"t" * 150)}

        def filled(mode, magic):
            """Names and targets that fill their field: its end is the next NUL, wherever it is."""
            return {full + mode: wide[full],
                    b"link100": (0o777, USER, USER, 1, b"t" * 100 + magic)}

        # The directory of a name in two fields is not looked at.
        no_prefix = {b"x" * 60: parted[b"x" * 60], tail: (0o600, USER, USER, 1, 5)}
        rows = [  # program and format, what is packed, what comes back: nothing of what is refused
            ("tar ustar", {**wide, **parted}, {**filled(b"0000640", b"ustar"), **no_prefix}),
            ("tar gnu", {**wide, **beyond}, {**filled(b"0000640", b"ustar  "), **beyond}),
            ("tar oldgnu", {**wide, **beyond}, {**wide, **beyond}),
            # The records in front of entries are passed over, and with them the rest of a name.
            ("tar posix", {long: beyond[long]}, {full + b"0000600": beyond[long]}),
            ("tar v7", {}, None),
            ("bsdtar ustar", {**wide, **parted}, {**filled(b"000640 ", b"ustar"), **no_prefix}),
            ("bsdtar gnutar", {**wide, **beyond}, {**filled(b"0000640", b"ustar  "), **beyond}),
            ("bsdtar v7", {}, None),
        ]
        moved = {USER: OTHER, 20123: 20456}
        for number, (writer, packed, restored) in enumerate(rows):
            with self.subTest(writer):
                program, form = writer.split()
                source, came, went = (self.path(f"data/{name}{number}")
                                      for name in ("source", "came", "went"))
                make_tree(source, {**plain, **packed})
                # What a restore passes over must not disturb what follows it.
                os.link(source + "/d/file", source + "/d/hard")
                passed_over = ["d/hard"]
                if form != "v7":  # which knows no such thing
                    os.mkfifo(source + "/d/fifo")
                    passed_over.append("d/fifo")
                refused = restored is None
                # Whoever takes an archive of which not all comes back is told so.
                for also, is_whole in ([], restored == packed), (passed_over, False):
                    shutil.rmtree(came, ignore_errors=True)
                    run(program, "--format", form, "-cf", self.path("data/a.tar"), "-C", source,
                        "--no-recursion", "d", "d/file", *also, *list(plain)[2:], *packed)
                    status = subprocess.run([PROGRAM, "verify", self.path("data/a.tar")],
                                            capture_output=True).returncode
                    self.assertEqual((status, self.restore("a.tar", f"came{number}")),
                                     (int(not is_whole),) * 2)
                make_tree(went, {} if refused else {
                    name: (mode, moved.get(uid, uid), moved.get(gid, gid), *rest)
                    for name, (mode, uid, gid, *rest) in {**plain, **restored}.items()})
                self.check_same(*[{name: entry[:4] for name, entry in snapshot(tree).items()}
                                  for tree in (came, went)])  # times are not restored


if __name__ == "__main__":
    unittest.main()
