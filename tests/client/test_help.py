"""Help, manual page and completion: each names all options that there are."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from client import PROGRAM

PROJECT = pathlib.Path(__file__).parents[2]
PAGE, COMPLETION = PROJECT / "docs/peltexctl.1", PROJECT / "tools/peltexctl.bash"


def run(*arguments):
    return subprocess.run([PROGRAM, *arguments], capture_output=True, check=True, text=True).stdout


def options_in(text):
    return set(re.findall(r"(?m)^  (?:-\w,)?(--[a-z-]+)", text))


SUBCOMMANDS = re.findall(r"(?m)^  (\w+) ", run("--help").split("Subcommands:")[1].split("\n\n")[0])
COMMON = options_in(run("--help"))
OPTIONS = {name: options_in(run(name, "--help")) for name in SUBCOMMANDS}


class HelpTest(unittest.TestCase):
    def complete(self, *words):
        """What bash offers for the last of these words; "=" is a word of its own to it."""
        script = COMPLETION.read_text() + """
            COMP_WORDS=(peltexctl "$@") COMP_CWORD=$#
            _peltexctl
            for word in "${COMPREPLY[@]}"; do printf '%s\\n' "$word"; done
        """
        done = subprocess.run(["bash", "-c", script, "bash", *words], capture_output=True, text=True,
                              check=True)
        self.assertEqual(done.stderr, "")
        return done.stdout.splitlines()

    def test_manual_page_is_clean_and_complete(self):
        done = subprocess.run(["groff", "-ww", "-mdoc", "-Tutf8", PAGE], capture_output=True)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        page = PAGE.read_text()
        named = {"--" + name for name in re.findall(r"Fl -([a-z-]+)", page)} | {"--help", "--quiet"}
        self.assertEqual(named, COMMON.union(*OPTIONS.values()))
        for name in SUBCOMMANDS:
            self.assertRegex(page, rf"(?m)^\.It Cm {name}\b")

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
            self.assertEqual(set(self.complete(name, "-")) - {"-h", "-q"}, OPTIONS[name] | COMMON, name)

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
