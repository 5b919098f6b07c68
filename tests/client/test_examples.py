"""Runs the examples of the documents and compares what they print, word by word.

    test_examples.py               in the throw-away root of the tests
    test_examples.py --update      writes what is printed into the documents:

        scripts/sandbox.sh --write docs -- env PELTEXCTL=build/release/peltexctl \
            python3 -B tests/client/test_examples.py --update

An example is a fence with the info string "session NAME" or "files NAME". What its lines mean, in
what order they stand and what is left out is said to readers at the heads of the documents. "session
NAME realtime" waits as long as a client may: with PELTEX_REALTIME=1 these run and no others.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROJECT = pathlib.Path(__file__).parents[2]
DOCUMENTS = [PROJECT / name
             for name in ("docs/COMMANDS.md", "docs/FORMATS.md", "tests/client/cases.md")]
FENCE = re.compile(r"^```(session|files) (\S+)( realtime)?\n(.*?)^```$", re.MULTILINE | re.DOTALL)
TYPED = re.compile(r"[$>]( |$)")
OPENED = '{"event":"session","session":100}'
CLOSED = '{"event":"closed","session":100,"result":0}'
ANSWERS = {".open": "session", ".finish": "closed", ".wait": "waited", ".waitfor": "waited",
           ".threads": "threads", ".use": None, ".sleep": None, ".die": None}
ABORTED, PROGRESS, SLICE = 2, 3, 4
SECONDS = 200  # what an example may take
FUTEX = {"x86_64": "202"}.get(os.uname().machine, "98")  # the system call's number


def parse(line):
    return {**json.loads(line), "line": line.rstrip("\n")}


def is_paused(thread):
    """Whether a thread, by its directory in /proc, is a worker in a timed wait."""
    try:
        name = (thread / "comm").read_text()
        call = (thread / "syscall").read_text().split()
    except OSError:  # it has ended
        return False
    return name.startswith("BackupWorker") and call[0] == FUTEX and int(call[4], 16) != 0


class Shell:
    """One `peltexctl shell`, and the statuses that it has printed and we have not."""

    def __init__(self, data):
        self.process = subprocess.Popen(
            [os.environ["PELTEXCTL"], "--log", "silent", "--data", data, "shell"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.told = []

    def read(self):
        line = self.process.stdout.readline()
        if not line:
            raise AssertionError("the shell has ended")
        return parse(line)

    def read_until(self, event):
        while (entry := self.read())["event"] not in (event, "error"):
            self.told.append(entry)
        return entry

    def type(self, line):
        """Types a line. Returns what it prints, in the documents' order."""
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        words = line.split() or [""]
        event = ANSWERS[words[0]] if words[0].startswith(".") else "result"
        if event is None:
            return []
        answer = self.read_until(event)
        statuses = []
        if answer["event"] == "waited":
            statuses = self.take(answer["task"], answer["code"] if words[0] == ".waitfor" else None)
            if answer["code"] == SLICE and not statuses[-1]["message"].endswith("end"):
                self.wait_for_pause()
        return [*statuses, answer]

    def take(self, task, last_code=None):
        taken = []
        for entry in [entry for entry in self.told if entry["task"] == task]:
            self.told.remove(entry)
            taken.append(entry)
            if entry["code"] == last_code:
                break
        if any(entry["code"] == ABORTED for entry in taken):
            taken = [entry for entry in taken if entry["code"] != PROGRESS]
        return taken

    def wait_for_pause(self):
        """What comes between status 4 and the pause is lost. A pause is a worker's one timed wait."""
        deadline = time.monotonic() + 30
        while time.monotonic() < deadline:
            if any(map(is_paused, pathlib.Path(f"/proc/{self.process.pid}/task").iterdir())):
                return
            time.sleep(0.01)
        raise AssertionError("no worker pauses")

    def finish(self):
        self.process.stdin.close()
        output = [parse(line) for line in self.process.stdout]
        self.told += [entry for entry in output if entry["event"] == "status"]
        rest = [entry for entry in output if entry["event"] != "status"]
        return [*sorted(self.told, key=lambda entry: entry["task"]), *rest]


def show(entry):
    """The line that a document shows of what the shell printed."""
    if entry["event"] != "threads":
        return entry["line"]
    workers = [{"name": thread["name"], "nice": thread["nice"]} for thread in entry["threads"]
               if thread["name"].startswith("BackupWorker")]
    return json.dumps({"event": "threads", "threads": workers}, separators=(",", ":"))


def is_failure(entry):
    answer = entry.get("result" if entry["event"] == "result" else "code", 0)
    return entry["event"] == "error" or (entry["event"] != "status" and answer < 0)


def run_bash(command, shell_pid):
    done = subprocess.run(["bash", "-c", command], cwd="/data/data", text=True, timeout=60,
                          env={**os.environ, "LC_ALL": "C", "TZ": "UTC", "PID": str(shell_pid)},
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.stdout.splitlines()


def run_lines(kind, typed, data):
    """The text of an example of which these are the typed lines."""
    lines = []
    shell = Shell(data)

    def add(entries):
        lines.extend(show(entry) for entry in entries if kind == "session" or is_failure(entry))

    with shell.process:
        deadline = threading.Timer(SECONDS, shell.process.kill)
        deadline.start()
        try:
            if shell.read()["line"] != OPENED:
                raise AssertionError("the first session is another")
            for line in typed:
                lines.append(line)
                if line[0] == "$":
                    lines += run_bash(line[2:], shell.process.pid)
                else:
                    add(shell.type(line[2:]))
            add(shell.finish())
        finally:
            deadline.cancel()
            shell.process.kill()
    if lines[-1] == CLOSED:
        lines.pop()
    return "".join(line + "\n" for line in lines)


def run_example(kind, body):
    """What the document should say, from a run in a /data of its own."""
    typed = [line for line in body.splitlines() if TYPED.match(line)]
    with tempfile.TemporaryDirectory() as data:
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0771", "tmpfs", data], check=True)
        subprocess.run(["mount", "--bind", data, "/data"], check=True)
        try:
            os.mkdir("/data/data")
            return run_lines(kind, typed, data)
        finally:
            subprocess.run(["umount", "/data", data], check=True)


class ExamplesTest(unittest.TestCase):
    maxDiff = None

    def test_every_named_fence_is_an_example_of_its_own_name(self):
        for path in DOCUMENTS:
            text = path.read_text()
            names = [match[2] for match in FENCE.finditer(text)]
            self.assertEqual(len(names), len(re.findall(r"^```\w", text, re.MULTILINE)))
            self.assertEqual(sorted(names), sorted(set(names)))


def add_tests():
    is_realtime_run = "PELTEX_REALTIME" in os.environ
    for path in DOCUMENTS:
        for kind, name, realtime, body in FENCE.findall(path.read_text()):
            def test(self, kind=kind, body=body):
                self.assertEqual(body, run_example(kind, body))
            if bool(realtime) == is_realtime_run:
                setattr(ExamplesTest, f"test_{path.stem.lower()}_{name}", test)


def update():
    for path in DOCUMENTS:
        text = path.read_text()
        path.write_text(FENCE.sub(
            lambda match: match[0].replace(match[4], run_example(match[1], match[4])), text))


def main():
    if not os.path.exists("/.throw-away-root"):
        sys.exit("run this with scripts/test.sh or scripts/sandbox.sh: it mounts over /data")
    # The mounts over /data are for us alone: other tests run beside this one.
    if "PELTEX_DOCS_NAMESPACE" not in os.environ:
        os.environ["PELTEX_DOCS_NAMESPACE"] = "own"
        os.execvp("unshare", ["unshare", "--mount", "--propagation", "private",
                              sys.executable, *sys.orig_argv[1:]])
    os.umask(0o022)
    if sys.argv[1:] == ["--update"]:
        update()
        return
    add_tests()
    unittest.main()


if __name__ == "__main__":
    main()
