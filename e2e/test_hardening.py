"""What the linker and the compiler were asked to harden, as it stands in the executable."""

import json
import os
import subprocess

import pytest
from conftest import (
    BUILD,
    EXECUTABLE,
    IS_STATIC,
    REPOSITORY,
    impossible_on_macos,
    impossible_under_translator,
    only_static,
)

pytestmark = impossible_on_macos("no ELF files")

except_static = pytest.mark.skipif(IS_STATIC, reason="not for this build: has zig's libraries")

OWN_LIBRARIES = ["libfront_end.a", "libreqkit.a"]


def inspect(*command):
    return subprocess.run([*command, EXECUTABLE], capture_output=True, check=True, text=True).stdout


@pytest.fixture(name="headers", scope="session")
def read_headers():
    return [line.strip() for line in inspect("readelf", "--wide", "--program-headers", "--dynamic").splitlines()]


@pytest.fixture(name="symbols", scope="session")
def read_symbols():
    """What the tool's own code calls; the libraries linked into it may call the same."""
    archives = [BUILD / name for name in OWN_LIBRARIES]
    command = ["nm", "--demangle", "--undefined-only", *archives]
    return subprocess.run(command, capture_output=True, check=True, text=True).stdout


def test_position_independent(headers):
    assert "Elf file type is DYN (Position-Independent Executable file)" in headers


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


# The C library's checks and the C++ library's; musl has none of the former.
CHECKS = "-D_LIBCPP_HARDENING_MODE=_LIBCPP_HARDENING_MODE_EXTENSIVE" if IS_STATIC else "-D_FORTIFY_SOURCE=3"


@pytest.mark.parametrize("option", [CHECKS, "-fPI", "-fstack-clash-protection", "-fstack-protector-strong"])
def test_every_file_is_compiled_with(option):
    """Those of the libraries in a static build as well. The commands tell, since no frame of the tool's own is large
    enough for its machine code to show all of these."""
    commands = json.loads((BUILD / "compile_commands.json").read_text())
    assert any(entry["file"].endswith("/app/main.cpp") for entry in commands)
    assert [entry["file"] for entry in commands if option not in entry["command"]] == []


@except_static
def test_library_assertions_are_on(symbols):
    assert "std::__glibcxx_assert_fail" in symbols


@only_static
@impossible_under_translator("objdump is for this machine's code")
def test_library_assertions_trap():
    """Nothing else has the compiler emit this instruction."""
    archives = [BUILD / name for name in OWN_LIBRARIES]
    code = subprocess.run(["objdump", "--disassemble", *archives], capture_output=True, check=True, text=True).stdout
    assert "\tud2" in code


@except_static
def test_buffers_are_checked(symbols):
    if "clang" in inspect("readelf", "--string-dump", ".comment"):
        pytest.skip("not for this build: clang proves the one call safe and leaves it unchecked")
    assert "__snprintf_chk" in symbols


def test_indirect_branches_have_landing_pads():
    """On x86-64 (IBT) and on 64-bit Arm (BTI)."""
    archives = [BUILD / name for name in OWN_LIBRARIES]
    notes = subprocess.run(["readelf", "--notes", *archives], capture_output=True, check=True, text=True).stdout
    assert notes.count(" IBT,") + notes.count(" BTI,") == notes.count("File: ") > 0


@only_static
def test_nothing_is_loaded(headers):
    assert not any("NEEDED" in line or line.startswith("INTERP") for line in headers)


@only_static
def test_no_path_of_the_machine_that_built_it():
    assert os.fsencode(REPOSITORY) not in EXECUTABLE.read_bytes()
