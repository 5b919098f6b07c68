"""Archives in their plainest form: what the packer writes of a tree, what comes back of it."""

import collections
import grp
import os
import pwd
import re
import stat
import struct

CHUNK = 524288  # the packer reads and writes contents in pieces of this many bytes
END = bytes(1024)
MIB = 1 << 20
WHOLE = 1 << 60  # the slice size of an archive that is not cut
LAYOUT = struct.Struct("100s8s8s8s12s12s8sc100s6s2s32s32s183x")
TYPES = {stat.S_IFREG: b"0", stat.S_IFLNK: b"2", stat.S_IFDIR: b"5"}
USERS = {each.pw_uid: each.pw_name.encode() for each in reversed(pwd.getpwall())}
GROUPS = {each.gr_gid: each.gr_name.encode() for each in reversed(grp.getgrall())}

# The name is that in the archive, a directory's with "/" behind it; `what` a file's content or a
# link's target.
Entry = collections.namedtuple("Entry", "name mode uid gid mtime what")


def walk(root, below=b""):
    """The entries that the packer takes of a directory, in the file system's order."""
    for item in os.scandir(root + b"/" + below):
        status = item.stat(follow_symlinks=False)
        name, kind, what = below + item.name, stat.S_IFMT(status.st_mode), b""
        is_directory = kind == stat.S_IFDIR
        if kind not in TYPES or (status.st_nlink > 1 and not is_directory):
            continue
        if is_directory and (root + b"/" + name).endswith(b"/com.tencent.mm/tinker"):
            continue
        if kind == stat.S_IFREG:
            if name.endswith(b".dex"):
                continue
            with open(item.path, "rb") as file:
                what = file.read()
        elif kind == stat.S_IFLNK:
            what = os.readlink(item.path)
        yield Entry(name + b"/" * is_directory, status.st_mode, status.st_uid, status.st_gid,
                    status.st_mtime_ns // 10**9, what)
        if is_directory:
            yield from walk(root, name + b"/")


def entries_in(directory):
    """The entries of a directory by its path as text, none of one that is not there."""
    return list(walk(os.fsencode(directory))) if os.path.isdir(directory) else []


# --- Packing

def padding(size):
    return bytes(-size % 512)


def signed(block):
    """The header with the checksum that its other bytes ask for."""
    plain = block[:148] + b" " * 8 + block[156:]
    return plain[:148] + b"%06o\0" % sum(plain) + plain[155:]


def number(value, width):
    """The last octal digits of a number, with a NUL where there is room for it."""
    digits = b"%0*o" % (width, value % 8**width)
    return digits[digits.startswith(b"0"):]


def header(name, typeflag, size=0, link=b"", mode=0o644, uid=0, gid=0, mtime=0,
           owners=(b"", b""), version=b"0"):
    numbers = zip((mode & 0o7777, uid, gid, size, mtime), (8, 8, 8, 12, 12))
    return signed(LAYOUT.pack(name[:99], *(number(*each) for each in numbers), b"", typeflag,
                              link[:99], b"ustar", version, *owners))


def long_record(text, typeflag, mode=0, **fields):
    return header(b"././@LongLink", typeflag, len(text) + 1, mode=mode, **fields) + text + bytes(
        512 - len(text) % 512)


def headers(entry, typeflag, size, is_exported=False):
    """The header of an entry, with the records in front of it that its long texts need."""
    link = entry.what if typeflag == b"2" else b""
    fields = {"mode": entry.mode, "uid": entry.uid, "gid": entry.gid, "mtime": entry.mtime,
              "owners": (USERS.get(entry.uid, b"%d" % entry.uid),
                         GROUPS.get(entry.gid, b"%d" % entry.gid)),
              "link": link, "version": b"00" if is_exported else b"0"}
    return b"".join(long_record(text, kind, **(fields if is_exported else {}))
                    for text, kind in ((link, b"K"), (entry.name, b"L"))
                    if len(text) >= 100) + header(entry.name, typeflag, size, **fields)


def exported(entries):
    """The archive that a set of slices becomes."""
    return b"".join(headers(entry, TYPES[stat.S_IFMT(entry.mode)], size, is_exported=True) +
                    entry.what[:size] + padding(size)
                    for entry in entries
                    for size in [len(entry.what) * stat.S_ISREG(entry.mode)]) + END


def down(value, unit):
    return value - value % unit


class Packer:
    """Packs entries into slices of about this many bytes."""

    def __init__(self, slice_size, root_length):
        self.limit = slice_size
        self.root_length = root_length  # of the packed directory's path, without a slash at its end
        self.slices = []
        self.current = bytearray()
        self.looked_at = 0  # size of the current slice when it was last looked at
        self.begun = []  # entries that began in the current slice

    def pack(self, entries):
        """Gives the slices and the entries that are in none of them."""
        for entry in entries:
            self.add(entry)
        # Sizes are looked at after writes of contents, directories and links alone, so a slice that
        # holds only headers of empty files counts as empty.
        if self.looked_at or not self.slices:
            self.close_slice()
        return self.slices, self.begun

    def add(self, entry):
        self.begun.append(entry)
        if stat.S_ISREG(entry.mode):
            self.add_file(entry)
        else:
            self.write_looking(headers(entry, TYPES[stat.S_IFMT(entry.mode)], 0), 512)

    def close_slice(self):
        self.slices.append(bytes(self.current + END))
        self.current.clear()
        self.begun = []
        self.looked_at = 0

    def write_looking(self, data, length):
        """Writes and tells whether the slice is full; `length` is what counts as one write."""
        self.current += data
        self.looked_at = len(self.current)
        if self.looked_at < self.limit:
            return False
        if length < CHUNK:
            self.current += padding(length)
        self.close_slice()
        return True

    def room(self):
        raw = self.limit - len(self.current)
        units, rest = (raw // CHUNK, raw % CHUNK) if raw >= 0 else (-(-raw // CHUNK), 0)
        return (units + (raw in (0, 512) or rest > 512)) * CHUNK

    def first_part(self, name, size):
        path = self.root_length + 1 + len(name)
        need = down(size, 512) + (512 if path < 100 else down(path, 512) + 1024)
        room = self.room()
        if need + 1024 <= room:
            return b"0", size
        return b"8", size if need <= room else room

    def add_file(self, entry):
        size = len(entry.what)
        self.current += headers(entry, *self.first_part(entry.name, size))
        ended = False
        for start in range(0, size, CHUNK):
            chunk = entry.what[start:start + CHUNK]
            if not self.write_looking(chunk, len(chunk)):
                continue
            ended = ended or len(chunk) < CHUNK
            remaining = size - start - len(chunk)
            if remaining:
                part = (b"9", self.limit) if remaining > self.limit else (b"A", remaining)
                self.write_looking(headers(entry, *part), 512)
        if not ended:
            self.current += padding(size)


# --- Crafting, by the words that verdicts.md explains

def text_of(word):
    if word.startswith("#"):
        return (b"0123456789abcde" * (int(word[1:]) // 15 + 1))[:int(word[1:])]
    return word.encode().decode("unicode_escape").encode("latin1")


def crafted_entry(word):
    kind, name, fields, link, content = map(text_of, re.fullmatch(
        r"(.):([^{>=]*)((?:{.*?})*)>?([^=]*)=?(.*)", word).groups())
    data = long_record(name, kind) if kind in b"LK" else (
        header(name, kind, len(content), link) + content + padding(len(content)))
    for at, field in re.findall(rb"{(\d+),(.*?)}", fields, re.DOTALL):
        block = data[:int(at)] + field + data[int(at) + len(field):512]
        data = (block if at == b"148" else signed(block)) + data[512:]
    return data


def crafted(words):
    data = b""
    for word in re.sub(r"{([^{},]+)\*(\d+)}", lambda the: the[1] * int(the[2]), words).split():
        what, _, size = word.partition("#")
        if word[1] == ":":
            data += crafted_entry(word)
        elif what == "cut":
            data = data[:int(size)]
        else:
            data += {"end": END, "zeros": b"\0", "x": b"x"}[what] * int(size or 1)
    return data


# --- Restoring

def octal(field):
    digits = field.split(b"\0")[0].strip(b" ")
    return int(digits, 8) if digits else 0


def restored(entry, uid):
    """The entry as it comes back for the application with this uid; times do not."""
    mode, owner, group = entry.mode, entry.uid % (1 << 24), entry.gid % (1 << 24)
    if stat.S_ISREG(mode):  # it gets its owner behind its mode
        mode &= ~(stat.S_ISUID | (stat.S_ISGID if mode & stat.S_IXGRP else 0))
    if uid and owner >= 10000:
        distance = (group - owner) % (1 << 32)
        owner, group = uid, group if distance % 10000 else (distance + uid) % (1 << 32)
    return Entry(entry.name, mode, owner, group, None, entry.what)


def restore_slice(data, tree, uid):
    """Restores one slice into `tree`, entries by their names; tells whether it was done."""
    position, texts = 0, {}
    while len(block := data[position:position + 512]) == 512:
        if block[0] == 0:
            return True  # two zero blocks are the end, and one alone passes in a slice
        if block[257:262] != b"ustar" or block != signed(block):
            return False
        size, typeflag = octal(block[124:136]), block[156:157]
        part = data[position + 512:position + 512 + size]
        position += 512 + size + len(padding(size))
        if typeflag in b"LK":
            texts[typeflag] = part.split(b"\0")[0] if size <= 2047 else b""
            continue
        name = texts.get(b"L") or block[:100].split(b"\0")[0]
        target = texts.get(b"K") or block[157:257].split(b"\0")[0]
        texts = {}
        if b"../" in name:
            return False
        kind = {b"2": stat.S_IFLNK, b"5": stat.S_IFDIR}.get(typeflag, stat.S_IFREG)
        mode = 0o777 if typeflag == b"2" else octal(block[100:108])
        entry = restored(Entry(name, kind | mode, octal(block[108:116]), octal(block[116:124]),
                               None, target if typeflag == b"2" else b""), uid)
        if kind != stat.S_IFREG:
            tree[name] = entry
            continue
        before = tree.pop(name, entry).what if typeflag in b"9A" else b""
        if len(part) == size:
            tree[name] = entry._replace(what=before + part)
    return position <= len(data) + CHUNK


def restore(slices, uid=0):
    """What a restore makes of the slices: the tree, and whether all were done."""
    tree = {}
    return tree, all(restore_slice(data, tree, uid) for data in slices)
