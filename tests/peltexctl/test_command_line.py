"""Options, exit statuses, and the subcommands that carry out one task."""

import json
import os
import signal
import subprocess
import unittest

from client import PROGRAM, ClientTest, of_event, read_until

TASK = ["backup", "file", "/data/data/source", "/data/data/copies"]

# Shows every entry of / but /data in a new root, and runs the rest of its words there.
WITHOUT_DATA = """
new=$1; shift; mount -t tmpfs tmpfs "$new"
for entry in /*; do
    if [ "$entry" = /data ]; then continue
    elif [ -L "$entry" ]; then cp -P "$entry" "$new$entry"
    elif [ -d "$entry" ]; then mkdir "$new$entry"; mount --rbind "$entry" "$new$entry"
    fi
done
exec chroot "$new" "$@"
"""


class CommandLineTest(ClientTest):
    def test_failures_are_one_line_and_a_status(self):
        self.write("file")
        cases = [
            (2, "subcommand", []),
            (2, "nosuch", ["nosuch"]),
            (2, "loud", ["--log", "loud", "shell"]),
            (2, "DEST", ["backup", "dir", "/data/data/a"]),
            (2, '"zip"', ["backup", "zip", "/data/data/a", "/data/data/b"]),
            (2, '"a b"', ["backup", "dir", "a b", "/data/data/b"]),
            (2, '""', ["backup", "dir", "/data/data/a", ""]),
            (2, '"u:r "', [*TASK, "--seinfo", "u:r "]),
            *[(2, uid, [*TASK, "--uid", uid]) for uid in ["-1", "2147483648", "0x10", "1 ", "root"]],
            (3, "/nosuch.so", ["--library", "/nosuch.so", "shell"]),
            (3, "startBackupSession", ["--library", "other.so", "shell"]),
            (3, self.path("file"), ["--data", self.path("file"), "shell"]),
            (3, self.path("file/x"), ["--data", self.path("file/x"), *TASK]),
            (3, '""', ["--data", "", "shell"]),
            (3, "/", ["--data", "/", "shell"]),
        ]
        # A name without a slash is a file of the working directory.
        os.symlink(os.path.join(os.path.dirname(PROGRAM), "libpeltexplatform.so"),
                   self.path("other.so"))
        for status, word, arguments in cases:
            with self.subTest(arguments):
                done = subprocess.run([PROGRAM, *arguments], cwd=self.data, capture_output=True,
                                      timeout=60)
                self.assertEqual((done.returncode, done.stdout), (status, b""))
                self.assertRegex(done.stderr.decode(), r"\Apeltexctl: .*\n\Z")
                self.assertIn(word, done.stderr.decode())

    def test_data_needs_root(self):
        try:
            done = subprocess.run([PROGRAM, "--data", "/tmp", "shell"], user="nobody",
                                  capture_output=True, timeout=60)
        except PermissionError:
            self.skipTest("the program lies where others may not look")
        self.assertEqual((done.returncode, done.stderr), (3, b"peltexctl: --data needs root\n"))

    def test_output_that_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run([PROGRAM, "--data", self.data, "shell"], input=b"delay 1\n",
                                  stdout=full, stderr=subprocess.PIPE, timeout=60)
        self.assertEqual(done.returncode, 1)

    def test_second_signal_ends_what_never_ends(self):
        os.mkfifo(self.path("data/fifo"))
        process = self.start("--json", "backup", "file", "/data/data/fifo", "/data/data/out")
        read_until(process, "status", code=1)
        process.send_signal(signal.SIGINT)
        read_until(process, "status", code=2)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(60), 130)

    def test_log_level(self):
        for level, priorities in [("debug", {b"D", b"E"}), ("error", {b"E"}), ("silent", set())]:
            done = self.run_program("--log", level, "shell", stdin=b"x\n")
            self.assertEqual({line[:1] for line in done.stderr.splitlines()}, priorities)

    def test_data_is_made_where_missing_and_seen_by_nobody_else(self):
        os.mkdir(self.path("root"))
        for name, wrapper in [("with /data", []),
                              ("without", ["unshare", "--mount", "sh", "-ec", WITHOUT_DATA, "sh",
                                           self.path("root")])]:
            with self.subTest(name):
                os.makedirs(self.path(name, "data"))
                self.write(name + "/data/source", name.encode())
                for directory, status in [(self.path(name), 0), (self.path(name, "not/there"), 1)]:
                    done = subprocess.run([*wrapper, PROGRAM, "--data", directory, *TASK],
                                          capture_output=True, timeout=60)
                    self.assertEqual(done.returncode, status, done)
                with open(self.path(name, "data/copies/source")) as file:
                    self.assertEqual(file.read(), name)
                self.assertEqual(os.listdir(self.path(name, "not/there")), [])
                self.assertFalse(os.path.exists("/data/data/copies"))

    def test_task_in_objects_and_in_words(self):
        self.write("data/source", bytes(300_000))
        done = self.run_program("--json", *TASK, "--uid", "10123", "--seinfo", "u:r:x")
        objects = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual(of_event(objects, "result")[0]["command"],
                         "backup file /data/data/source /data/data/copies u:r:x 10123")
        self.assertEqual([entry["code"] for entry in of_event(objects, "status")], [1, 3, 3, 3, 0])
        self.assertEqual((objects[0]["event"], objects[-1]["event"]), ("session", "closed"))
        self.assertEqual(os.stat(self.path("data/copies/source")).st_uid, 10123)
        done = self.run_program(*TASK)
        self.assertRegex(done.stdout.decode(),
                         r"\Atask 101: started\n(task 101: \S+ KiB of 293.0 KiB .*\n)*"
                         r"task 101: done after \S+ s\n\Z")
        for words, arguments in [(b"does not exist", ["move", "/data/data/no", "/data/data/x"]),
                                 (b"failed: a path", ["restore", "file", "/etc/passwd", "/data/x"])]:
            with self.subTest(arguments):
                done = self.run_program(*arguments)
                self.assertEqual(done.returncode, 1)
                self.assertIn(words, done.stdout + done.stderr)

    def test_signal_aborts_and_waits_for_the_end(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number):
                os.mkfifo(self.path(f"data/{number}"))
                task = self.start("--json", "backup", "file", f"/data/data/{number}", "/data/data/x")
                read_until(task, "status", code=1)
                task.send_signal(number)
                told = read_until(task, "result", command="abort 101", result=0)
                self.assertEqual([entry["code"] for entry in of_event(told, "status")], [2])
                self.open_fifo(f"data/{number}")
                read_until(task, "status", message="processTask finish")
                self.assertEqual(task.wait(60), 130)


if __name__ == "__main__":
    unittest.main()
