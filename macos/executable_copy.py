"""Copies of the universal executable, for tests to break."""

import os
import pathlib

import pytest
from macholib import mach_o
from macholib.MachO import MachO

EXECUTABLE = pathlib.Path(
    os.environ.get("EXECUTABLE", pathlib.Path(__file__).parents[1] / "build/macos-universal/webreq")
)
ARCHITECTURES = {"x86_64": 0x01000007, "arm64": 0x0100000C}  # their numbers as CPU types
CPU_TYPE_I386 = 7
HEADER_SIZE = 32


class Slice:
    """One slice of a copy of the executable, to be changed in place. All positions are from the slice's beginning."""

    def __init__(self, path, architecture):
        self.path = path
        (self.macho,) = [h for h in MachO(path).headers if h.header.cputype == ARCHITECTURES[architecture]]
        self.content = path.read_bytes()[self.macho.offset :][: self.macho.size]

    def command(self, *kinds):
        return next(command for load, command, _ in self.macho.commands if load.cmd in kinds)

    def position(self, *kinds):
        position = HEADER_SIZE
        for load, _, _ in self.macho.commands:
            if load.cmd in kinds:
                return position
            position += load.cmdsize
        raise ValueError(kinds)

    def segment(self, name):
        return next(part for part in self.segments() if part.segname.rstrip(b"\0") == name.encode())

    def section(self, name):
        return next(part for part in self._sections() if part.sectname.rstrip(b"\0") == name.encode())

    def segments(self):
        return [command for load, command, _ in self.macho.commands if load.cmd == mach_o.LC_SEGMENT_64]

    def _sections(self):
        return [part for load, _, parts in self.macho.commands if load.cmd == mach_o.LC_SEGMENT_64 for part in parts]

    def save(self):
        """Writes header and commands, as changed through macholib."""
        with open(self.path, "r+b") as file:
            self.macho.write(file)

    def patch(self, position, content):
        with open(self.path, "r+b") as file:
            file.seek(self.macho.offset + position)
            file.write(content)

    def replace(self, old, new, start=0):
        """Replaces the first occurrence behind `start`; the rest of the old bytes becomes zeros."""
        self.patch(self.content.index(old, start), new.ljust(len(old), b"\0"))


def rename(old, new, table="stroff"):
    def break_slice(part):
        start = part.command(mach_o.LC_SYMTAB).stroff
        if table == "bindings":
            start = part.command(mach_o.LC_DYLD_INFO_ONLY).bind_off
        if table == "lazy bindings":
            start = part.command(mach_o.LC_DYLD_INFO_ONLY).lazy_bind_off
        part.replace(old.encode() + b"\0", new.encode() + b"\0", start)

    return break_slice


@pytest.fixture(name="copy")
def copy_executable(tmp_path):
    copy = tmp_path / "webreq"
    copy.write_bytes(EXECUTABLE.read_bytes())
    return copy
