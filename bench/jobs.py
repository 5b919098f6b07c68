"""What is compared: how each program is told to do a job, and what has to come out."""

import os
import shutil
import subprocess

from trees import OWNER

DATA = "/data/data"
OUT = f"{DATA}/out"
ARCHIVES = f"{DATA}/archives"
STDOUT = "/run/stdout"  # where a program's standard output goes
SLICE_MIB = 100

OURS, FLOOR = "ours", "floor"
# What people run: with a look at the trees before and after, and without.
CHECKED, CTL = "peltexctl", "peltexctl --no-verify"
TARS = {
    "GNU tar": ["tar"],
    "bsdtar": ["bsdtar"],
    "toybox": ["toybox", "tar"],
    "busybox": ["busybox", "tar"],
}
# What our archives hold is owner, mode, time and content: nothing more is asked of a peer.
TAR_OPTIONS = {"bsdtar": ["--no-xattrs", "--no-acls", "--no-fflags"]}


def run_quietly(command):
    subprocess.run(command, stdout=subprocess.DEVNULL, check=True)


def require(found, expected):
    if found != expected:
        raise SystemExit(f"a run left {found}, not {expected}")


def count_below(path):
    """Files, directories, links below a directory, and the bytes of its files."""
    files = directories = links = size = 0
    waiting = [path]
    while waiting:
        for entry in os.scandir(waiting.pop()):
            if entry.is_symlink():
                links += 1
            elif entry.is_dir():
                directories += 1
                waiting.append(entry.path)
            else:
                files += 1
                size += entry.stat().st_size
    return [files, directories, links, size]


class Job:
    """One job on one tree. `build` is where our programs are."""

    def __init__(self, build, tree):
        self.build = build
        self.tree = tree
        self.name = os.path.basename(tree.path)
        self.archive = f"{ARCHIVES}/{self.name}.tar"

    def driver(self, command):
        return [f"{self.build}/bench_driver", f"{command} default {OWNER}"]

    def clients(self, *words):
        """Our client's two ways to do it, by name."""
        checked = [f"{self.build}/peltexctl", "--json", *words, "--uid", str(OWNER)]
        return {CHECKED: checked, CTL: [*checked, "--no-verify"]}

    def floor(self, *words):
        return [f"{self.build}/bench_floor", *words]

    def prepare(self):
        """Makes what a run starts from, outside the timing."""

    def commands(self):
        """The command line of each program, ours first, then the reference."""
        raise NotImplementedError

    def output_bytes(self):
        """The memory that a run's output takes, about."""
        return self.tree.memory

    def check(self, name):
        """Raises where the program `name` has not done the job."""
        raise NotImplementedError


class Pack(Job):
    def ours(self):
        source = self.tree.path
        return (self.driver(f"backup tar {source} {OUT}"),
                self.clients("backup", "tar", source, OUT))

    def commands(self):
        driver, clients = self.ours()
        made = {OURS: driver}
        for name, program in TARS.items():
            made[name] = [*program, "-cf", f"{OUT}/{name}.tar", *TAR_OPTIONS.get(name, []),
                          "-C", self.tree.path, "."]
        made.update(clients)
        made[FLOOR] = self.floor("pack", self.tree.path, f"{OUT}/floor.tar")
        return made

    def output_bytes(self):
        return self.tree.bytes + self.tree.entries * 1024

    def check(self, name):
        archives = [entry.path for entry in os.scandir(OUT) if not entry.name.endswith(".txt")]
        if name == FLOOR:  # nothing can read it
            return require(len(archives), 1)
        entries = 0
        for archive in archives:
            listed = subprocess.run(["tar", "-tf", archive], capture_output=True, check=True)
            entries += sum(line != b"./" for line in listed.stdout.splitlines())
        # A file that a slice cuts is listed twice.
        return require(0 <= entries - self.tree.entries < len(archives), True)


class Split(Pack):
    def ours(self):
        source = self.tree.path
        return ([f"{self.build}/bench_driver",
                 f"backup split {source} {OUT} {SLICE_MIB} default {OWNER}"],
                self.clients("backup", "split", source, OUT, "--slice-size", str(SLICE_MIB)))


class SlicesOrOne(Split):
    """What slices cost over our own whole archive."""

    def commands(self):
        made = super().commands()
        whole = self.driver(f"backup tar {self.tree.path} {OUT}")
        return {OURS: made[OURS], "one archive": whole, FLOOR: made[FLOOR]}


class Unpack(Job):
    def prepare(self):
        if not os.path.exists(self.archive):
            run_quietly(self.driver(f"backup tar {self.tree.path} {ARCHIVES}"))

    def ours(self):
        return (self.driver(f"restore tar {self.archive} {OUT}"),
                self.clients("restore", "tar", self.archive, OUT))

    def commands(self):
        driver, clients = self.ours()
        made = {OURS: driver}
        for name, program in TARS.items():
            made[name] = [*program, "-xpf", self.archive, *TAR_OPTIONS.get(name, []),
                          "--numeric-owner", "-C", OUT]
        made.update(clients)
        made[FLOOR] = self.floor("unpack", self.archive, OUT)
        return made

    def check(self, name):
        tree = self.tree
        require(count_below(OUT), [tree.files, tree.directories, tree.links, tree.bytes])


class Unsplit(Unpack):
    """A restore takes its slices away: each run begins with a copy of them."""

    def prepare(self):
        super().prepare()
        slices = f"{ARCHIVES}/split-{self.name}"
        if not os.path.exists(slices):
            run_quietly([f"{self.build}/bench_driver",
                         f"backup split {self.tree.path} {slices} {SLICE_MIB} default {OWNER}"])
        shutil.rmtree(f"{ARCHIVES}/set", ignore_errors=True)
        shutil.copytree(slices, f"{ARCHIVES}/set")

    def ours(self):
        check_file = f"{ARCHIVES}/set/{self.name}.tar.txt"
        # peltexctl is given the directory itself, a command one component more.
        return (self.driver(f"restore split {check_file} {OUT}/tree"),
                self.clients("restore", "split", check_file, OUT))


class Copy(Job):
    def commands(self):
        source = self.tree.path
        return {
            OURS: self.driver(f"backup dir {source} {OUT}"),
            "rsync": ["rsync", "-a", "--fsync", source, OUT],
            "cp": ["cp", "-a", source, OUT],
            **self.clients("backup", "dir", source, OUT),
            FLOOR: self.floor("copy", source, OUT),
        }

    def check(self, name):
        tree = self.tree
        path = OUT if name == FLOOR else f"{OUT}/{self.name}"
        links = 0 if name in (OURS, CHECKED, CTL, FLOOR) else tree.links  # ours passes over links
        require(count_below(path), [tree.files, tree.directories, links, tree.bytes])


class Brief(Job):
    def commands(self):
        source, brief = self.tree.path, f"{OUT}/brief"
        return {
            OURS: self.driver(f"get_brief dir {source} {brief}"),
            "find": ["find", source, "-printf", "%p;%m;%s;%T@\\n"],
            **self.clients("brief", "dir", source, brief),
            FLOOR: self.floor("brief", source, brief),
        }

    def output_bytes(self):
        return self.tree.entries * 256

    def check(self, name):
        tree = self.tree
        with open(STDOUT if name == "find" else f"{OUT}/brief", "rb") as lines:
            found = sum(1 for _ in lines)
        # Ours passes over links; find lists the directory itself, too.
        more = {"find": tree.links + 1, FLOOR: tree.links}.get(name, 0)
        require(found, tree.files + tree.directories + more)
