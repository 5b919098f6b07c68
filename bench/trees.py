"""The trees that are packed, copied and listed: the same bytes and names for the same seed."""

import os
import random

OWNER = 10123
KIB, MIB = 1 << 10, 1 << 20
PAGE = 4096
ENTRY = 2 * KIB  # what a name and an inode take in memory, about


class Tree:
    """What lies below one directory: how many entries of each kind, and the bytes of its files."""

    def __init__(self, path):
        self.path = path
        self.memory = 0
        self.files = self.directories = self.links = self.bytes = 0
        os.mkdir(path, 0o771)
        os.chown(path, OWNER, OWNER)

    @property
    def entries(self):
        return self.files + self.directories + self.links

    def directory(self, name):
        path = os.path.join(self.path, name)
        os.mkdir(path, 0o771)
        os.chown(path, OWNER, OWNER)
        self.directories += 1
        self.memory += ENTRY

    def file(self, name, content):
        fd = os.open(os.path.join(self.path, name), os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o660)
        if content:
            os.write(fd, content)
        os.fchown(fd, OWNER, OWNER)
        os.close(fd)
        self.files += 1
        self.memory += ENTRY + -(-len(content) // PAGE) * PAGE
        self.bytes += len(content)

    def link(self, name, target):
        path = os.path.join(self.path, name)
        os.symlink(target, path)
        os.chown(path, OWNER, OWNER, follow_symlinks=False)
        self.links += 1
        self.memory += ENTRY


class Names:
    """Directories below directories, no deeper than `depth`."""

    def __init__(self, tree, chance, count, depth):
        self.all = [""]
        tops = []
        for number in range(count):
            parent = chance.choice(self.all if len(tops) > 20 else [""])
            while parent.count("/") >= depth - 1:
                parent = chance.choice(self.all)
            name = os.path.join(parent, f"directory_{number}" if number % 3 else f"d{number}")
            tree.directory(name)
            self.all.append(name)
            if not parent:
                tops.append(name)


def small(path):
    """20,000 files of 0 to 8 KiB in 2,000 directories, and 100 links."""
    tree, chance = Tree(path), random.Random(1)
    names = Names(tree, chance, 2000, 12)
    noise = chance.randbytes(64 * KIB)
    for number in range(20000):
        start = chance.randrange(56 * KIB)
        tree.file(os.path.join(chance.choice(names.all), f"file{number:05}.dat"),
                  noise[start:start + chance.randint(0, 8 * KIB)])
    for number in range(100):
        tree.link(os.path.join(chance.choice(names.all), f"link{number}"), f"../file{number:05}.dat")
    return tree


def app(path):
    """3,000 files: 30 databases of 1 to 20 MiB among small ones, 8 deep, and 20 links."""
    tree, chance = Tree(path), random.Random(2)
    names = Names(tree, chance, 300, 8)
    noise = chance.randbytes(24 * MIB)
    sizes = [chance.randint(1 * MIB, 20 * MIB) for _ in range(30)]
    sizes[-1] = max(MIB, 320 * MIB - sum(sizes[:-1]))
    for number in range(3000):
        size = sizes.pop() if number % 100 == 50 else int(chance.paretovariate(0.9) * KIB)
        start = chance.randrange(4 * MIB)
        suffix = "db" if number % 100 == 50 else "xml"
        tree.file(os.path.join(chance.choice(names.all), f"com.example.store.{number}.{suffix}"),
                  noise[start:start + min(size, 20 * MIB)])
    for number in range(20):
        tree.link(os.path.join(chance.choice(names.all), f"current{number}"), f"version-{number}")
    return tree


def large(path, size=256):
    """4 files of 256 MiB of bytes that do not compress."""
    tree, chance = Tree(path), random.Random(3)
    for number in range(4):
        tree.file(f"video{number}.bin",
                  b"".join(chance.randbytes(32 * MIB) for _ in range(size // 32)))
    return tree


def less_large(path):
    """4 files of 64 MiB: as large to every program, and sooner done."""
    return large(path, 64)


def counted(path, entries):
    """A given number of entries, ten files to a directory; one file in four has 1 KiB."""
    tree, chance = Tree(path), random.Random(4)
    content = chance.randbytes(KIB)
    for number in range(entries):
        group, place = divmod(number, 11)
        # Directories of directories: a thousand groups below each.
        top = f"{group // 1000:04}"
        if place == 0:
            if group % 1000 == 0:
                tree.directory(top)
            tree.directory(f"{top}/{group:06}")
        else:
            tree.file(f"{top}/{group:06}/file{place}", content if place % 4 == 0 else b"")
    return tree


MAKERS = {"small": small, "app": app, "large": large}
