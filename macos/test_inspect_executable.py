"""What the inspection is to refuse, made in a copy of the executable, is refused. "macos/test" runs it."""

import pathlib
import struct

import inspect_executable
import pytest
from lief import MachO

EXECUTABLE = pathlib.Path(__file__).parents[1] / "build/macos-universal/webreq"
ARCHITECTURES = ("x86_64", "arm64")
COMMAND = MachO.LoadCommand.TYPE


class Slice:
    """One slice of a copy of the executable, to be changed in place."""

    def __init__(self, path, architecture):
        self.path = path
        self.universal = MachO.parse(path)  # what is in it lasts as long as this
        self.binary = next(part for part in self.universal if part.header.cpu_type.name.lower() == architecture)

    def patch(self, position, content):
        with open(self.path, "r+b") as file:
            file.seek(self.binary.fat_offset + position)
            file.write(content)

    def replace(self, old, new, start=0):
        """Replaces the first occurrence behind `start`; the rest of the old bytes becomes zeros."""
        content = self.path.read_bytes()[self.binary.fat_offset :]
        self.patch(content.index(old, start), new.ljust(len(old), b"\0"))


def change_command(kind, offset, value):
    """Sets four bytes of a load command."""
    return lambda part: part.patch(part.binary[kind].command_offset + offset, struct.pack("<I", value))


def change_directory(offset, value):
    """Sets bytes of the signature's code directory."""

    def break_slice(part):
        signature = part.binary.code_signature
        (directory,) = struct.unpack_from(">I", bytes(signature.content), 16)
        part.patch(signature.data_offset + directory + offset, value)

    return break_slice


def change_signed_byte(part):
    section = part.binary.get_section("__cstring")
    part.patch(section.offset, bytes([section.content[0] ^ 1]))


def raise_oldest_system(part):
    build, minimum = part.binary.build_version, part.binary.version_min
    part.patch(build.command_offset + 12 if build else minimum.command_offset + 8, struct.pack("<I", 15 << 16))


def rename(old, new, start):
    """Renames an import in the table whose position `start` takes from the slice."""
    return lambda part: part.replace(old + b"\0", new + b"\0", start(part.binary))


BREAKS = {
    "oldest system": (raise_oldest_system, "the oldest system is 15.0.0, not "),
    "library": (
        lambda part: part.replace(b"/usr/lib/libcurl.4.", b"/usr/lib/libcurl.5."),
        "loads /usr/lib/libcurl.5.dylib",
    ),
    "library's version": (
        change_command(COMMAND.LOAD_DYLIB, 20, 8 << 16),
        "loads /usr/lib/libcurl.4.dylib 8.0.0",
    ),
    "newer command": (
        change_command(COMMAND.UUID, 0, COMMAND.DYLD_EXPORTS_TRIE.value),
        "has a load command of kind DYLD_EXPORTS_TRIE",
    ),
    "import": (
        rename(b"_strstr", b"_strstx", lambda binary: binary.symbol_command.strings_offset),
        "imports _strstx, which macos/symbols.txt doesn't list",
    ),
    "import, bound lazily": (
        rename(b"_strstr", b"_strstx", lambda binary: binary.dyld_info.lazy_bind[0]),
        "imports _strstx, which macos/symbols.txt doesn't list",
    ),
    "import, bound at once": (
        rename(b"___stderrp", b"___stderrx", lambda binary: binary.dyld_info.bind[0]),
        "imports ___stderrx, which macos/symbols.txt doesn't list",
    ),
    "no signature": (change_command(COMMAND.CODE_SIGNATURE, 0, COMMAND.FUNCTION_STARTS.value), "has no signature"),
    "signature that isn't ad hoc": (change_directory(12, bytes(4)), "the signature isn't an ad hoc one"),
    "signature with another hash": (change_directory(37, b"\1"), "the signature isn't an ad hoc one"),
    "signature of less": (change_directory(32, bytes(4)), "the signature isn't an ad hoc one"),
    "signature of fewer pages": (change_directory(28, b"\0\0\0\1"), "the signature doesn't fit the slice"),
    "byte of a signed page": (change_signed_byte, "the signature doesn't fit the slice"),
}


@pytest.fixture(name="copy")
def copy_executable(tmp_path):
    copy = tmp_path / "webreq"
    copy.write_bytes(EXECUTABLE.read_bytes())
    return copy


def inspect(path, capsys):
    """The problems, without the path in front of them."""
    status = inspect_executable.main(path)
    problems = capsys.readouterr().err.splitlines()
    assert status == bool(problems)
    return [problem.removeprefix(f"{path}: ") for problem in problems]


def test_executable_has_no_problem(capsys):
    assert inspect(EXECUTABLE, capsys) == []


@pytest.mark.parametrize("architecture", ARCHITECTURES)
@pytest.mark.parametrize("break_slice, expected", BREAKS.values(), ids=BREAKS)
def test_broken_slice_is_refused(copy, capsys, architecture, break_slice, expected):
    break_slice(Slice(copy, architecture))
    problems = inspect(copy, capsys)
    assert any(problem.startswith(f"{architecture}: {expected}") for problem in problems), problems


def test_import_that_the_oldest_system_lacks_is_refused(copy, capsys):
    rename(b"_posix_memalign", b"_aligned_alloc", lambda binary: binary.symbol_command.strings_offset)(
        Slice(copy, "x86_64")
    )
    assert "x86_64: imports _aligned_alloc, which is new in 10.15" in inspect(copy, capsys)


@pytest.mark.parametrize("architecture", ARCHITECTURES)
def test_layout_that_a_loader_refuses(copy, capsys, architecture):
    part = Slice(copy, architecture)
    part.patch(part.binary.get_segment("__DATA").command_offset + 32, struct.pack("<Q", 8))
    assert any("in segment __DATA, filesize exceeds vmsize" in problem for problem in inspect(copy, capsys))


@pytest.mark.parametrize("architecture", ARCHITECTURES)
def test_file_with_one_slice_is_refused(copy, capsys, architecture):
    binary = Slice(copy, architecture).binary
    copy.write_bytes(copy.read_bytes()[binary.fat_offset :][: binary.original_size])
    assert inspect(copy, capsys) == [f"has the slices ['{architecture}'], not ['arm64', 'x86_64']"]


def test_file_of_another_kind_is_refused(tmp_path, capsys):
    (tmp_path / "text").write_bytes(b"#!/bin/sh\n" * 100)
    assert inspect(tmp_path / "text", capsys) == ["has the slices [], not ['arm64', 'x86_64']"]
