"""What is shown of a task that takes long, on terminals of all kinds and in logs."""

import contextlib
import os
import pty
import signal
import subprocess
import threading
import unittest

from client import ClientTest

# A machine that is busy has hours left.
TIME = rb"(\d+:)?\d+:\d\d"
STANDING = (rb" +\d+ %%, [\d.]+ .?i?B of 8\.0 GiB, "
            rb"(" + TIME + rb"|[\d.]+ .?i?B/s, " + TIME + rb" left)")
LOOKING = rb"\rlooking at /data/data/src: 0:\d\d\x1b\[K\r\x1b\[K"
BAR = LOOKING + rb"\rbackup tar: \[%s\]" + STANDING + rb"\x1b\[K"
LINE = rb"backup tar:" + STANDING.replace(b"%%", b"%") + rb"\r?\n"


class TerminalTest(ClientTest):
    def setUp(self):
        super().setUp()
        os.mkdir(self.path("data/src"))
        self.write("data/src/endless")
        os.truncate(self.path("data/src/endless"), 8 << 30)  # a hole

    def read_progress(self, end, process):
        """What is written up to the first progress, before which the task does not end."""
        text = b""
        while b" of 8.0 GiB" not in text or text[-1:] not in b"\nK":
            self.assertIsNone(process.poll(), text)
            text += os.read(end, 1)
        process.send_signal(signal.SIGINT)
        # Or it would wait for a reader.
        threading.Thread(target=self.drain, args=[end], daemon=True).start()
        return text

    @staticmethod
    def drain(end):
        with contextlib.suppress(OSError):
            while os.read(end, 4096):
                pass

    def test_progress(self):
        rows = [
            ({"TERM": "xterm"}, True, BAR % rb"\x1b\[32m#*\x1b\[0m\.*"),
            ({"TERM": "xterm", "NO_COLOR": "1"}, True, BAR % rb"#*\.*"),
            ({"TERM": "dumb"}, True, LINE),
            ({}, True, LINE),
            ({"TERM": "xterm"}, False, LINE),
        ]
        for number, (environment, is_terminal, expected) in enumerate(rows):
            with self.subTest(environment=environment, is_terminal=is_terminal):
                end, other_end = pty.openpty() if is_terminal else os.pipe()
                process = self.start("backup", "tar", "/data/data/src", f"/data/data/{number}",
                                     stdout=subprocess.DEVNULL, stderr=other_end, env=environment)
                os.close(other_end)
                told = self.read_progress(end, process)
                self.assertRegex(told, rb"\A" + expected + rb"\Z")
                self.assertEqual(process.wait(60), 130)

    def test_colours_of_errors(self):
        for environment, expected in [({"TERM": "xterm"}, b"\x1b[31mpeltexctl:\x1b[0m "),
                                      ({"TERM": "xterm", "NO_COLOR": "1"}, b"peltexctl: ")]:
            end, other_end = pty.openpty()
            process = self.start("list", "/none", stderr=other_end, env=environment)
            self.assertEqual(process.wait(60), 1)
            self.assertTrue(os.read(end, 1000).startswith(expected))


if __name__ == "__main__":
    unittest.main()
