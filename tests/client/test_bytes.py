"""Random trees that the client packs, looks at and restores, compared with the model."""

import hashlib
import os
import random
import shutil
import stat
import unittest

import tar_model
from client import ClientTest
from tar_model import CHUNK, END, MIB, WHOLE, Packer, entries_in, header, restored, signed, walk

SEED = os.environ.get("PELTEX_SEED")  # of a failure, to run it alone
SEEDS = [int(SEED)] if SEED else [*range(24), random.randrange(1 << 32)]
UID = 10123
OWNERS = 0, 1, 1000, 9999, 10000, 10001, 20001, 0x1FFFFF, 0xFFFFFF, 0x1000000
TIMES = 0, 1, 978307199, 0o77777777777, 0o100000000000
NEAR = 0, 0, 0, 1, 511, 512, 513, -1, -511, -512, -513, -1024, 1025
ENDS = *[b""] * 12, b".dex", b".dex", b"\n", b" ", b"\xff", b".."


def make_entry(path, kind, chooser):
    if kind == "directory":
        os.mkdir(path)
    elif kind == "link":
        os.symlink(b"t" * chooser.choice((1, 98, 99, 100, 512, 2045, 2046, 2047)), path)
    elif kind == "fifo":
        os.mkfifo(path)
    else:
        open(path, "xb").close()
        if kind == "hard link":
            os.link(path, path + b"2")
    os.lchown(path, chooser.choice(OWNERS), chooser.choice(OWNERS))
    if kind != "link":
        os.chmod(path, chooser.randrange(0o10000))


def make_tree(root, chooser, limit):
    """Makes a tree with files that end where slices do, or about there."""
    os.mkdir(root)
    directories = [root]
    for first in range(97, chooser.randrange(98, 122)):
        name = bytes([first]) * chooser.choice((1, 1, 1, 50, 98, 99, 100, 240))
        path = chooser.choice(directories) + b"/" + name + chooser.choice(ENDS)
        kind = chooser.choices(("file", "directory", "link", "fifo", "hard link"),
                               (6, 2 * (len(directories) < 6), 1, 1, 1))[0]
        make_entry(path, kind, chooser)
        directories += [path] * (kind == "directory")
    packer, room = Packer(limit, len(root)), 3 * MIB
    for entry in walk(root):
        if stat.S_ISREG(entry.mode):
            size = chooser.choice((0, limit - len(packer.current), CHUNK, 2 * CHUNK, 1024))
            room -= (size := max(min(size + chooser.choice(NEAR), room), 0))
            # A file that ends in a zero where its slice ends looks like one that is cut.
            entry = entry._replace(what=chooser.randbytes(size).replace(b"\0", b"1"))
            with open(root + b"/" + entry.name, "wb") as file:
                file.write(entry.what)
            os.chmod(file.name, entry.mode & 0o7777)  # of which the writing takes a part away
        packer.add(entry)
    for entry in reversed(list(walk(root))):  # a directory after what is in it
        os.utime(root + b"/" + entry.name, (0, chooser.choice(TIMES)), follow_symlinks=False)


def contents(tree):
    return {name: (stat.S_IFMT(entry.mode), entry.what) for name, entry in tree.items()}


def in_short(entries, **fields):
    """The entries as one reads them in a failure, by their names."""
    return {entry.name: entry._replace(what=hash(entry.what), **fields) for entry in entries}


class BytesTest(ClientTest):
    def run_done(self, *arguments, status=0):
        done = self.run_program(*arguments)
        self.assertEqual((done.returncode, bool(done.stderr)), (status, status != 0), done)

    def check(self, kind, name, archive, files, lost, *options):
        """Packs a tree, expects these files, and uses them. Tells whether they hold the tree."""
        entries = entries_in(self.path(name))[:-len(lost) or None]
        tree, is_done = tar_model.restore(
            [data for each, data in files if not each.endswith((".txt", ".sha256"))], UID)
        expected = {entry.name: restored(entry, UID) for entry in entries}
        failed = int(not is_done or contents(tree) != contents(expected))

        self.run_done("-q", "backup", kind, f"/data/data/{name}", "/data/data/bk", *options,
                      status=int(failed or lost != []))
        directory = os.path.dirname(archive)
        self.assertEqual(sorted(os.listdir(self.path(directory))), sorted(dict(files)))
        for each, data in files:
            self.assertTrue(self.read(f"{directory}/{each}") == data, each)
        told, status = self.objects("verify", "/data/data/" + archive)
        self.assertEqual((told[-1]["whole"], status), (not failed, failed), told)
        self.run_done("-q", "restore", kind, "/data/data/" + archive, f"/data/data/{kind}/new",
                      "--uid", str(UID), status=failed)
        self.assertEqual(in_short(entries_in(self.path(kind + "/new")), mtime=None),
                         in_short(tree.values()))
        return not failed

    def check_tree(self, seed):
        chooser = random.Random(seed)
        name, limit = "r" * chooser.choice((1, 80, 110)), chooser.choice((1, 2)) * MIB
        make_tree(os.fsencode(self.path(name)), chooser, limit)
        entries = entries_in(self.path(name))
        root_length = len("/data/data/" + name)
        (whole,), lost = Packer(WHOLE, root_length).pack(entries)
        archive = f"bk/{name}.tar"
        self.check("tar", name, archive, [(name + ".tar", whole)], lost)

        shutil.rmtree(self.path("bk"))
        slices, lost = Packer(limit, root_length).pack(entries)
        files = [(f"{name}.tar.{i}", data) for i, data in enumerate(slices)]
        files.append((name + ".tar.txt", b"".join(b"%s|%d\n" % (each.encode(), len(data))
                                                  for each, data in files)))
        takes, sums = chooser.randrange(2), chooser.randrange(2)
        archive = f"{'taken/here' if takes else 'bk'}/{name}.tar.txt"
        if sums:
            lines = "".join(f"{hashlib.sha256(data).hexdigest()}  {each}\n" for each, data in files)
            files.append((name + ".tar.sha256", lines.encode()))
        options = [f"--slice-size={limit // MIB}", *["--sums"] * sums,
                   *["--take=/data/data/taken/here"] * takes]
        is_whole = self.check("split", name, archive, files, lost, *options)
        self.run_done("-q", "export", "/data/data/" + archive, "/data/data/out.tar",
                      status=int(not is_whole))
        if is_whole:
            self.assertTrue(self.read("out.tar") == tar_model.exported(
                entries[:-len(lost) or None]))

    def test_random_trees(self):
        for seed in SEEDS:
            with self.subTest(seed=seed):
                self.check_tree(seed)
            shutil.rmtree(self.path(""))
            os.mkdir(self.path(""))

    def test_any_field_ends_without_a_crash(self):
        chooser, plain = random.Random(1), header(b"f", b"0")
        for at, width in [(0, 100), (100, 8), (108, 40), (124, 12), (157, 100), (265, 247)] * 9:
            field = bytes([chooser.choice(b"\xff7 \0" + chooser.randbytes(4))]) * width
            field = field[chooser.randrange(width):]
            block = signed(plain[:at] + field + plain[at + len(field):])
            path = self.write("a.tar", block * 3 + END)
            for command in "verify", "list":
                self.objects(command, path)


if __name__ == "__main__":
    unittest.main()
