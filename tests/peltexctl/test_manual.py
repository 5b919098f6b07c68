"""Help, manual page and completion: all of them say all there is."""

import os
import re
import subprocess
import tempfile
import unittest

from client import PROGRAM


def run(*arguments):
    return subprocess.run([PROGRAM, *arguments], capture_output=True, check=True, text=True).stdout


def options_in(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]+", text))


SUBCOMMANDS = re.findall(r"(?m)^  (\w+) ", run("--help").split("Subcommands:")[1].split("Exit")[0])
HELP = {name: run(name, "--help") for name in SUBCOMMANDS}


class ManualTest(unittest.TestCase):
    def complete(self, *words):
        """What bash offers for the last of these words; "=" is a word of its own to it."""
        script = run("--generate", "bash") + """
            COMP_WORDS=(peltexctl "$@") COMP_CWORD=$#
            _peltexctl
            for word in "${COMPREPLY[@]}"; do printf '%s\\n' "$word"; done
        """
        done = subprocess.run(["bash", "-c", script, "bash", *words], capture_output=True, text=True,
                              check=True)
        self.assertEqual(done.stderr, "")
        return done.stdout.splitlines()

    def test_help_has_a_usage_line_and_examples(self):
        self.assertEqual(len(SUBCOMMANDS), 8)
        for name, text in {"[OPTION]": run("--help"), **HELP}.items():
            with self.subTest(name):
                self.assertRegex(text, r"\AUsage: peltexctl " + re.escape(name))
                self.assertRegex(text, r"(?m)^Examples:\n  .*\n    \$ ")
                self.assertLessEqual(max(map(len, text.splitlines())), 80)
        self.assertRegex(run("--version"), r"\Apeltexctl \d+\.\d+\.\d+\n\Z")

    def test_manual_page_is_clean_and_complete(self):
        page = run("--generate", "1")
        done = subprocess.run(["groff", "-ww", "-man", "-Tutf8"], input=page, text=True,
                              capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        text = page.replace("\\-", "-").replace("\\fB-", "\\fB -")
        for title in ("NAME", "SYNOPSIS", "OPTIONS", "EXIT STATUS", "SIGNALS", "ENVIRONMENT",
                      "FILES", "EXAMPLES"):
            self.assertIn(f".SH {title}\n", text)
        for name, help_text in HELP.items():
            subsection = text.split(f'.SS "{name} ')[1].split("\n.S")[0]
            own = options_in(help_text.split("Options:")[1].split("Examples:")[0]) - {"--help"}
            self.assertLessEqual(own, options_in(subsection), name)
        for status in (0, 1, 2, 3, 130):
            self.assertIn(f"\n\\fB{status}\\fR\n", text)

    def test_completion_of_words(self):
        levels = ["debug", "info", "warn", "error", "silent"]
        rows = [
            ([""], SUBCOMMANDS),
            (["ba"], ["backup"]),
            (["--json", "--data", "/x", "ex"], ["export"]),
            (["--log", ""], levels),
            (["list", "--log", "=", "s"], ["silent"]),
            (["list", "--log", "="], levels),
            (["backup", ""], ["file", "dir", "tar", "split", "byfile"]),
            (["backup", "--uid", "5", "s"], ["split"]),
            (["backup", "--uid", ""], []),
            (["restore", "--se"], ["--seinfo"]),
            (["shell", ""], []),
        ]
        for words, expected in rows:
            with self.subTest(words):
                self.assertEqual(self.complete(*words), expected)
        for name in SUBCOMMANDS:
            offered = set(self.complete(name, "-"))
            self.assertEqual(offered - {"-h"}, options_in(HELP[name].split("Options:")[1].split(
                "Examples:")[0]) | {"--version", "--library", "--data", "--log", "--json"}, name)

    def test_completion_of_paths(self):
        with tempfile.TemporaryDirectory() as root:
            os.makedirs(root + "/data/a dir")
            open(root + "/data/archive", "w").close()
            rows = [
                (["list", root + "/d"], [root + "/data"]),
                (["--data", root + "/data/a"], [root + "/data/a dir"]),
                (["backup", "tar", "x", root + "/data/ar"], [root + "/data/archive"]),
                (["--data", root, "backup", "tar", "/data/data/a"],
                 ["/data/data/a dir/", "/data/data/archive"]),
                (["--data", "=", root + "/", "move", "/data/data/ar"], ["/data/data/archive"]),
                (["move", "x", "y", root], []),
            ]
            for words, expected in rows:
                with self.subTest(words):
                    self.assertEqual(sorted(self.complete(*words)), expected)


if __name__ == "__main__":
    unittest.main()
