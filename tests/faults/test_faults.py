"""What each kind of task makes of a fault at each of its calls, and of what changes under it."""

import contextlib
import os
import pathlib
import re
import resource
import shutil
import stat
import subprocess
import tempfile
import unittest

from stopped_calls import OPERATIONS, Client

# {i} is what a task finds, {o} what it makes.
KINDS = {
    "file-backup": "backup file {i}/one.f {o}/dest default 10123",
    "file-restore": "restore file {i}/one.f {o}/dest default 10123",
    "tree-backup": "backup dir {i}/app {o}/dest default 10123",
    "tree-restore": "restore dir {i}/copy {o}/app default 10123",
    "tree-move": "move dir {i}/app {o}/app default 10123",
    "list-backup": "backup byfile {i}/list.txt {o}/app default 10123",
    "pack-tar": "backup tar {i}/app {o}/dest default 10123",
    "pack-split": "backup split {i}/app {o}/dest 1 default 10123",
    "unpack-tar": "restore tar {i}/app.tar {o}/app default 10123",
    "unpack-split": "restore split {i}/app.tar.txt {o}/app default 10123",
    "brief-tree": "get_brief dir {i}/app {o}/brief.txt default 10123",
    "brief-list": "get_brief byfile {i}/search.txt {o}/brief.txt default 10123",
}
# What makes that from {i}/app before.
BEFORE = {
    "tree-restore": "backup dir {o}/app {i}/copy default 10001",
    "unpack-tar": "backup tar {i}/app {i} default 10001",
    "unpack-split": "backup split {i}/app {i} 1 default 10001",
}

# The first row that fits the call, its entry and the kind tells the outcomes, from the first such
# call of the entry on; the last letter is for all that follow. F: the task fails, as where no row
# fits. L: it does not, though something may be lost. U: it comes to what it comes to without a
# fault. ?: any of these.
RULES = [line.split() for line in r"""
access  in/one.f          file-.*       F
access  in/app            tree-move     FU
access  in/.*d            tree-move     U
access  in/app            brief-.*      L
access  in/.*f            .*            L
access  out/dest          file-.*       UUUUF
access  (out.*)?          .*            U
stat    out/dest          file-.*       FU
stat    out/.*txt         pack-split    UF
stat    .*                pack-.*       F
stat    in/list.txt       list-backup   FU
stat    in/app.tar..      unpack-split  FU
stat    in/.*(l|\.t.*)    .*            U
stat    in/one.f          brief-list    UFL
stat    in/app            .*list.*      LF
stat    in/.*d            tree-move     LFU
stat    in/.*d            .*            LF
stat    in/.*f            list-backup   LLF
stat    in/.*f            tree-backup   LF
stat    in/.*f            .*            L
stat    out/.*\..         tree-restore  L
stat    out.*             .*            U
create  out/big.f         unpack-split  UL
create|chmod  out/.*      unpack-.*     U
open|create  .*f          (.*ck|file)-.*  F
open    in/.*f            list-.*       L
open    in/.*f            .*            UL
open    in/.*d            tree-move     FU
open    in/app.tar.txt    .*            UF
read|seek  in/app.tar(..)?  .*          ?
open|read  in/(app.tar..|copy/app.txt)  .*  L
create|write  out/.*f     .*            L
readdir  .*               tree-move     FFU
write   out/.*txt         pack-.*       F
write   out/.*txt         .*            LF
short-write  out/.*f      (file|tree|list)-.*  L
mkdir|symlink|chown  .*   unpack-.*     L
remove  in/app            tree-move     F
chmod   out/.*\..         tree-restore  FL
seek|remove|sync|short-.*  .*  .*       U
""".strip().splitlines()]

# In the directory of what a task finds. No block of a file is like another.
MAKE = """
    mkdir -p app/w.d app/e.d
    chmod 700 app/e.d
    for file in one.f:20000 app/a.f:700 app/w.d/w.f:7 app/$(printf 'l%.0s' {1..240}).f:9000 $@; do
        seq 200000 | head -c ${file#*:} > ${file%:*}
    done
    # A move leaves links where they are, and fails.
    [ $0 = tree-move ] || ln -s a.f app/s.l
    [ $0 = tree-move ] || ln -s $(printf 't%.0s' {1..120}) app/t.l
    chown -hR 10001:10001 .
    find $PWD/app -type f -printf '%p;416;0;1;1\\n' -o -type d -printf '%p;416;1;1;1\\n' > list.txt
    printf '[include]%s\\n[include]%s\\n[exclude]%s\\n' $PWD/{app,one.f,app/e.d} > search.txt
"""


def snapshot(directory):
    """What stands below it, by relative path; times are no part of it."""
    entries = {}
    for parent, directories, files in os.walk(directory):
        for path in (os.path.join(parent, name) for name in directories + files):
            status, text = os.lstat(path), None
            if stat.S_ISLNK(status.st_mode):
                text = os.readlink(path)
            elif stat.S_ISREG(status.st_mode):
                text = pathlib.Path(path).read_bytes()
            entries[os.path.relpath(path, directory)] = (status.st_mode, status.st_uid, text)
    return entries


def outcome_of(kind, calls, at, fault):
    outcomes = next((outcomes for *patterns, outcomes in RULES
                     if all(map(re.fullmatch, patterns, (fault, calls[at].path, kind)))), "F")
    nth = [call[:2] for call in calls[:at]].count(calls[at][:2])
    return outcomes[min(nth, len(outcomes) - 1)]


class FaultTest(unittest.TestCase):
    def begin_each(self, kinds=KINDS):
        """Makes what each task finds, and runs it without a fault; if it can, over what it made."""
        for kind in kinds:
            # Records of its long paths fill a stream's buffer more than once.
            directory = self.enterContext(tempfile.TemporaryDirectory(dir="/data/data"))
            self.kind, self.root = kind, directory + ("/" + "x" * 250) * 4
            self.i, self.o, self.first = self.root + "/in", self.root + "/out", self.root + "/first"
            self.client, self.command = Client(self.root), self.place(KINDS[kind])
            os.makedirs(self.i)
            large = ["app/big.f:1200000"] * ("pack" in kind)
            subprocess.run(["bash", "-ec", MAKE, kind, *large], cwd=self.i, check=True)
            if kind in BEFORE:
                shutil.copytree(self.i + "/app", self.o + "/app", symlinks=True)
                self.assertEqual(self.client.run(self.place(BEFORE[kind])).status, 0)
            subprocess.run(["cp", "-a", self.i, self.first], check=True)
            self.found, self.whole, self.made = snapshot(self.i), None, None
            self.run_task("U")
            if snapshot(self.i) == self.found:
                self.run_task("U", renewed=False)
            yield kind, self.whole.calls
            self.assertEqual(self.client.close(), [])

    def place(self, text):
        return text.format(i=self.i, o=self.o)

    def renew(self):
        """Gives the task what it found first."""
        if snapshot(self.i) != self.found:
            shutil.rmtree(self.i)
            subprocess.run(["cp", "-a", self.first, self.i], check=True)
        shutil.rmtree(self.o, ignore_errors=True)
        os.makedirs(self.o + "/app" * ("unpack" in self.kind))

    def run_task(self, outcome, at=None, act=None, renewed=True, changes_source=False, closes=False):
        """Runs the task and looks at all that holds whatever happens."""
        if renewed:
            self.renew()
        descriptors = self.client.descriptors()
        run = self.client.run(self.command, at, act)
        # A brief of a directory stays open.
        briefs = [self.o + "/brief.txt"] * (self.kind == "brief-tree" and not closes)
        self.assertIn(self.client.descriptors(), (descriptors, sorted(descriptors + briefs)))
        found, made = snapshot(self.i), snapshot(self.o)
        self.whole, self.made = self.whole or run, self.made or made
        same = run.status == 0 and run[2:] == self.whole[2:] and made == self.made
        self.assertIn(outcome, "?F" if run.status else "?LU" if same else "?L")
        for name, entry in {} if changes_source else self.found.items():
            if self.kind == "tree-move" and name.startswith("app"):
                there = [where[name][2] for where in (found, made) if name in where]
                self.assertTrue(outcome not in "FU" or entry[2] in there, name)
            elif self.kind != "unpack-split" or name in found:
                self.assertEqual(found[name], entry)
        self.assertTrue(run.slices.items() <= self.whole.slices.items(), "slices")
        probe = self.client.run(f"backup file {self.first}/one.f {self.root}/probe default 0")
        self.assertEqual(probe.status, 0, "the next task")

    def test_each_call_fails_or_comes_short(self):
        for kind, calls in self.begin_each():
            operations = [call.operation for call in calls]
            is_copy = bool(re.match("file|tree|list", kind))
            self.assertEqual("sync" in operations, is_copy, "what is copied is on the disk")
            for index, call in enumerate(calls):
                acts = {call.operation: lambda call: -OPERATIONS[call.operation][0],
                        "short-" + call.operation: self.client.come_short}
                for fault in [*acts][:1 + (call.operation in ("read", "write"))]:
                    with self.subTest(f"{kind}: {index}, {fault} {call.path[-30:]}"):
                        at_end = fault == "write" not in operations[index + 1:]
                        self.run_task(outcome_of(kind, calls, index, fault), index, acts[fault],
                                      closes=at_end)

    def test_directory_that_becomes_a_link(self):
        """Nothing of where it leads is packed, copied or listed; a move deletes nothing there."""
        copies = "tree-backup", "tree-restore"
        for kind, calls in self.begin_each([*copies, "tree-move", "pack-tar", "brief-tree"]):
            directory = self.i + "/copy" * (kind == "tree-restore") + "/app/w.d"
            os.mkdir(self.root + "/secret")
            for name, text in ("w.f", "OUTSIDE"), ("OUTSIDE.f", ""):
                pathlib.Path(self.root, "secret", name).write_text(text, "ascii")
            secret = snapshot(self.root + "/secret")

            def act(_):
                if os.path.isdir(directory):
                    os.rename(directory, tempfile.mkdtemp(dir=self.root))
                    os.symlink(self.root + "/secret", directory)
            for index, call in enumerate(calls):
                if "/w.d" in call.path:
                    with self.subTest(f"{kind}: {index}, {call.operation}"):
                        self.run_task("L" if kind in copies else "?", index, act,
                                      changes_source=True)
                        self.assertNotIn("OUTSIDE", str(snapshot(self.o)))
                        self.assertEqual(snapshot(self.root + "/secret"), secret)

    def test_disk_that_is_full_or_read_only(self):
        disks = {"size=8m": "U", "size=9m,ro": "F", "size=4k": "F", "size=64k": "?",
                 "size=1100k": "?", "nr_inodes=3": "?"}
        for kind, _ in self.begin_each():
            for options, outcome in disks.items():
                if outcome == "F" and not kind.startswith(("pack", "brief")):
                    outcome = "?" if options == "size=4k" else "L" if "un" in kind else "F"
                with self.subTest(f"{kind}: {options}"), contextlib.ExitStack() as afterwards:
                    self.renew()
                    steps = "mount -t tmpfs -o ${1%,ro} a $0; mkdir -p $0/$2; mount -o remount,$1 $0"
                    app = "app" * ("unpack" in kind)
                    subprocess.run(["bash", "-ec", steps, self.o, options, app], check=True)
                    afterwards.callback(subprocess.run, ["umount", "-l", self.o], check=True)
                    self.run_task(outcome, renewed=False)

    @unittest.skipIf(os.environ["PELTEX_SANITIZE"] or os.environ["PELTEX_LIBCXX"],
                     "where plain new asks for memory first, and its refusal ends the program")
    def test_memory_that_is_refused(self):
        for kind, _ in self.begin_each([kind for kind in KINDS if "pack" in kind]):
            def limit(size):
                resource.prlimit(self.client.process.pid, resource.RLIMIT_DATA, (size, -1))
            self.run_task("L" if "un" in kind else "F", 0, lambda _: limit(1))
            limit(-1)
            self.run_task("U")


if __name__ == "__main__":
    unittest.main()
