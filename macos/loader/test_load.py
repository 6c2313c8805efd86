"""What the loader refuses: one line that names it, and status 126. $PROGRAMS is the folder that "assemble" has filled
from the slice $SLICE. "macos/test" runs this."""

import os
import pathlib
import re
import struct
import subprocess

import pytest
from lief import MachO

SLICE = os.environ["SLICE"]
PROGRAMS = pathlib.Path(os.environ["PROGRAMS"])
ROOT = pathlib.Path(__file__).parents[2] / "build/arm64"
NAME, TRANSLATOR = {"x86_64": ("webreq", []), "arm64": ("translated", ["qemu-aarch64", "-L", ROOT])}[SLICE]


@pytest.fixture(name="run")
def make_runner(tmp_path):
    """Runs a copy of the program, lazily's or eagerly's, in whose slice bytes are replaced."""

    def run(way, old, new, *arguments):
        content = (PROGRAMS / way / NAME).read_bytes()
        begin = content.index(struct.pack("<I", MachO.MACHO_TYPES.MAGIC_64.value))
        broken = content[:begin] + content[begin:].replace(old, new, 1)
        assert old != new and len(broken) == len(content) and broken != content
        copy = tmp_path / way
        copy.write_bytes(broken)
        copy.chmod(0o755)
        return subprocess.run([*TRANSLATOR, copy, *arguments], capture_output=True, text=True, timeout=60, check=False)

    return run


# Instructions that load a constant, and the same with one that isn't known: the flags of the output file, with O_EXCL
# in place of O_CREAT and O_TRUNC; the memory's, with MAP_SHARED beside them; SIGPIPE, which becomes SIGALRM.
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
def test_refuses_an_unknown_constant(run, tmp_path, line):
    refused = run("lazily", *CONSTANTS[line][SLICE], "-web", f"file:///dev/null||||||{tmp_path}/out")
    assert (refused.stderr, refused.returncode) == (f"load: {line}\n", 126)
    assert refused.stdout == ("0\n" if line.startswith("open") else "")


def test_binds_lazily_or_eagerly(run):
    """The helper of _atoi's stub asks for a binding that there isn't, when it is called: for a request's time-out."""
    executable = MachO.parse(pathlib.Path(__file__).parents[2] / "build/macos-universal/webreq")
    binary = next(binary for binary in executable if binary.header.cpu_type.name.lower() == SLICE)
    (number,) = [binding.original_offset for binding in binary.bindings if binding.symbol.name == "_atoi"]
    beginning = {"x86_64": rb"\x68", "arm64": rb"\x50\0\0\x18...."}[SLICE]  # push NUMBER; ldr w16, #8; b ...
    helper = re.search(
        beginning + re.escape(struct.pack("<I", number)), (PROGRAMS / "lazily" / NAME).read_bytes(), re.S
    )
    broken = helper[0], helper[0][:-4] + struct.pack("<I", 9999)
    usage = run("lazily", *broken)
    assert usage.returncode == 255 and usage.stdout.startswith("webreq v")
    refused = run("lazily", *broken, "-web", "file:///dev/null")
    assert (refused.stdout, refused.stderr, refused.returncode) == ("", "load: there is no lazy binding 9999\n", 126)
    answered = run("eagerly", *broken, "-web", "file:///dev/null")
    assert (answered.stdout, answered.stderr, answered.returncode) == ("0\n", "", 0)
