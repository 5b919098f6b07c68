"""Archive tasks from a command to their end: whole archives, sets of slices, what stops them."""

import json
import os
import signal
import subprocess
import unittest

from client import PROGRAM, ClientTest, of_event, read_until

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

    def test_whole_archive_in_objects(self):
        self.make_source([0, 513, 200_000])
        for options in ["--sums"], ["--no-verify", "--replace"]:
            done = self.run_program("--json", "backup", "tar", SOURCE, BACKUP, "--uid", "10123",
                                    *options)
            objects = told(done)
            # The task may start before its command is answered.
            objects.remove({"event": "result", "result": 101,
                            "command": f"backup tar {SOURCE} {BACKUP} default 10123"})
            self.assertEqual([entry.get("code", entry["event"]) for entry in objects],
                             ["session", 1, 3, 0, "closed", "summary"])
            self.assertEqual((done.returncode, done.stderr), (0, b""))
            if "--sums" in options:
                subprocess.run(["sha256sum", "--quiet", "-c", "src.tar.sha256"], check=True,
                               cwd=self.path("data/backup"))
        archive = os.stat(self.path("data/backup/src.tar"))
        self.assertEqual((archive.st_mode & 0o7777, archive.st_uid), (0o660, 10123))
        self.assertEqual(self.listing("backup"), ["src.tar"])

    def test_slices_are_taken(self):
        self.make_source([1, 3 * MIB + 700, MIB])
        os.mkdir(self.path("data/host"))
        for directory, options in [("backup", ["--no-verify"]),
                                   ("taken/deep", ["--take", "/data/data/taken/deep", "--sums"]),
                                   ("host", ["--take", "/data/data/host", "--sums"])]:
            with self.subTest(directory):
                # The last is another file system, with a link in the way of a slice.
                wrapper = [] if directory != "host" else [
                    "unshare", "--mount", "sh", "-ec",
                    'mount -t tmpfs none "$1/data/host"; ln -s /victim "$1/data/host/src.tar.0"; '
                    'here=$1; shift; "$@"; status=$?; cp -a "$here"/data/host/* "$here/data/backup"; exit $status',
                    "sh", self.data]
                done = subprocess.run([*wrapper, PROGRAM, "--data", self.data, *SPLIT, *options,
                                       *["--replace"] * len(wrapper[:1])],
                                      capture_output=True, timeout=60)
                self.assertEqual((done.returncode, done.stderr), (0, b""), done.stdout)
                objects = told(done)
                *slices, last = handed_over(objects)
                count = len(slices) + 1
                self.assertGreater(count, 3)
                self.assertEqual(slices, [f"src.tar.{i}" for i in range(count - 1)])
                self.assertEqual(last, f"src.tar.{count - 1}|end")
                self.assertEqual({(entry["command"], entry["result"])
                                  for entry in of_event(objects, "result")}, {(COMMAND % 1, 101)})
                where = "backup" if wrapper else directory
                self.assertEqual(self.listing(where), [f"src.tar.{i}" for i in range(count)] +
                                 ["src.tar.sha256"] * ("--sums" in options) + ["src.tar.txt"])
                if "--sums" in options:
                    subprocess.run(["sha256sum", "--quiet", "-c", "src.tar.sha256"], check=True,
                                   cwd=self.path("data", where))
                verified = self.run_program("verify", f"/data/data/{where}/src.tar.txt")
                self.assertEqual(verified.returncode, 0, verified)
                self.assertEqual({(os.lstat(self.path("data", where, name)).st_uid,
                                   os.lstat(self.path("data", where, name)).st_mode & 0o777)
                                  for name in slices}, {(10123, 0o660)})
                for name in self.listing(where):
                    os.remove(self.path("data", where, name))
                self.assertEqual(self.listing("backup"), [])

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
                task = self.start("--log", "silent", *SPLIT, *options, "--force")
                objects = [entry for _ in range(3) for entry in read_until(task, "status", code=4)]
                task.send_signal(signal.SIGINT)
                objects += [json.loads(line) for line in task.stdout]
                self.assertEqual(task.wait(60), 130)
                # The worker's end may overtake the word that the abort was taken.
                last = {(s["code"], s["message"]) for s in of_event(objects, "status")[-2:]}
                self.assertEqual(last, {(2, ""), (-1, "processTask finish")})
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
        for take, handed, left in [
                ("file", [], "file: Not a directory"), ("file/deeper", [], "Not a directory"),
                ("taken", ["src.tar.0", "src.tar.1"],
                 "1 slice in /data/data/taken and 1 slice in /data/data/backup are left")]:
            with self.subTest(take):
                for name in self.listing("taken"):
                    if name == "src.tar.0":
                        os.remove(self.path("data/taken/src.tar.0"))
                os.path.isdir(self.path("data/taken/src.tar.1")) and take == "taken" and os.rename(
                    self.path("data/taken/src.tar.1"), self.path("data/way"))
                task = self.start(*SPLIT, "--take", "/data/data/" + take)
                if take == "taken":
                    read_until(task, "status", code=1)
                    os.rename(self.path("data/way"), self.path("data/taken/src.tar.1"))
                objects = [json.loads(line) for line in task.stdout]
                self.assertEqual((task.wait(60), handed_over(objects)), (1, handed))
                errors = [entry["message"] for entry in of_event(objects, "error")]
                self.assertEqual(len(errors), 1)
                self.assertIn(left, errors[0])
        self.assertEqual(self.listing("backup"), ["src.tar.1"])

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
