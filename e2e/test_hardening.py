"""What the linker and the compiler were asked to harden, as it stands in the executable."""

import json
import pathlib
import platform
import subprocess
import sys

import pytest
from conftest import WEBREQ

pytestmark = pytest.mark.skipif(sys.platform != "linux", reason="looks into ELF files")


def inspect(*command):
    return subprocess.run([*command, WEBREQ], capture_output=True, check=True, text=True).stdout


@pytest.fixture(name="headers", scope="session")
def read_headers():
    return [line.strip() for line in inspect("readelf", "--wide", "--program-headers", "--dynamic").splitlines()]


@pytest.fixture(name="symbols", scope="session")
def read_symbols():
    """What the tool's own code calls; the libraries linked into it may call the same."""
    archives = [pathlib.Path(WEBREQ).with_name(name) for name in ("libfront_end.a", "libreqkit.a")]
    command = ["nm", "--demangle", "--undefined-only", *archives]
    return subprocess.run(command, capture_output=True, check=True, text=True).stdout


def test_position_independent(headers):
    """But for the lean build, which gives it up for a faster start: docs/performance.md."""
    is_lean = pathlib.Path(WEBREQ).parent.name == "lean"
    kind = "EXEC (Executable file)" if is_lean else "DYN (Position-Independent Executable file)"
    assert f"Elf file type is {kind}" in headers


def test_relocations_are_read_only_and_bound_at_start(headers):
    assert any(line.startswith("GNU_RELRO") for line in headers)
    assert any("(FLAGS)" in line and "BIND_NOW" in line for line in headers)


def test_stack_is_not_executable(headers):
    (stack,) = [line.split() for line in headers if line.startswith("GNU_STACK")]
    assert stack[6] == "RW"


def test_no_search_path_for_libraries(headers):
    assert not any("RPATH" in line or "RUNPATH" in line for line in headers)


def test_stack_is_protected(symbols):
    assert "__stack_chk_fail" in symbols


def test_every_file_is_compiled_with_stack_clash_protection():
    """No frame of the tool's own is large enough to show it in the machine code."""
    commands = json.loads(pathlib.Path(WEBREQ).with_name("compile_commands.json").read_text())
    assert all("-fstack-clash-protection" in entry["command"] for entry in commands)


def test_library_assertions_are_on(symbols):
    assert "std::__glibcxx_assert_fail" in symbols


def test_buffers_are_checked(symbols):
    if "clang" in inspect("readelf", "--string-dump", ".comment"):
        pytest.skip("clang proves the one call safe and leaves it unchecked")
    assert "__snprintf_chk" in symbols


@pytest.mark.skipif(platform.machine() != "x86_64", reason="a feature of x86-64")
def test_indirect_branches_have_landing_pads():
    assert "endbr64" in inspect("objdump", "--disassemble=main")
