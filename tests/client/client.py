"""Runs peltexctl over a /data of its own and reads what it prints."""

import json
import os
import signal
import subprocess
import tempfile
import threading
import unittest

PROGRAM = os.environ["PELTEXCTL"]
# A program that is started with this signal ignored leaves it so, as a job in the background does.
signal.signal(signal.SIGINT, signal.default_int_handler)


class ClientTest(unittest.TestCase):
    """A test with a throw-away directory that is /data to the program."""

    def setUp(self):
        self.data = self.enterContext(tempfile.TemporaryDirectory())
        os.mkdir(self.path("data"))

    def path(self, *names):
        """The host's path of something in /data."""
        return os.path.join(self.data, *names)

    def write(self, name, content=b"x"):
        with open(self.path(name), "wb") as file:
            file.write(content)

    def open_fifo(self, name):
        """Ends the task that reads this FIFO: until then it has been running."""
        os.close(os.open(self.path(name), os.O_WRONLY))

    def start(self, *arguments, **options):
        streams = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, **options}
        process = self.enterContext(subprocess.Popen(
            [PROGRAM, "--data", self.data, *arguments], **streams))
        self.addCleanup(process.kill)
        deadline = threading.Timer(100, process.kill)
        deadline.start()
        self.addCleanup(deadline.cancel)
        return process

    def run_program(self, *arguments, stdin=b""):
        return subprocess.run([PROGRAM, "--data", self.data, *arguments], input=stdin,
                              capture_output=True, timeout=120)

    def shell(self, *lines):
        """The shell's objects for these lines, and its exit status."""
        done = self.run_program("shell", stdin="\n".join(lines).encode())
        return [json.loads(line) for line in done.stdout.splitlines()], done.returncode


def read_until(process, event, **fields):
    """Reads objects up to the first with this event and these fields; returns all of them."""
    objects = []
    for line in process.stdout:
        objects.append(json.loads(line))
        if {"event": event, **fields}.items() <= objects[-1].items():
            return objects
    raise AssertionError(f"no {event} {fields} in {objects}")


def of_event(objects, event):
    return [entry for entry in objects if entry["event"] == event]
