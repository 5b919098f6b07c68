"""The shell: its objects, its dot lines, and what it knows of tasks."""

import json
import os
import subprocess
import unittest

from client import ClientTest, of_event, read_until


def session(number):
    return {"event": "session", "session": number}


def result(command, number):
    return {"event": "result", "command": command, "result": number}


def closed(number, answer=0):
    return {"event": "closed", "session": number, "result": answer}


class ShellTest(ClientTest):
    def test_lines_without_tasks(self):
        cases = {
            "last line without newline": (["", "  ", "abort 7"],
                                          [result("", -3), result("  ", -3), result("abort 7", -1),
                                           closed(100)]),
            "sessions": ([".open", ".use 100", ".finish", ".finish", "abort 7", ".finish 101"],
                         [session(101), closed(100), closed(100, -1), result("abort 7", -1),
                          closed(101)]),
            "quit finishes in order": ([".open", ".open new", ".quit", "abort 7"],
                                       [session(101), session(102), closed(100), closed(101),
                                        closed(102)]),
            "death closes all": ([".open", ".die", ".die", "keepalive", ".finish 100"],
                                 [session(101), result("keepalive", -1), closed(100, -1)]),
            "a session after death": ([".die", ".open", ".die"], [session(101), closed(101)]),
        }
        for name, (lines, expected) in cases.items():
            with self.subTest(name):
                self.assertEqual(self.shell(*lines), ([session(100), *expected], 0))

    def test_wrong_dot_line_gives_one_error_and_the_shell_goes_on(self):
        for line in [".", ".nosuch", "..", ".open old", ".open new new", ".use", ".use x",
                     ".use 99999999999", ".finish 1x", ".wait", ".wait 1.5", ".wait 5 -1",
                     ".wait 5 nan", ".wait 5 1 1", ".waitfor 5", ".waitfor 5 x", ".sleep",
                     ".sleep -1", ".die now", ".threads 1", ".quit now",
                     ".wait 999 0", ".waitfor 999 0 0.01"]:
            with self.subTest(line):
                objects, status = self.shell(line, ".finish")
                self.assertEqual([entry["event"] for entry in objects],
                                 ["session", "error", "closed"])
                self.assertEqual(status, 0)

    def test_bytes_of_a_command_are_sent_and_shown(self):
        cases = {
            b'a"\\\t\r\x01\x7f': r'a\"\\\t\r\u0001\u007f',
            b"nul\0 is a byte": r"nul\u0000 is a byte",
            "ä€\U0001f600".encode(): r"\u00e4\u20ac\ud83d\ude00",
            b"\xff\x80\xc3": r"\u00ff\u0080\u00c3",
            b"overlong \xc0\xaf\xe0\x80\xaf": r"overlong \u00c0\u00af\u00e0\u0080\u00af",
            b"surrogate \xed\xa0\x80": r"surrogate \u00ed\u00a0\u0080",
            b"too high \xf4\x90\x80\x80 \xf4\x8f\xbf\xbf":
                r"too high \u00f4\u0090\u0080\u0080 \udbff\udfff",
        }
        for command, shown in cases.items():
            with self.subTest(command):
                lines = self.run_program("shell", stdin=command + b"\n").stdout.splitlines()
                # Bytes that are no text are told as they are.
                raw = "" if command.decode(errors="ignore").encode() == command else \
                    f',"raw":"{command.hex()}"'
                expected = f'{{"event":"result","command":"{shown}"{raw},"result":-3}}'
                self.assertEqual(lines[1].decode("ascii"), expected)

    def test_failed_task_is_waited_for_and_makes_the_exit_status(self):
        refused = "backup file /etc/passwd /data/data/copies default 0"
        objects, status = self.shell(refused, ".wait 101", ".wait 101", ".waitfor 101 -1",
                                     ".waitfor 101 -1 0.01")
        self.assertEqual([entry["message"] for entry in of_event(objects, "status")],
                         ["prepareTask error"])
        self.assertEqual([entry["code"] for entry in of_event(objects, "waited")], [-1] * 3)
        self.assertEqual(len(of_event(objects, "error")), 1)
        self.assertEqual(status, 1)

    def test_end_of_input_waits_for_the_tasks_of_open_sessions(self):
        """Two tasks keep the workers busy while others are queued, aborted and dropped."""
        # Of two workers that make the same directory at once one fails.
        os.mkdir(self.path("data/copies"))
        for name in "12":
            os.mkfifo(self.path("data", name))
        for name in "345":
            self.write("data/" + name)
        commands = [f"backup file /data/data/{name} /data/data/copies default 0" for name in "12345"]
        shell = self.start("shell", stderr=subprocess.PIPE)
        shell.stdin.write("\n".join([
            *commands[:2], ".waitfor 101 1", ".waitfor 102 1", commands[2], ".open", *commands[3:],
            "abort 0x6a", ".wait 106", ".finish", "",
        ]).encode())
        shell.stdin.close()
        told = read_until(shell, "closed", session=104)
        self.assertEqual([(entry["task"], entry["code"]) for entry in of_event(told, "waited")[2:]],
                         [(106, 2)])
        self.assertRegex(shell.stderr.readline(), rb"waiting for task 101: started, task 102: .*103: waiting")
        for name in "12":
            self.open_fifo("data/" + name)
        rest = [json.loads(line) for line in shell.stdout]
        self.assertIn((103, 0), [(entry["task"], entry["code"]) for entry in of_event(rest, "status")])
        self.assertEqual((of_event(rest, "closed"), shell.wait(60)), ([closed(100)], 0))

    def test_help(self):
        done = self.run_program("shell", stdin=b".help\n")
        self.assertIn(b".waitfor TASK CODE", done.stderr)


if __name__ == "__main__":
    unittest.main()
