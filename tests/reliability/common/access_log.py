"""Reads an access log with all its rotated copies, compressed or not."""

import glob
import gzip
import os
import re
from collections import Counter

LINE = re.compile(
    rb"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}@[0-9a-f.:]+@\d+\.\d{6}@"
    rb"(?P<method>[A-Z]+) (?P<path>/[!-~]*) HTTP/1\.[01] (?P<status>\d{3}) \d+ \d+\Z")


class Access_Log:
    """All that the files hold. paths: how often each path was logged. torn: lines that are none.

    copies: numbers of the rotated copies; plain: those that are not compressed; strange: files
    beside them that are neither.
    """

    def __init__(self, path):
        self.paths = Counter()
        self.lines = 0
        self.torn = []
        self.copies = []
        self.plain = []
        self.strange = []
        self.largest = 0
        for name in glob.glob(glob.escape(path) + "*"):
            self._read(name, name[len(path):])
        self.copies.sort()

    def _read(self, name, suffix):
        match = re.fullmatch(r"\.(\d+)(\.gz)?", suffix)
        if match:
            self.copies.append(int(match[1]))
            if not match[2]:
                self.plain.append(int(match[1]))
        elif suffix:
            self.strange.append(os.path.basename(name))
            return
        with (gzip.open if suffix.endswith(".gz") else open)(name, "rb") as file:
            content = file.read()
        self.largest = max(self.largest, len(content))
        lines = content.split(b"\n")
        if lines.pop():
            self.torn.append(f"{os.path.basename(name)} ends within a line")
        for line in lines:
            match = LINE.match(line)
            if match:
                self.paths[match["path"]] += 1
            else:
                self.torn.append(f"{os.path.basename(name)}: {line[:80]!r}")
        self.lines += len(lines)
