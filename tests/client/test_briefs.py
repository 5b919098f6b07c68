"""A client looks at what a backup would hold, chooses from it, and backs up just that."""
import json
import os
import unittest

from client import ClientTest


def lines_of(path):
    with open(path, "rb") as file:
        return file.read().splitlines(keepends=True)


def make_tree(root):
    """Three hundred files in thirty folders, with a few that no backup takes."""
    for folder in range(30):
        path = os.path.join(root, f"folder{folder:02}", "deep")
        os.makedirs(path)
        for number in range(10):
            with open(os.path.join(path, f"file;{number}"), "w") as file:
                file.write("x" * (folder * 100 + number))
    os.symlink("folder00", os.path.join(root, "link"))
    os.mkdir(os.path.join(root, "cache"))
    with open(os.path.join(root, "cache", "classes.dex"), "w") as file:
        file.write("code")


class BriefsTest(ClientTest):
    def setUp(self):
        super().setUp()
        self.app = "/data/data/com.example.app"
        make_tree(self.host(self.app))

    def host(self, path):
        """The host's name of a path under /data."""
        return self.path(path[len("/data/"):])

    def run_task(self, *words):
        done = self.run_program("--json", "--log", "silent", *words)
        self.assertEqual(done.returncode, 0, done.stdout)
        return [json.loads(line) for line in done.stdout.splitlines()]

    def brief(self, kind, source):
        self.run_task("brief", kind, source, "/data/data/brief")
        return lines_of(self.host("/data/data/brief"))

    def test_a_round_from_brief_to_backup(self):
        everything = self.brief("dir", self.app)
        self.assertEqual(len(everything), 30 * 12 + 1)

        for newline in ("\n", "\r\n"):
            rules = [f"[include]{self.app}", f"[exclude]{self.app}/folder07", "[exclude]/cache"]
            with open(self.host("/data/data/search"), "w", newline="") as file:
                file.write(newline.join(rules) + newline)
            chosen = self.brief("byfile", "/data/data/search")
            self.assertEqual(chosen, [line for line in everything
                                      if b"/folder07" not in line and b"/cache" not in line])

        edited = [line for line in chosen if b"file;3" not in line]
        edited.insert(5, b"this is no record\n")
        with open(self.host("/data/data/edited"), "wb") as file:
            file.writelines(edited)
        self.run_task("backup", "byfile", "/data/data/edited", "/data/data/bk/com.example.app")

        del edited[5]
        folder = self.host("/data/data/bk/com.example.app/com.example.app")
        self.assertEqual(lines_of(folder + ".txt"), edited)
        copied = {os.path.join(where, name) for where, folders, files in os.walk(folder)
                  for name in folders + files}
        listed = {folder + line.rsplit(b";", 4)[0].decode()[len(self.app):] for line in edited}
        self.assertEqual(copied, listed)
        for name in listed:
            if os.path.isfile(name):
                with open(name) as copy, open(self.host(self.app) + name[len(folder):]) as source:
                    self.assertEqual(copy.read(), source.read())

    def test_the_size_of_a_brief_is_told(self):
        objects = self.run_task("brief", "dir", self.app, "/data/data/b")
        sizes = [o["message"] for o in objects if o.get("code") == 6]
        self.assertEqual(sizes, [str(sum(f * 100 + n for f in range(30) for n in range(10)) + 4)])


if __name__ == "__main__":
    unittest.main()
