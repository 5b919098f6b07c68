"""Split packing and its restore in their plainest form: what comes back of a tree, what does not.

pack() gives the bytes of every slice for a list of entries, restore() what a restore makes of them.
Owners, times and modes are constants here, so only names, contents and order of bytes compare.
"""

UNIT = 524288  # the packer reads and writes contents in chunks of this many bytes
END = bytes(1024)
MIB = 1 << 20


def padding(size):
    return bytes(-size % 512)


def header(name, typeflag, size=0, link=b"", mode=0o644, uid=0):
    """One header block; a size is written as its last twelve octal digits."""
    digits = b"%012o" % (size % (1 << 64))
    block = bytearray(512)
    block[0:99] = name[:99].ljust(99, b"\0")
    block[100:124] = b"%07o\0%07o\0" % (mode, uid) + b"0000000\0"
    block[124:136] = (digits[-12:] if digits[-12:-11] != b"0" else digits[-11:]).ljust(12, b"\0")
    block[136:156] = b"00000000000\0" + b" " * 8
    block[156:157] = typeflag
    block[157:256] = link[:99].ljust(99, b"\0")
    block[257:265] = b"ustar\0" + b"0\0"
    block[148:155] = b"%06o\0" % sum(block)
    return bytes(block)


def long_record(text, typeflag):
    data = text + b"\0"
    return header(b"././@LongLink", typeflag, len(data), mode=0) + data + padding(len(data))


def records(name, link=b""):
    """The long-name records in front of an entry's header."""
    return (long_record(link, b"K") if len(link) >= 100 else b"") + (
        long_record(name, b"L") if len(name) >= 100 else b"")


def down(value, unit):
    return value - value % unit


class SplitPacker:
    """Packs entries, (name, content) with None for a directory's content, into slices."""

    def __init__(self, slice_mib, root_length):
        self.limit = slice_mib * MIB
        self.root_length = root_length  # of the packed directory's path, without a slash at its end
        self.slices = []
        self.current = bytearray()
        self.looked_at = 0  # size of the current slice when it was last looked at

    def pack(self, entries):
        for name, content in entries:
            if content is None:
                self.write_looking(records(name) + header(name, b"5"), 512)
            else:
                self.add_file(name, content)
        # Sizes are looked at after writes of contents, directories and links alone, so a slice that
        # holds only headers of empty files counts as empty.
        if self.looked_at or not self.slices:
            self.close_slice()
        return self.slices

    def close_slice(self):
        self.slices.append(bytes(self.current + END))
        self.current.clear()
        self.looked_at = 0

    def write_looking(self, data, length):
        """Writes and tells whether the slice is full; `length` is what counts as one write."""
        self.current += data
        self.looked_at = len(self.current)
        if self.looked_at < self.limit:
            return False
        if length < UNIT:
            self.current += padding(length)
        self.close_slice()
        return True

    def room(self):
        raw = self.limit - len(self.current)
        units, rest = (raw // UNIT, raw % UNIT) if raw >= 0 else (-(-raw // UNIT), 0)
        return (units + (raw in (0, 512) or rest > 512)) * UNIT

    def first_header(self, name, size):
        path = self.root_length + 1 + len(name)
        need = down(size, 512) + (512 if path < 100 else down(path, 512) + 1024)
        room = self.room()
        if need + 1024 <= room:
            return header(name, b"0", size)
        return header(name, b"8", size if need <= room else room)

    def add_file(self, name, content):
        first = self.first_header(name, len(content))
        self.current += records(name) + first
        ended = False
        for start in range(0, len(content), UNIT):
            chunk = content[start:start + UNIT]
            if not self.write_looking(chunk, len(chunk)):
                continue
            ended = ended or len(chunk) < UNIT
            remaining = len(content) - start - len(chunk)
            if remaining:
                typeflag, size = (b"9", self.limit) if remaining > self.limit else (b"A", remaining)
                self.write_looking(records(name) + header(name, typeflag, size), 512)
        rest = (len(content) + (1 << 31)) % (1 << 32) - (1 << 31)
        if not ended and rest > 0:
            self.current += padding(rest)


def octal(field):
    digits = field.split(b"\0")[0].strip(b" ")
    return int(digits, 8) if digits else 0


def restore_slice(data, tree):
    """Restores one slice into `tree`, name to content (None: a directory); gives the result."""
    if len(data) % 512:
        return -3
    position = 0
    long_name = None
    while True:
        block = data[position:position + 512]
        position += 512
        if len(block) < 512:
            return 0 if position - 512 <= len(data) + UNIT else -5
        if block[0] == 0:
            return 0  # two zero blocks are the end, and one alone passes in a slice
        if block[257:262] != b"ustar" or octal(block[148:156]) != sum(block) - sum(
                block[148:156]) + 8 * 32:
            return -3
        size = octal(block[124:136])
        end = position + size + -size % 512
        typeflag = block[156:157]
        if typeflag in b"LK":
            if typeflag == b"L":
                long_name = data[position:position + size].split(b"\0")[0] if size <= 2047 else None
            position = end
            continue
        name = long_name or block[:100].split(b"\0")[0]
        long_name = None
        if b"../" in name:
            return -1
        if typeflag == b"5":
            tree[name] = None
            continue
        part = data[position:position + size]
        if len(part) < size:
            tree.pop(name, None)
        else:
            tree[name] = (tree.get(name) or b"" if typeflag in b"9A" else b"") + part
        position = end


def restore(slices):
    """What a restore makes of the slices: the tree, and the first result that is not 0."""
    tree = {}
    for data in slices:
        result = restore_slice(data, tree)
        if result:
            return tree, result
    return tree, 0
