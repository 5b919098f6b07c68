"""Runs peltexctl over a /data of its own and reads what it prints."""

import json
import os
import signal
import subprocess
import tempfile
import unittest

PROGRAM = os.environ["PELTEXCTL"]
# A program that is started with a signal ignored leaves it so, as a job in the background does.
signal.signal(signal.SIGINT, signal.default_int_handler)
signal.signal(signal.SIGHUP, signal.SIG_DFL)


class ClientTest(unittest.TestCase):
    """A test with a throw-away directory that is /data to the program."""

    def setUp(self):
        self.root = self.enterContext(tempfile.TemporaryDirectory())
        os.mkdir(self.root + "/data")

    def path(self, path):
        """The host's path of something in /data."""
        return os.path.join(self.root, "data", path)

    def write(self, name, content=b"x"):
        with open(self.path(name), "wb") as file:
            file.write(content)
        return "/data/data/" + name

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def start(self, *arguments, **options):
        process = self.enterContext(subprocess.Popen(
            [PROGRAM, "--data", self.root, *arguments], **{"stdout": subprocess.PIPE, **options}))
        self.addCleanup(process.kill)
        return process

    def run_program(self, *arguments):
        return subprocess.run([PROGRAM, "--data", self.root, *arguments], capture_output=True)

    def objects(self, *arguments):
        """The objects that a subcommand prints, and its exit status."""
        done = self.run_program("--json", *arguments)
        self.assertIn(done.returncode, (0, 1), done)
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
