"""Each rule of the inspection, broken in a copy of the executable, is refused. "macos/test" runs it."""

import struct

import inspect_executable
import pytest
from executable_copy import ARCHITECTURES, EXECUTABLE, Slice, copy_executable, rename
from lief import MachO
from loader_rules import CLASS, COMMAND, VERSION_COMMANDS

__all__ = ["copy_executable"]  # a fixture

CPU_TYPE_I386 = 7
MH_BUNDLE = 8


def changing(locate):
    """Makes functions that make breaks: of what `locate`, one of Slice's, finds by a name, fields are changed."""
    return lambda *names, **fields: lambda part: part.change(locate(part, *names), **fields)


change_header = changing(Slice.header)
change_command = changing(Slice.command)
change_segment = changing(Slice.segment)
change_section = changing(Slice.section)


def swap_names(one, other):
    def break_slice(part):
        part.change(part.segment(one), segname=other.encode())
        part.change(part.segment(other), segname=one.encode())

    return break_slice


def change_directory(offset, value):
    """Breaks the signature's code directory."""

    def break_slice(part):
        signature = part.binary.code_signature.data_offset
        (directory,) = struct.unpack_from(">I", part.content, signature + 16)
        part.patch(signature + directory + offset, value)

    return break_slice


def add_signature_part(part):
    part.patch(part.binary.code_signature.data_offset + 8, b"\0\0\0\2")


def add_run_path(part):
    part.patch(part.command(COMMAND.UUID), struct.pack("<III12s", COMMAND.RPATH.value, 24, 12, b"/tmp"))


def change_signed_byte(part):
    section = part.binary.get_section("__cstring")
    part.patch(section.offset, bytes([part.content[section.offset] ^ 1]))


def change_lazy_pointer(part):
    section = part.binary.get_section("__la_symbol_ptr")
    lazy = next(binding for binding in part.binary.bindings if binding.binding_class == CLASS.LAZY)
    part.patch(section.offset + lazy.address - section.virtual_address, struct.pack("<Q", 0x100000000))


def change_last_lazy_offset(part):
    section = part.binary.get_section("__stub_helper")
    size = 9 if part.binary.header.cpu_type == MachO.Header.CPU_TYPE.X86_64 else 4
    part.patch(section.offset + section.size - size, struct.pack("<I", 0))


def raise_oldest_system(part):
    """The version is the third or the fourth number, depending on the command."""
    position = part.command(*VERSION_COMMANDS)
    is_build_version = part.read(position, "cmd") == COMMAND.BUILD_VERSION.value
    part.patch(position + (12 if is_build_version else 8), struct.pack("<I", 15 << 16))


def change_opcode(field, opcode, number=0):
    """Of rebases or bindings; rebases begin with a type, then a segment's number and an offset in it."""
    return lambda part: part.patch(part.read(part.command(COMMAND.DYLD_INFO_ONLY), field) + number, bytes([opcode]))


def plus(number):
    return lambda value: value + number


BREAKS = {
    "oldest system": (raise_oldest_system, "the oldest system is 15.0.0, not "),
    "library": (
        lambda part: part.replace(b"/usr/lib/libcurl.4.", b"/usr/lib/libcurl.5."),
        "loads /usr/lib/libcurl.5.dylib",
    ),
    "library's version": (
        change_command(COMMAND.LOAD_DYLIB, compatibility_version=8 << 16),
        "loads /usr/lib/libcurl.4.dylib 8.0.0",
    ),
    "rpath": (add_run_path, "has a load command of kind RPATH"),
    "no signature": (
        change_command(COMMAND.CODE_SIGNATURE, cmd=COMMAND.FUNCTION_STARTS.value),
        "has no signature",
    ),
    "signature that isn't ad hoc": (change_directory(12, bytes(4)), "the signature isn't an ad hoc one"),
    "signature with another hash": (change_directory(37, b"\1"), "the signature isn't an ad hoc one"),
    "signature of less": (change_directory(32, bytes(4)), "the signature isn't an ad hoc one"),
    "signature with another part": (add_signature_part, "the signature isn't an ad hoc one"),
    "signature with more than pages": (change_directory(24, b"\0\0\0\1"), "the signature isn't an ad hoc one"),
    "signature of fewer pages": (change_directory(28, b"\0\0\0\1"), "the signature doesn't fit the slice"),
    "byte of a signed page": (change_signed_byte, "the signature doesn't fit the slice"),
    "unknown import": (rename("_strstr", "_strstx"), "imports _strstx, which symbols.txt doesn't list"),
    "not position-independent": (
        change_header(flags=lambda flags: flags & ~MachO.Header.FLAGS.PIE.value),
        "isn't position-independent",
    ),
    "no version": (
        change_command(*VERSION_COMMANDS, cmd=COMMAND.SOURCE_VERSION.value),
        "hasn't one version command",
    ),
    "two versions": (change_command(COMMAND.UUID, cmd=VERSION_COMMANDS[0].value), "hasn't one version command"),
    "no dynamic linker": (
        change_command(COMMAND.LOAD_DYLINKER, cmd=COMMAND.ID_DYLINKER.value),
        "hasn't one dynamic linker, /usr/lib/dyld",
    ),
    "another dynamic linker": (
        lambda part: part.replace(b"/usr/lib/dyld", b"/usr/lib/dylD"),
        "hasn't one dynamic linker, /usr/lib/dyld",
    ),
    "two dynamic linkers": (
        change_command(COMMAND.UUID, cmd=COMMAND.LOAD_DYLINKER.value),
        "hasn't one dynamic linker, /usr/lib/dyld",
    ),
    "address of a segment": (change_segment("__DATA", vmaddr=plus(8)), "__DATA isn't on page boundaries"),
    "offset of a segment": (change_segment("__DATA", fileoff=plus(8)), "__DATA isn't on page boundaries"),
    "content behind the file": (
        change_segment("__LINKEDIT", filesize=plus(1 << 20), vmsize=plus(1 << 20)),
        "__LINKEDIT segment does not wrap the end of the binary",
    ),
    "content behind the addresses": (change_segment("__DATA", vmsize=8), "in segment __DATA, filesize exceeds vmsize"),
    "content elsewhere": (change_segment("__DATA", fileoff=1 << 30), "'__DATA' and '__LINKEDIT' are wrongly ordered"),
    "addresses that overlap": (change_segment("__DATA", vmaddr=plus(-0x4000)), "overlap (virtual addresses)"),
    "contents that overlap": (change_segment("__DATA", fileoff=plus(-0x4000)), "overlap (file offsets)"),
    "no __LINKEDIT": (change_segment("__LINKEDIT", segname=b"__LINK"), "hasn't its __LINKEDIT at the end"),
    "two __LINKEDIT": (change_segment("__DATA", segname=b"__LINKEDIT"), "LINKEDIT content "),
    "__LINKEDIT in the middle": (swap_names("__LINKEDIT", "__DATA"), "hasn't its __LINKEDIT at the end"),
    "another beginning": (swap_names("__PAGEZERO", "__DATA"), "doesn't begin with a __PAGEZERO of 4 GiB"),
    "header in another segment": (swap_names("__TEXT", "__DATA"), "hasn't its header in __TEXT"),
    "small __PAGEZERO": (change_segment("__PAGEZERO", vmsize=0x4000), "doesn't begin with a __PAGEZERO of 4 GiB"),
    "moved __PAGEZERO": (change_segment("__PAGEZERO", vmaddr=0x4000), "doesn't begin with a __PAGEZERO of 4 GiB"),
    "__PAGEZERO with content": (
        change_segment("__PAGEZERO", filesize=0x4000),
        "doesn't begin with a __PAGEZERO of 4 GiB",
    ),
    "readable __PAGEZERO": (change_segment("__PAGEZERO", initprot=1), "doesn't begin with a __PAGEZERO of 4 GiB"),
    "header outside __TEXT": (change_segment("__TEXT", fileoff=0x4000), "hasn't its header in __TEXT"),
    "commands outside __TEXT": (change_segment("__TEXT", filesize=64), "hasn't its header in __TEXT"),
    "section in front": (change_section("__la_symbol_ptr", addr=plus(-0x4000)), "__la_symbol_ptr isn't inside __DATA"),
    "section too long": (change_section("__data", size=plus(1 << 20)), "__data isn't inside __DATA"),
    "zeros too long": (change_section("__bss", size=plus(1 << 20)), "__bss isn't inside __DATA"),
    "section's offset": (change_section("__data", offset=plus(8)), "__data isn't where __DATA has its addresses"),
    "symbols": (change_command(COMMAND.SYMTAB, nsyms=plus(1000)), "symbol count from symbol table and dynamic"),
    "signature over the strings": (
        change_command(COMMAND.SYMTAB, strsize=plus(0x1000)),
        "LINKEDIT content 'SYMTAB_STR' extends beyond end of segment",
    ),
    "something behind the signature": (
        change_command(COMMAND.CODE_SIGNATURE, datasize=plus(-16)),
        "__LINKEDIT.end ",
    ),
    "lazy offset": (change_last_lazy_offset, "doesn't lead to its binding"),
    "lazy pointer": (change_lazy_pointer, "doesn't lead to its binding"),
    "lazily bound name": (rename("_strstr", "_strlen", "lazy_bind_off"), "binds _strlen where _strstr is called"),
    "unknown import, bound lazily": (rename("_strstr", "_strstx", "lazy_bind_off"), "imports _strstx, which symbols"),
    "unknown import, bound at once": (rename("___stderrp", "___stderrx", "bind_off"), "imports ___stderrx, which "),
    "another type of file": (change_header(filetype=MH_BUNDLE), "isn't an executable"),
    "unknown command": (
        change_command(COMMAND.UUID, cmd=COMMAND.DYLD_EXPORTS_TRIE.value),
        "has a load command of kind DYLD_EXPORTS_TRIE",
    ),
    "no entry point": (change_command(COMMAND.MAIN, cmd=COMMAND.UUID.value), "Missing LC_MAIN"),
    "type of rebases": (change_opcode("rebase_off", 0x12), "rebases or binds something of type "),
    "opcode of rebases": (change_opcode("rebase_off", 0xF0), "rebases or binds something of type "),
    "opcode of bindings": (change_opcode("bind_off", 0xD0), "imports ___stderrp without binding it"),
    "rebases in __TEXT": (change_opcode("rebase_off", 0x21, 1), "LIEF stumbles: Can't find the section"),
    "binding in __TEXT": (change_opcode("lazy_bind_off", 0x71), "has a pointer at 0x100000008, where none can be"),
    "initialisers": (change_section("__const", kind=9), "__const is of type MOD_INIT_FUNC_POINTERS"),
    "command that nobody knows": (change_command(COMMAND.UUID, cmd=0x99), "LIEF stumbles: Command 'UNKNOWN' (153)"),
}


def inspect(path, capsys):
    """The problems, without the path in front of them."""
    status = inspect_executable.main(path)
    problems = capsys.readouterr().err.splitlines()
    assert status == bool(problems)
    return [problem.removeprefix(f"{path}: ") for problem in problems]


def test_executable_has_no_problem(capsys):
    assert inspect(EXECUTABLE, capsys) == []


@pytest.mark.parametrize("architecture", ARCHITECTURES)
@pytest.mark.parametrize("name", BREAKS)
def test_broken_slice_is_refused(copy, capsys, name, architecture):
    break_slice, expected = BREAKS[name]
    break_slice(Slice(copy, architecture))
    problems = inspect(copy, capsys)
    assert any(problem.startswith(f"{architecture}: ") and expected in problem for problem in problems), problems


def test_import_that_the_oldest_system_lacks_is_refused(copy, capsys):
    rename("_posix_memalign", "_aligned_alloc")(Slice(copy, "x86_64"))
    assert "x86_64: imports _aligned_alloc, which is new in 10.15" in inspect(copy, capsys)


@pytest.mark.parametrize("architecture", ARCHITECTURES)
def test_slice_of_another_architecture_is_refused(copy, capsys, architecture):
    change_header(cputype=CPU_TYPE_I386)(Slice(copy, architecture))
    assert inspect(copy, capsys) == [f"{architecture}: the slice isn't for the processor that the file lists"]


@pytest.mark.parametrize("architecture", ARCHITECTURES)
def test_file_without_a_slice_is_refused(copy, capsys, architecture):
    number = struct.pack(">I", Slice(copy, architecture).binary.header.cpu_type.value)
    content = copy.read_bytes()
    copy.write_bytes(content[:64].replace(number, b"\0\0\0\7", 1) + content[64:])
    (problem,) = inspect(copy, capsys)
    assert problem.startswith("has the slices ['7', ")


def test_slice_off_a_page_boundary_is_refused(copy, capsys):
    content, start = copy.read_bytes(), Slice(copy, "arm64").binary.fat_offset
    moved = content[:start].replace(struct.pack(">I", start), struct.pack(">I", start + 16))
    copy.write_bytes(moved + bytes(16) + content[start:])
    assert inspect(copy, capsys) == ["arm64: the slice isn't on a page boundary of the file"]


def test_file_of_another_kind_is_refused(tmp_path, capsys):
    (tmp_path / "text").write_bytes(b"#!/bin/sh\n" * 100)
    assert inspect(tmp_path / "text", capsys) == ["has the slices [], not ['arm64', 'x86_64']"]
