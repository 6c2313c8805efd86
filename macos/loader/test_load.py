"""What the loader refuses: one line that names it, and status 126. $LOADER is the beginning of its command line, up to
the executable; $SLICE the architecture that it loads. "macos/test" runs it."""

import os
import shlex
import struct
import subprocess

import pytest
from executable_copy import ARCHITECTURES, Slice, copy_executable, rename
from macholib import mach_o

__all__ = ["copy_executable"]  # a fixture

SLICE = os.environ["SLICE"]
LIBSYSTEM = "/usr/lib/libSystem.B.dylib"


def load(path, way="eagerly", arguments=("webreq",)):
    loader = [way if word == "WAY" else word for word in shlex.split(os.environ["LOADER"])]
    return subprocess.run([*loader, path, *arguments], capture_output=True, text=True, check=False)


def test_loads_the_executable(copy):
    run = load(copy)
    assert (run.stderr, run.returncode) == ("", 255)
    assert run.stdout.startswith("webreq v")


def break_segment(name, field, value):
    def break_slice(part):
        setattr(part.segment(name), field, value(getattr(part.segment(name), field)))
        part.save()

    return break_slice


def clear_pie(part):
    part.macho.header.flags &= ~mach_o.MH_PIE
    part.save()


def change_header(field, value):
    def break_slice(part):
        setattr(part.macho.header, field, value)
        part.save()

    return break_slice


def change_kind(kind, to):
    return lambda part: part.patch(part.position(kind), struct.pack("<I", to))


def change_first_opcode(field, opcode):
    """Of rebases or bindings."""
    return lambda part: part.patch(getattr(part.command(mach_o.LC_DYLD_INFO_ONLY), field), bytes([opcode]))


def move_first_rebase(part):
    """The opcodes begin with a type, a segment's number and an offset in it, which becomes __TEXT's."""
    part.patch(part.command(mach_o.LC_DYLD_INFO_ONLY).rebase_off + 1, b"\x21")


@pytest.mark.parametrize(
    "break_slice, line",
    [
        (rename("_strstr", "_strstx", "lazy bindings"), f"the import _strstx of {LIBSYSTEM} isn't known"),
        (rename("___stderrp", "___stderrx", "bindings"), f"the import ___stderrx of {LIBSYSTEM} isn't known"),
        (change_header("cputype", 7), "PATH: is for another architecture"),
        (change_header("filetype", 8), "PATH: has the file type 8, not 2"),
        (clear_pie, "PATH: isn't position-independent"),
        (change_kind(mach_o.LC_UUID, 0x80000033), "PATH: has a load command of kind 0x80000033"),
        (change_kind(mach_o.LC_MAIN, mach_o.LC_UUID), "PATH: has no entry point"),
        (lambda part: part.replace(b"/usr/lib/dyld", b"/usr/lib/dylD"), "PATH: the loader isn't /usr/lib/dyld"),
        (break_segment("__DATA", "vmaddr", lambda address: address + 8), "PATH: __DATA isn't on page boundaries"),
        (break_segment("__DATA", "vmaddr", lambda address: address - 0x4000), "PATH: __DATA isn't behind __DATA_CONST"),
        (break_segment("__DATA", "fileoff", lambda _: 1 << 30), "PATH: __DATA has content behind the end"),
        (break_segment("__DATA", "vmsize", lambda _: 8), "PATH: __DATA has more content than addresses"),
        (break_segment("__PAGEZERO", "vmsize", lambda _: 8), "PATH: doesn't begin with a __PAGEZERO of 4 GiB"),
        (change_first_opcode("rebase_off", 0x12), "PATH: rebases something of type 2"),
        (change_first_opcode("rebase_off", 0xF0), "PATH: has a rebase opcode 0xf0"),
        (change_first_opcode("bind_off", 0xD0), "PATH: has a bind opcode 0xd0"),
    ],
)
def test_refuses(copy, break_slice, line):
    break_slice(Slice(copy, SLICE))
    run = load(copy)
    assert (run.stdout, run.stderr, run.returncode) == ("", f"load: {line.replace('PATH', str(copy))}\n", 126)


def test_refuses_a_pointer_where_none_can_be(copy):
    move_first_rebase(Slice(copy, SLICE))
    run = load(copy)
    assert run.stderr.startswith(f"load: {copy}: a pointer at ") and run.stderr.endswith(
        " of __TEXT, which can't have one\n"
    )
    assert (run.stdout, run.returncode) == ("", 126)


def test_refuses_an_unknown_import_when_it_is_called(copy):
    """_atoi reads the time-out; the usage has none."""
    rename("_atoi", "_atox", "lazy bindings")(Slice(copy, SLICE))
    assert load(copy, "lazily").returncode == 255
    run = load(copy, "lazily", ["webreq", "-web", "file:///dev/null"])
    line = f"load: the import _atox of {LIBSYSTEM} isn't known\n"
    assert (run.stdout, run.stderr, run.returncode) == ("", line, 126)


# Instructions that load a constant, and the same with one that isn't known: the flags of the output file, with O_EXCL in
# place of O_CREAT and O_TRUNC; the memory's, with MAP_SHARED beside them; SIGPIPE, which becomes SIGALRM.
CONSTANTS = {
    "open gets the unknown bits 0x800": {
        "x86_64": (b"\xbe\x01\x06\0\0", b"\xbe\x01\x08\0\0"),
        "arm64": (b"\x21\xc0\x80\x52", b"\x21\0\x81\x52"),
    },
    "mmap gets the unknown bits 0x1": {
        "x86_64": (b"\xb9\x02\x10\0\0", b"\xb9\x03\x10\0\0"),
        "arm64": (b"\x43\0\x82\x52", b"\x63\0\x82\x52"),
    },
    "signal gets the unknown signal 14": {
        "x86_64": (b"\xbf\x0d\0\0\0", b"\xbf\x0e\0\0\0"),
        "arm64": (b"\xa0\x01\x80\x52", b"\xc0\x01\x80\x52"),
    },
}


@pytest.mark.parametrize("line", CONSTANTS)
def test_refuses_an_unknown_constant(copy, tmp_path, line):
    Slice(copy, SLICE).replace(*CONSTANTS[line][SLICE])
    run = load(copy, "lazily", ["webreq", "-web", f"file:///dev/null||||||{tmp_path}/out"])
    assert (run.stderr, run.returncode) == (f"load: {line}\n", 126)
    assert run.stdout == ("0\n" if line.startswith("open") else "")


def test_refuses_a_file_without_the_slice(copy):
    head, number = copy.read_bytes()[:64], struct.pack(">I", ARCHITECTURES[SLICE])
    copy.write_bytes(head.replace(number, bytes(4), 1) + copy.read_bytes()[64:])
    run = load(copy)
    line = f"load: {copy}: has no slice for this architecture\n"
    assert (run.stdout, run.stderr, run.returncode) == ("", line, 126)


def test_refuses_a_file_of_another_kind(tmp_path):
    (tmp_path / "text").write_bytes(b"#!/bin/sh\n" * 100)
    for name, problem in {"text": "is no Mach-O file of 64 bits", "missing": "No such file or directory"}.items():
        run = load(tmp_path / name)
        assert (run.stdout, run.stderr, run.returncode) == ("", f"load: {tmp_path}/{name}: {problem}\n", 126)
