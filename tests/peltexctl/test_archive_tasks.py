"""Archive tasks from a command to their end: whole archives, sets of slices, what stops them."""

import json
import os
import signal
import subprocess
import unittest

from client import PROGRAM, ClientTest, of_event, read_until
from test_round_trip import describe

MIB = 1 << 20
SOURCE, BACKUP = "/data/data/src", "/data/data/backup"
COMMAND = f"backup split {SOURCE} {BACKUP} %d default 10123"
SPLIT = ["--json", "backup", "split", SOURCE, BACKUP, "--uid", "10123", "--slice-size", "1"]


def told(done):
    return [json.loads(line) for line in done.stdout.splitlines()]


def handed_over(objects):
    return [os.path.basename(entry["message"]) for entry in of_event(objects, "status")
            if entry["code"] == 4]


def results(objects):
    return [entry["result"] for entry in of_event(objects, "result")]


class ArchiveTasksTest(ClientTest):
    def make_source(self, sizes):
        os.makedirs(self.path("data/src/d/empty"))
        os.symlink("../0", self.path("data/src/d/link"))
        for number, size in enumerate(sizes):
            path = self.path(f"data/src/{number}")
            self.write(path, os.urandom(min(size, 4 * MIB)))
            os.truncate(path, size)
            os.chown(path, 10123, 10123)
            os.chmod(path, 0o600 + number)

    def listing(self, name):
        return sorted(os.listdir(self.path("data", name)))

    def check_restore(self, kind, archive, name):
        done = self.run_program("restore", kind, archive, "/data/data/" + name, "--uid", "10456")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertEqual(describe(self.path("data", name)), describe(self.path("data/src")))
        for entry, owner in [("0", 10456), ("d", 0), ("d/link", 0)]:
            self.assertEqual(os.lstat(self.path("data", name, entry)).st_uid, owner, entry)

    def test_whole_archive_in_objects_and_back(self):
        self.make_source([0, 513, 200_000])
        for options in [], ["--no-verify"]:
            done = self.run_program("--json", "backup", "tar", SOURCE, BACKUP, "--uid", "10123",
                                    *options)
            objects = told(done)
            # The task may start before its command is answered.
            objects.remove({"event": "result", "result": 101,
                            "command": f"backup tar {SOURCE} {BACKUP} default 10123"})
            self.assertEqual([entry.get("code", entry["event"]) for entry in objects],
                             ["session", 1, 3, 0, "closed"] + ["verified"] * (not options) + ["summary"])
            self.assertEqual((done.returncode, done.stderr), (0, b""))
        archive = os.stat(self.path("data/backup/src.tar"))
        self.assertEqual((archive.st_mode & 0o7777, archive.st_uid), (0o660, 10123))
        self.check_restore("tar", BACKUP + "/src.tar", "new/place")

    def test_slices_are_taken_and_come_back(self):
        self.make_source([1, 3 * MIB + 700, MIB])
        for directory, options in [("backup", ["--no-verify"]),
                                   ("taken/deep", ["--take", "/data/data/taken/deep"])]:
            with self.subTest(directory):
                done = self.run_program(*SPLIT, *options)
                self.assertEqual((done.returncode, done.stderr), (0, b""), done.stdout)
                objects = told(done)
                *slices, last = handed_over(objects)
                count = len(slices) + 1
                self.assertGreater(count, 3)
                self.assertEqual(slices, [f"src.tar.{i}" for i in range(count - 1)])
                self.assertEqual(last, f"src.tar.{count - 1}|end")
                self.assertEqual({(entry["command"], entry["result"])
                                  for entry in of_event(objects, "result")}, {(COMMAND % 1, 101)})
                self.assertEqual([entry["slices"] for entry in of_event(objects, "verified")],
                                 [] if directory == "backup" else [count])
                self.assertEqual(self.listing(directory),
                                 [f"src.tar.{i}" for i in range(count)] + ["src.tar.txt"])
                self.check_restore("split", f"/data/data/{directory}/src.tar.txt",
                                   "from/" + directory)
                self.assertEqual(self.listing(directory), ["src.tar.txt"])
                os.remove(self.path("data", directory, "src.tar.txt"))
                self.assertEqual(self.listing("backup"), [])

    def test_restore_onto_a_full_disk_is_told_and_keeps_the_slices(self):
        self.make_source([100, 3 * MIB])
        for kind in ("tar", "split"):
            self.assertEqual(self.run_program("backup", kind, SOURCE, BACKUP, *SPLIT[-2:]).returncode, 0)
        slices = self.listing("backup")
        os.mkdir(self.path("data/full"))
        for archive in ("tar src.tar", "split src.tar.txt"):
            kind, name = archive.split()
            done = subprocess.run(
                ["unshare", "--mount", "sh", "-ec",
                 'mount -t tmpfs -o size=1m none "$1/data/full"; shift; exec "$@"', "sh", self.data,
                 PROGRAM, "--data", self.data, "--log", "silent", "restore", kind,
                 f"{BACKUP}/{name}", "/data/data/full"], capture_output=True, timeout=60)
            self.assertEqual(done.returncode, 1, done)
            self.assertRegex(done.stderr, rb"/data/data/full/\d: is not there as ")
            self.assertEqual(self.listing("backup"), slices)

    def test_set_that_would_not_come_back_is_told(self):
        os.mkdir(self.path("data/src"))
        name = "n" * 85  # the packed path has 100 bytes
        self.write("data/src/" + name, bytes(MIB - 1))
        done = self.run_program(*SPLIT)
        self.assertEqual(done.returncode, 1)
        self.assertEqual([entry["entry"] for entry in of_event(told(done), "fault")], [name])
        self.assertEqual(self.run_program(*SPLIT, "--no-verify").returncode, 0)

    def test_empty_files_lost_behind_a_full_slice_are_told(self):
        """Of both orders of the two entries, which the file system chooses, one loses the file."""
        statuses = []
        for names in ("full", "empty"), ("empty", "full"):
            os.makedirs(self.path(f"data/{names[0]}"))
            for name in names:
                self.write(f"data/{names[0]}/{name}", b"x" * 1048064 if name == "full" else b"")
            done = self.run_program("backup", "split", f"/data/data/{names[0]}", BACKUP,
                                    "--slice-size", "1")
            self.assertEqual(b"empty: is not in the set\n" in done.stdout, done.returncode == 1)
            statuses.append(done.returncode)
        self.assertEqual(sorted(statuses), [0, 1])

    def test_refused_restore_leaves_no_directories(self):
        self.assertEqual(self.run_program("restore", "tar", "/data/data/none.tar",
                                          "/data/data/a/b").returncode, 1)
        self.assertEqual(os.listdir(self.path("data")), [])

    def test_wrong_slice_sizes(self):
        for size in ("0", "-1", "2048", "99999999999", "x", "1.5", "0x10", ""):
            with self.subTest(size):
                done = self.run_program(*SPLIT[:-2], "--slice-size=" + size)
                self.assertEqual((done.returncode, done.stdout), (2, b""))
                self.assertRegex(done.stderr, rb"\Apeltexctl: .*--slice-size.*\n\Z")

    def test_signal_leaves_no_unfinished_slice(self):
        self.make_source([600 * MIB])  # of more slices than are written until the signal is seen
        for directory, options in [("backup", []), ("taken", ["--take", "/data/data/taken"])]:
            with self.subTest(directory):
                task = self.start("--log", "silent", *SPLIT, *options)
                objects = [entry for _ in range(3) for entry in read_until(task, "status", code=4)]
                task.send_signal(signal.SIGINT)
                objects += [json.loads(line) for line in task.stdout]
                self.assertEqual(task.wait(60), 130)
                last = of_event(objects, "status")[-1]
                self.assertEqual((last["code"], last["message"]), (-1, "processTask finish"))
                handed, left = handed_over(objects), {*self.listing(directory)}
                self.assertLess(len(handed), 600)
                # Also the last one, which an abort while the task pauses deletes.
                self.assertEqual(left, {*handed})
                self.assertLessEqual({*self.listing("backup")}, left)
                self.assertRegex(of_event(objects, "error")[-1]["message"],
                                 f"interrupted: {len(left)} slices in /data/data/{directory} are left")
                for name in left:
                    os.remove(self.path("data", directory, name))

    def test_slices_that_cannot_be_taken_stop_the_backup_and_stay(self):
        self.make_source([5 * MIB])
        self.write("data/file")
        os.makedirs(self.path("data/taken/src.tar.1/in the way"))
        for take, handed in [("file", []), ("file/deeper", []),
                             ("taken", ["src.tar.0", "src.tar.1"])]:
            with self.subTest(take):
                done = self.run_program(*SPLIT, "--take", "/data/data/" + take)
                objects = told(done)
                self.assertEqual((done.returncode, handed_over(objects)), (1, handed))
                errors = [entry["message"] for entry in of_event(objects, "error")]
                self.assertIn("taken", errors[0])
                self.assertIn("give another --take DIR", errors[-1])
                self.assertEqual(of_event(objects, "verified"), [])
        self.assertEqual(of_event(objects, "result")[-1],
                         {"event": "result", "command": "abort 101", "result": 0})
        self.assertIn("1 slice in /data/data/taken and 1 slice in /data/data/backup are left",
                      errors[-1])
        self.assertEqual((self.listing("backup"), os.path.isfile(self.path("data/taken/src.tar.0"))),
                         (["src.tar.1"], True))

    def test_early_continuation_is_lost_and_a_later_one_moves(self):
        self.make_source([256 * MIB])
        command = COMMAND % 200
        objects, status = self.shell(
            command, ".waitfor 101 3", command,  # while the first slice is being written
            ".waitfor 101 4", ".sleep 1000", "keepalive", command, ".waitfor 101 4", ".wait 101")
        self.assertEqual((results(objects), status), ([101, 101, 0, 101], 0))
        alive = objects.index({"event": "result", "command": "keepalive", "result": 0})
        self.assertEqual(handed_over(objects[:alive]), ["src.tar.0"])
        self.assertEqual(handed_over(objects[alive:]), ["src.tar.1|end"])


if __name__ == "__main__":
    unittest.main()
