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
            (2, '"nosuch" is no subcommand: shell, backup', ["nosuch"]),
            (2, "see peltexctl list --help", ["list", "a", "b"]),
            (2, "loud", ["--log", "loud", "shell"]),
            (2, "DEST", ["backup", "dir", "/data/data/a"]),
            (2, '"--frob" is no option here', ["backup", "--frob"]),
            (2, '"-nofile" is no option here; a file of that name is written ./-nofile', ["list", "-nofile"]),
            (2, "zip not in", ["backup", "zip", "/data/data/a", "/data/data/b"]),
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
        self.assertEqual(done.returncode, 3)
        self.assertRegex(done.stderr, rb"\Apeltexctl: --data needs root.*\n\Z")

    def test_output_that_cannot_be_written_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run([PROGRAM, "--data", self.data, "shell"], input=b"delay 1\n",
                                  stdout=full, stderr=subprocess.PIPE, timeout=60)
        self.assertEqual(done.returncode, 1)

    def test_log_level(self):
        for level, priorities in [("debug", {b"D", b"E"}), ("error", {b"E"}), ("silent", set())]:
            done = self.run_program("--log", level, "shell", stdin=b"x\n")
            self.assertEqual({line[:1] for line in done.stderr.splitlines()}, priorities)

    def test_the_librarys_errors_are_shown_of_tasks_that_failed(self):
        os.mkdir(self.path("data/src"))
        for number in range(30):
            os.symlink("x", self.path(f"data/src/\033[31m{number}"))
        arguments = ["backup", "dir", "/data/data/src", "/data/data/bk"]
        self.assertEqual(self.run_program(*arguments).stderr, b"")
        shown = self.run_program("--log", "error", *arguments).stderr
        self.assertEqual((shown.count(b"S_ISLNK"), shown.count(rb"\033[31m"), shown.count(b"\033")),
                         (30, 30, 0))
        os.chmod(self.path("data/bk"), 0)
        self.write("data/file")
        failed = self.run_program("backup", "dir", "/data/data/src", "/data/data/file")
        self.assertEqual(failed.returncode, 1)
        self.assertLess(failed.stderr.index(b"E/BackupSessionManager"), failed.stderr.index(b"task 101 failed"))

    def test_missing_streams_become_no_output(self):
        os.mkdir(self.path("data/src"))
        self.write("data/src/a", bytes(3 << 20))
        for number, arguments in enumerate([["--log", "debug"], ["--json"]]):
            for missing in "<&-", ">&-", "2>&-", "<&- >&- 2>&-":
                done = subprocess.run(
                    ["sh", "-c", f'exec "$@" {missing}', "sh", PROGRAM, "--data", self.data, *arguments,
                     "backup", "split", "/data/data/src", "/data/data/bk", "--replace", "--slice-size", "1"],
                    capture_output=True, timeout=60)
                self.assertEqual(done.returncode, 0, done)
                verified = self.run_program("verify", "/data/data/bk/src.tar.txt")
                self.assertIn(b": whole", verified.stdout)

    def test_data_is_made_where_missing_and_seen_by_nobody_else(self):
        os.mkdir(self.path("root"))
        hide = ["unshare", "--mount", "sh", "-ec", WITHOUT_DATA, "sh", self.path("root")]
        dangle = ["sh", "-ec", 'ln -s /nowhere /data; exec "$@"', "sh"]
        for name, wrapper in [("with /data", []), ("without", hide),
                              ("with a link to nowhere", hide + dangle)]:
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
        self.assertEqual((objects[0]["event"], objects[-1]["event"]), ("session", "summary"))
        self.assertEqual(os.stat(self.path("data/copies/source")).st_uid, 10123)

    def test_refused_tasks_name_path_and_reason(self):
        self.write("data/noarchive")
        no_area = r"/etc/passwd: is not in an area .*; use --data DIR"
        cases = [
            (r"/data/data/no: does not exist$", ["move", "/data/data/no", "/data/data/x"]),
            (r"/data/data/no: does not exist$", ["backup", "tar", "/data/data/no", "/data/data/x"]),
            (no_area, ["restore", "file", "/etc/passwd", "/data/data/x"]),
            (no_area, ["backup", "dir", "/data/data", "/etc/passwd"]),
            (r'/data/data/\.\./x: has "\.\./" in it', ["brief", "dir", "/data/data/../x", "/data/data/y"]),
            (r"failed: the library's log above .*peltexctl verify /data/data/noarchive",
             ["restore", "tar", "--force", "/data/data/noarchive", "/data/data/x"]),
            (r"failed: --log error shows", ["--log", "silent", "restore", "tar", "--force",
                                            "/data/data/noarchive", "/data/data/x"]),
        ]
        for pattern, arguments in cases:
            with self.subTest(arguments):
                done = self.run_program(*arguments)
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stderr.decode(), "(?m)^peltexctl: .*" + pattern)
                told = [json.loads(line) for line in self.run_program("--json", *arguments)
                        .stdout.splitlines()]
                self.assertRegex(of_event(told, "error")[-1]["message"], pattern)

    def test_areas_that_an_error_names_are_those_of_the_library(self):
        error = self.run_program("move", "/", "/data/data/x").stderr.decode()
        areas = error[error.rindex("(") + 1:error.rindex(")")].split(", ")
        self.assertGreater(len(areas), 3)
        for area in areas:
            error = self.run_program(*TASK[:2], area + "/none", area + "/x").stderr.decode()
            self.assertIn("/none: does not exist", error)

    def test_slash_at_the_end_of_a_path_is_not_sent(self):
        os.mkdir(self.path("data/app"))
        for path, sent in [("/data/data/app/", "/data/data/app"), ("/data/data/app//", "/data/data/app")]:
            done = self.run_program("--json", "backup", "tar", path, "/data/data/bk/", "--replace")
            self.assertIn(f'"backup tar {sent} /data/data/bk default 0"', done.stdout.decode())

    def test_signal_aborts_and_waits_for_the_end(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                os.mkfifo(self.path(f"data/{number}"))
                task = self.start("--json", "backup", "file", "--force", f"/data/data/{number}",
                                  "/data/data/x")
                read_until(task, "status", code=1)
                task.send_signal(number)
                told = read_until(task, "result", command="abort 101", result=0)
                self.assertEqual([entry["code"] for entry in of_event(told, "status")], [2])
                self.open_fifo(f"data/{number}")
                read_until(task, "status", message="processTask finish")
                self.assertEqual(task.wait(60), 130)


if __name__ == "__main__":
    unittest.main()
