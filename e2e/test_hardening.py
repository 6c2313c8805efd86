"""How the executable is hardened, and what its objects may hold."""

import json
import os
import re
import subprocess

import pytest
from conftest import BUILD, EXECUTABLE, IS_STATIC, OBJECTS, REPOSITORY, TRANSLATOR
from conftest import impossible_on_macos, only_static, unless

pytestmark = impossible_on_macos("no ELF files")

except_static = unless(IS_STATIC, "has zig's libraries")


def inspect(*command):
    return subprocess.run(command, capture_output=True, check=True, text=True).stdout


@pytest.fixture(name="headers", scope="session")
def read_headers():
    return [line.strip() for line in inspect("readelf", "--wide", "--segments", "--dynamic", EXECUTABLE).splitlines()]


@pytest.fixture(name="symbols", scope="session")
def read_symbols():
    """What the tool's own code calls; the libraries linked into it may call the same."""
    return inspect("nm", "--demangle", "--undefined-only", *OBJECTS)


@pytest.fixture(name="code", scope="session")
def disassemble():
    if TRANSLATOR:
        pytest.skip(f"not for this build: {TRANSLATOR}: objdump is for this machine's code")
    return inspect("objdump", "--disassemble", *OBJECTS)


@pytest.fixture(name="commands", scope="session")
def read_commands():
    """What compiled each file, those of the libraries in a static build as well."""
    return json.loads((BUILD / "compile_commands.json").read_text())


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
def test_every_file_is_compiled_with(commands, option):
    """No frame of the tool's own is large enough for its machine code to show all of these."""
    assert any(entry["file"].endswith("/app/main.cpp") for entry in commands)
    assert [entry["file"] for entry in commands if option not in entry["command"]] == []


def test_no_file_is_compiled_for_newer_processors(commands):
    """Unless a distribution asks for it."""
    given = re.search("^CMAKE_CXX_FLAGS:STRING=(.*)", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)[1].split()
    options = {option for entry in commands for option in entry["command"].split() if option.startswith("-m")}
    assert options <= {"-mbranch-protection=standard", *given}


def test_nothing_runs_before_main():
    sections = inspect("readelf", "--wide", "--sections", *OBJECTS)
    assert re.findall(r"\.(?:preinit_array|init_array|fini_array|ctors|dtors)", sections) == []


def test_kernel_is_called_by_the_c_library_alone(code):
    assert re.findall(r"\t(?:syscall|sysenter|int +\$0x80|svc)\b.*", code) == []


@except_static
def test_library_assertions_are_on(symbols):
    assert "std::__glibcxx_assert_fail" in symbols


@only_static
def test_library_assertions_trap(code):
    """Nothing else has the compiler emit these instructions, x86-64's and Arm's."""
    assert re.search(r"\t(ud2|brk)\b", code)


@except_static
def test_buffers_are_checked(symbols):
    if "clang" in inspect("readelf", "--string-dump", ".comment", EXECUTABLE):
        pytest.skip("not for this build: clang proves the one call safe and leaves it unchecked")
    assert "__snprintf_chk" in symbols


def test_indirect_branches_have_landing_pads():
    """On x86-64 (IBT) and on 64-bit Arm (BTI)."""
    notes = inspect("readelf", "--notes", *OBJECTS)
    assert notes.count(" IBT,") + notes.count(" BTI,") == notes.count("File: ") > 0


@only_static
def test_nothing_is_loaded(headers):
    assert not any("NEEDED" in line or line.startswith("INTERP") for line in headers)


@only_static
def test_no_path_of_the_machine_that_built_it():
    assert os.fsencode(REPOSITORY) not in EXECUTABLE.read_bytes()
