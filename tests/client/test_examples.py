"""Runs the examples of documents and compares what they print, word by word.

    test_examples.py DOCUMENT...             in the throw-away root of the tests
    test_examples.py --update DOCUMENT...    writes what is printed into the documents:

        scripts/sandbox.sh --write docs -- env PELTEXCTL=build/release/peltexctl \
            python3 -B tests/client/test_examples.py --update docs/COMMANDS.md

An example is a fence with the info string "session NAME", or files, client or archives. What its
lines mean, in what order they stand and what is left out is said to readers at the heads of the
documents. "session NAME realtime" waits as long as a client may, "client NAME large" writes
gigabytes to the disk, into TMPDIR: with PELTEX_EXAMPLES=realtime or =large these run and no others.
"""

import difflib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

from tar_model import crafted

FENCE = re.compile(r"^```(session|files|client|archives) (\S+) ?(realtime|large|)\n(.*?)^```$",
                   re.MULTILINE | re.DOTALL)
CLOSED = '{"event":"closed","session":100,"result":0}'
ANSWERS = {".open": "session", ".finish": "closed", ".wait": "waited", ".waitfor": "waited",
           ".threads": "threads", ".use": None, ".sleep": None, ".die": None}
ABORTED, PROGRESS, SLICE = 2, 3, 4
FUTEX = {"x86_64": "202"}.get(os.uname().machine, "98")  # the system call's number
PROGRAM = os.path.abspath(os.environ["PELTEXCTL"])
PROJECT = str(pathlib.Path(__file__).parents[2])
EXAMPLES = os.environ.get("PELTEX_EXAMPLES", "")
# What differs from run to run or is long, and what the documents have instead.
VARYING = [(r"(?<=^[DIWEF]/)(\w+)\(\d+\)", r"\1(PID)"), (r'(?<="seconds":)[\d.]+', "SECONDS"),
           (r'(?<="bytes_per_second":)\d+', "RATE"), (r"(?<=-restore-)\w{6}", "XXXXXX"),
           (r"(?<=[:,] )[\d.]+ s\b(, [\d.]+ \w+/s)?", "TIME"),
           (r"(\S{1,2}?)\1{79,}", lambda long: f"{{{long[1]}*{len(long[0]) // len(long[1])}}}")]


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

    def __init__(self):
        self.process = subprocess.Popen([PROGRAM, "--log", "silent", "shell"], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.objects = ({**json.loads(line), "line": line.rstrip("\n")}
                        for line in self.process.stdout)
        self.told, self.commands, self.over = [], {}, set()
        next(self.objects)  # of the session that is open

    def type(self, line):
        """Types a line. Returns what it prints, in the documents' order."""
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        words = line.split() or [""]
        event = ANSWERS[words[0]] if words[0].startswith(".") else "result"
        if event is None:
            return []
        while (answer := next(self.objects))["event"] not in (event, "error"):
            self.told.append(answer)
        if answer.get("result") == -4 and line in self.over:
            time.sleep(0.01)  # its last status comes before the moment in which a task is gone
            return self.type(line)
        statuses = []
        if answer["event"] == "result":
            self.commands[answer["result"]] = line
            self.over.discard(line)
        if answer["event"] == "waited":
            self.over.add(self.commands.get(answer["task"]))
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
            # The end may overtake the word that the abort was taken.
            taken.sort(key=lambda entry: entry["code"] < 1)
        return taken

    def wait_for_pause(self):
        """What comes between status 4 and the pause is lost, which is a worker's one timed wait."""
        threads = pathlib.Path(f"/proc/{self.process.pid}/task")
        while not any(map(is_paused, threads.iterdir())):
            time.sleep(0.01)

    def finish(self):
        self.process.stdin.close()
        rest = [*self.told, *self.objects]  # statuses first, by their tasks
        return sorted(rest, key=lambda each: each["task"] if each["event"] == "status" else 1 << 31)


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


# Tells its status also in loops and lists of commands.
CLIENT = 'peltexctl() { "$PROGRAM" "$@" || { set -- $?; echo "[$1]" 2> /dev/null; return $1; }; }; '


def run_bash(command, **variables):
    done = subprocess.run(
        ["bash", "-o", "pipefail", "-c", CLIENT + command],
        cwd="/data/data", text=True, errors="backslashreplace",
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        env={**os.environ, "PROGRAM": PROGRAM, "PROJECT": PROJECT, "LC_ALL": "C", "TZ": "UTC",
             "TERM": "xterm", "NO_COLOR": "", **variables})
    lines, status = done.stdout.splitlines(), f"[{done.returncode}]"
    for pattern, instead in VARYING:
        lines = [re.sub(pattern, instead, line) for line in lines]
    return lines, [status] * (done.returncode != 0 and lines[-1:] != [status])


def run_client(typed):
    """The lines of an example of which these are the typed ones, with statuses that are not 0."""
    return [each for line in typed for each in [line, *sum(run_bash(line[2:]), [])]]


# What uses an archive ends as verify does; what does not is told.
VERDICT = """peltexctl verify $FILE; verdict=$?
    for command in "restore $KIND"${SET:+ export}; do
        peltexctl -q $command /data/data/$FILE /data/data/new > /dev/null 2>&1
        [ $? = $verdict ] || echo "fault: another verdict of $command"
        rm -rf new
    done; rm *"""


def run_archives(typed):
    """Crafts an archive, or a set of slices, of each line, and tells what verify finds in it."""
    lines = []
    for line in typed:
        slices = [crafted(words) for words in line[2:].removesuffix(" |").split(" | ")]
        is_set = "|" in line
        files = {f"s.tar.{i}" if is_set else "a.tar": data for i, data in enumerate(slices)}
        if is_set:
            files["s.tar.txt"] = "".join(
                f"{name}|{len(data)}\n" for name, data in files.items()).encode()
        for name, data in files.items():
            pathlib.Path("/data/data", name).write_bytes(data)
        printed, _ = run_bash(VERDICT, FILE=name, KIND="split" if is_set else "tar",
                              SET="set" * is_set)
        lines += [line, *([each for each in printed if each.startswith("fault")] or printed)]
    return lines


def run_session(typed, shows=None):
    """The lines of an example in the shell, and of what it prints those that `shows` says."""
    shell, lines = Shell(), []
    for line in typed:
        lines.append(line)
        if line[0] == "$":
            lines += run_bash(line[2:], PID=str(shell.process.pid))[0]
        else:
            lines += map(show, filter(shows, shell.type(line[2:])))
    lines += map(show, filter(shows, shell.finish()))
    return lines[:-1] if lines[-1] == CLOSED else lines


RUN = {"client": run_client, "archives": run_archives, "session": run_session,
       "files": lambda typed: run_session(typed, is_failure)}


def run_example(kind, body):
    """What the document should say, from a run in a /data of its own."""
    # A command may go on in the next line, behind a backslash.
    typed = re.findall(r"^[$>](?: (?:.*\\\n)*.*)?$", body, re.MULTILINE)
    with tempfile.TemporaryDirectory() as data:
        file_system = ["--bind", data] if EXAMPLES == "large" else ["-t", "tmpfs", "tmpfs"]
        subprocess.run(["mount", *file_system, data], check=True)
        subprocess.run(["mount", "--bind", data, "/data"], check=True)
        os.chmod(data, 0o771)
        try:
            os.mkdir("/data/data")
            return "".join(line + "\n" for line in RUN[kind](typed))
        finally:
            subprocess.run(["umount", "--recursive", "/data", data], check=True)


def run_document(path, updates):
    """Returns how many examples print something else."""
    text = path.read_text()
    examples = FENCE.findall(text)
    names = {name for _, name, _, _ in examples}
    if len(names) != len(re.findall(r"^```\w", text, re.MULTILINE)):
        sys.exit(f"{path}: a fence is no example, or one of a name that is there twice")
    failed = 0
    for kind, name, label, body in examples:
        print(name, flush=True)  # of one that hangs this is all that is told
        printed = run_example(kind, body) if label == EXAMPLES else body
        if printed != body:
            failed += 1
            sys.stdout.writelines(difflib.unified_diff(
                body.splitlines(True), printed.splitlines(True), f"{path.name}: {name}", "now"))
            text = text.replace(f"{name}\n{body}", f"{name}\n{printed}")
    if updates:
        path.write_text(text)
    return failed


def main():
    if not os.path.exists("/.throw-away-root"):
        sys.exit("run this with scripts/test.sh or scripts/sandbox.sh: it mounts over /data")
    os.umask(0o022)
    paths = [pathlib.Path(name) for name in sys.argv[1:] if name != "--update"]
    failed = sum(run_document(path, "--update" in sys.argv) for path in paths)
    sys.exit(f"{failed} examples print something else" if failed else 0)


if __name__ == "__main__":
    main()
