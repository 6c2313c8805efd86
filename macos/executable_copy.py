"""Copies of the universal executable, for tests to break."""

import os
import pathlib
import struct

import pytest
from lief import MachO

EXECUTABLE = pathlib.Path(
    os.environ.get("EXECUTABLE", pathlib.Path(__file__).parents[1] / "build/macos-universal/webreq")
)
ARCHITECTURES = ("x86_64", "arm64")

# Fields of Mach-O's header, commands and sections: where each is from their beginning on, and its format.
FIELDS = {
    "cmd": (0, "I"),
    "cputype": (4, "I"),
    "filetype": (12, "I"),
    "flags": (24, "I"),
    "segname": (8, "16s"),
    "vmaddr": (24, "Q"),
    "vmsize": (32, "Q"),
    "fileoff": (40, "Q"),
    "filesize": (48, "Q"),
    "initprot": (60, "I"),
    "addr": (32, "Q"),
    "size": (40, "Q"),
    "offset": (48, "I"),
    "kind": (64, "I"),
    "nsyms": (12, "I"),
    "stroff": (16, "I"),
    "strsize": (20, "I"),
    "datasize": (12, "I"),
    "rebase_off": (8, "I"),
    "bind_off": (16, "I"),
    "lazy_bind_off": (32, "I"),
    "compatibility_version": (20, "I"),
}
SEGMENT_SIZE, SECTION_SIZE = 72, 80


class Slice:
    """One slice of a copy of the executable, to be changed in place. All positions are from the slice's beginning."""

    def __init__(self, path, architecture):
        self.path = path
        self.universal = MachO.parse(path)
        self.binary = next(b for b in self.universal if b.header.cpu_type.name.lower() == architecture)
        self.content = path.read_bytes()[self.binary.fat_offset :][: self.binary.original_size]

    def header(self):
        return 0

    def command(self, *kinds):
        return next(command for command in self.binary.commands if command.command in kinds).command_offset

    def segment(self, name):
        return self.binary.get_segment(name).command_offset

    def section(self, name):
        segment = self.binary.get_section(name).segment
        names = [section.name for section in segment.sections]
        return segment.command_offset + SEGMENT_SIZE + SECTION_SIZE * names.index(name)

    def read(self, position, field):
        offset, form = FIELDS[field]
        return struct.unpack_from("<" + form, self.content, position + offset)[0]

    def change(self, position, **fields):
        """Sets fields of what is at a position, each to a value or to what a function makes of the present one."""
        for field, value in fields.items():
            offset, form = FIELDS[field]
            new = value(self.read(position, field)) if callable(value) else value
            self.patch(position + offset, struct.pack("<" + form, new))

    def patch(self, position, content):
        with open(self.path, "r+b") as file:
            file.seek(self.binary.fat_offset + position)
            file.write(content)

    def replace(self, old, new, start=0):
        """Replaces the first occurrence behind `start`; the rest of the old bytes becomes zeros."""
        self.patch(self.content.index(old, start), new.ljust(len(old), b"\0"))


def rename(old, new, table="stroff"):
    """Renames a symbol in the table that a field tells the position of."""
    command = MachO.LoadCommand.TYPE.SYMTAB if table == "stroff" else MachO.LoadCommand.TYPE.DYLD_INFO_ONLY

    def break_slice(part):
        part.replace(old.encode() + b"\0", new.encode() + b"\0", part.read(part.command(command), table))

    return break_slice


@pytest.fixture(name="copy")
def copy_executable(tmp_path):
    copy = tmp_path / "webreq"
    copy.write_bytes(EXECUTABLE.read_bytes())
    return copy
