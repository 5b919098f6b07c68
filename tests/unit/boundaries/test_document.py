"""docs/BOUNDARIES.md names tests that there are, and all of those in this folder."""

import os
import re
import subprocess
import unittest

PROJECT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..")
OWN_SUITES = ("Reach", "BoundaryTest", "ExhaustionTest")


def tests():
    """Those that are compiled in, value-parameterized ones as GROUP/ROW; and which are our own."""
    listing = subprocess.run([os.environ["PELTEX_TESTS"], "--gtest_list_tests"],
                             capture_output=True, text=True, check=True).stdout
    every, own = set(), set()
    suite = ""
    for line in listing.splitlines():
        name = line.split("#")[0].strip()
        if not line.startswith(" "):
            suite = name.rstrip(".")
            continue
        group, _, plain = suite.rpartition("/")
        test = f"{group}/{name.rpartition('/')[2]}" if group else f"{plain}.{name}"
        every.add(test)
        if plain in OWN_SUITES:
            own.add(test)
    return every, own


class DocumentTest(unittest.TestCase):
    def test_rows_and_tests(self):
        with open(os.path.join(PROJECT, "docs", "BOUNDARIES.md"), encoding="utf-8") as file:
            tables = file.read().split("## What a client does")[0]
        rows = [line.split("|")[3] for line in tables.splitlines() if line.startswith("| ")]
        rows = [cell for cell in rows if cell.strip() != "test"]
        named = [re.findall(r"`([A-Za-z]+[./][A-Za-z0-9]+)`", cell) for cell in rows]
        self.assertEqual([row for row, names in zip(rows, named) if not names], [])
        names = {name for row in named for name in row}
        every, own = tests()
        self.assertEqual(names - every, set(), "named, but not there")
        self.assertEqual(own - names, set(), "there, but not named")


if __name__ == "__main__":
    unittest.main()
