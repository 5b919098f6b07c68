"""Help, manual page and completion: each names all options that there are."""

import os
import pathlib
import re
import subprocess
import unittest

from client import PROGRAM, ClientTest

PROJECT = pathlib.Path(__file__).parents[2]
PAGE, COMPLETION = PROJECT / "docs/peltexctl.1", PROJECT / "tools/peltexctl.bash"
# What bash offers for the last word; "=" is a word of its own to it.
COMPLETE = COMPLETION.read_text() + """
    COMP_WORDS=(peltexctl "$@") COMP_CWORD=$#
    _peltexctl
    for word in "${COMPREPLY[@]}"; do printf '%s\\n' "$word"; done
"""
LEVELS = ["debug", "info", "warn", "error", "silent"]
ROWS = [
    (["ba"], ["backup"]),
    (["--json", "--data", "/x", "ex"], ["export"]),
    (["--log", ""], LEVELS),
    (["list", "--log", "=", "s"], ["silent"]),
    (["list", "--log", "="], LEVELS),
    (["backup", ""], ["file", "dir", "tar", "split", "byfile"]),
    (["backup", "--uid", "5", "s"], ["split"]),
    (["backup", "--uid", ""], []),
    (["restore", "--se"], ["--seinfo"]),
    (["shell", ""], []),
    (["list", "@/d"], ["@/data"]),
    (["--data", "@/data/a"], ["@/data/a dir"]),
    (["backup", "tar", "x", "@/data/ar"], ["@/data/archive"]),
    (["--data", "@", "backup", "tar", "/data/data/a"], ["/data/data/a dir/", "/data/data/archive"]),
    (["--data", "=", "@/", "move", "/data/data/ar"], ["/data/data/archive"]),
    (["move", "x", "y", "@"], []),
]


def run(*command):
    done = subprocess.run(command, capture_output=True, check=True, text=True)
    assert done.stderr == "", done.stderr
    return done.stdout


def options_of(*subcommand):
    return set(re.findall(r"(?m)^  (?:-\w,)?(--[a-z-]+)", run(PROGRAM, *subcommand, "--help")))


class HelpTest(ClientTest):
    def complete(self, *words):
        return run("bash", "-c", COMPLETE, "bash", *words).splitlines()

    def test_every_option_is_everywhere(self):
        names = re.findall(r"(?m)^  (\w+) ", run(PROGRAM, "--help").split("Subcommands:")[1]
                           .split("\n\n")[0])
        self.assertEqual(self.complete(""), names)
        common = options_of()
        every = common.union(*map(options_of, names))
        for name in names:
            self.assertEqual({*self.complete(name, "-")} - {"-h", "-q"}, options_of(name) | common)
        run("groff", "-ww", "-mdoc", "-Tutf8", PAGE)  # which warns of what is wrong with it
        named = re.findall(r"Fl -([a-z-]+)", PAGE.read_text())
        self.assertEqual({"--" + name for name in named} | {"--help", "--quiet"}, every)
        self.assertEqual({*names} - {*re.findall(r"(?m)^\.It Cm (\w+)", PAGE.read_text())}, set())

    def test_completion(self):
        os.mkdir(self.path("a dir"))
        self.write("archive")
        for words, expected in ROWS:
            with self.subTest(words):
                words, expected = ([word.replace("@", self.root) for word in each]
                                   for each in (words, expected))
                self.assertEqual(sorted(self.complete(*words)), sorted(expected))


if __name__ == "__main__":
    unittest.main()
