"""What the linker and the compiler were asked to harden, as it stands in the executable."""

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
    return inspect("nm", "--demangle")


def test_position_independent(headers):
    assert any(line.endswith("(Position-Independent Executable file)") for line in headers)


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


def test_library_assertions_are_on(symbols):
    assert "std::__glibcxx_assert_fail" in symbols


def test_buffers_are_checked(symbols):
    if "clang" in inspect("readelf", "--string-dump", ".comment"):
        pytest.skip("clang proves the one call safe and leaves it unchecked")
    assert "__snprintf_chk" in symbols


@pytest.mark.skipif(platform.machine() != "x86_64", reason="a feature of x86-64")
def test_indirect_branches_have_landing_pads():
    assert "endbr64" in inspect("objdump", "--disassemble=main")
