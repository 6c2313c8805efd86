"""What the loader refuses: one line that names it, and status 126. $SLICE is the slice that it runs. "macos/test" runs
this."""

import os
import pathlib
import subprocess

import pytest
from executable_copy import Slice, copy_executable, rename

__all__ = ["copy_executable"]  # a fixture

SLICE = os.environ["SLICE"]


@pytest.fixture(name="run")
def make_runner(copy, tmp_path):
    """Breaks a copy of the executable. Returns what runs it, with functions bound lazily or eagerly."""

    def build(break_slice):
        break_slice(Slice(copy, SLICE))
        subprocess.run([pathlib.Path(__file__).with_name("build"), SLICE, copy, tmp_path / "run"], check=True)
        return lambda way, *arguments: subprocess.run(
            [tmp_path / "run" / way / "webreq", *arguments], capture_output=True, text=True, check=False
        )

    return build


def refusal(line):
    return ("", f"load: {line}\n", 126)


def test_refuses_an_unknown_import(run):
    """At launch, or when it is called: _atoi reads the time-out, of which the usage has none."""
    run = run(rename("_atoi", "_atox", "lazy_bind_off"))
    line = "the import _atox of /usr/lib/libSystem.B.dylib isn't known"
    usage, request = run("lazily"), run("lazily", "-web", "file:///dev/null")
    assert usage.returncode == 255 and usage.stdout.startswith("webreq v")
    for refused in (request, run("eagerly")):
        assert (refused.stdout, refused.stderr, refused.returncode) == refusal(line)


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
    run = run(lambda part: part.replace(*CONSTANTS[line][SLICE]))
    refused = run("lazily", "-web", f"file:///dev/null||||||{tmp_path}/out")
    assert (refused.stderr, refused.returncode) == refusal(line)[1:]
    assert refused.stdout == ("0\n" if line.startswith("open") else "")
