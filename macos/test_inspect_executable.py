"""Each rule of the inspection, broken in a copy of the executable, is refused. "scripts/check macos" runs it."""

import struct

import inspect_executable
import pytest
from executable_copy import ARCHITECTURES, CPU_TYPE_I386, EXECUTABLE, Slice, copy_executable, rename
from loader_rules import read_lazy_bindings
from macholib import mach_o

__all__ = ["copy_executable"]  # a fixture


def change(part, **fields):
    for name, value in fields.items():
        setattr(part, name, value)


def change_segment(name, **changes):
    """Breaks a segment: each field becomes what its function makes of it."""

    def break_slice(part):
        segment = part.segment(name)
        change(segment, **{field: function(getattr(segment, field)) for field, function in changes.items()})
        part.save()

    return break_slice


def swap_names(one, other):
    def break_slice(part):
        first, second = part.segment(one), part.segment(other)
        first.segname, second.segname = second.segname, first.segname
        part.save()

    return break_slice


def change_section(name, **changes):
    def break_slice(part):
        section = part.section(name)
        change(section, **{field: function(getattr(section, field)) for field, function in changes.items()})
        part.save()

    return break_slice


def change_command(*kinds, **changes):
    def break_slice(part):
        command = part.command(*kinds)
        change(command, **{field: function(getattr(command, field)) for field, function in changes.items()})
        part.save()

    return break_slice


def change_kind(*kinds, to):
    return lambda part: part.patch(part.position(*kinds), struct.pack("<I", to))


def change_directory(offset, value):
    """Breaks the signature's code directory."""

    def break_slice(part):
        signature = part.command(mach_o.LC_CODE_SIGNATURE).dataoff
        (directory,) = struct.unpack_from(">I", part.content, signature + 16)
        part.patch(signature + directory + offset, value)

    return break_slice


def add_signature_part(part):
    part.patch(part.command(mach_o.LC_CODE_SIGNATURE).dataoff + 8, b"\0\0\0\2")


def clear_pie(part):
    part.macho.header.flags &= ~mach_o.MH_PIE
    part.save()


def add_run_path(part):
    part.patch(part.position(mach_o.LC_UUID), struct.pack("<III12s", mach_o.LC_RPATH, 24, 12, b"/tmp"))


def change_signed_byte(part):
    section = part.section("__cstring")
    part.patch(section.offset, bytes([part.content[section.offset] ^ 1]))


def change_lazy_pointer(part):
    segment, offset, _ = next(iter(read_lazy_bindings(part.macho, part.content).values()))
    part.patch(part.segments()[segment].fileoff + offset, struct.pack("<Q", 0x100000000))


def change_last_lazy_offset(part):
    section = part.section("__stub_helper")
    size = {ARCHITECTURES["x86_64"]: 9, ARCHITECTURES["arm64"]: 4}[part.macho.header.cputype]
    part.patch(section.offset + section.size - size, struct.pack("<I", 0))


VERSION_COMMANDS = (mach_o.LC_VERSION_MIN_MACOSX, mach_o.LC_BUILD_VERSION)


def raise_oldest_system(part):
    command = part.command(*VERSION_COMMANDS)
    field = "minos" if hasattr(command, "minos") else "version"
    change(command, **{field: 15 << 16})
    part.save()


def plus(number):
    return lambda value: value + number


def to(value):
    return lambda _: value


BREAKS = {
    "oldest system": (raise_oldest_system, "the oldest system is (15, 0), not "),
    "library": (
        lambda part: part.replace(b"/usr/lib/libcurl.4.", b"/usr/lib/libcurl.5."),
        "loads /usr/lib/libcurl.5.dylib",
    ),
    "library's version": (
        change_command(mach_o.LC_LOAD_DYLIB, compatibility_version=to(8 << 16)),
        "loads /usr/lib/libcurl.4.dylib 8.0",
    ),
    "rpath": (add_run_path, "has the rpath /tmp"),
    "no signature": (change_kind(mach_o.LC_CODE_SIGNATURE, to=mach_o.LC_FUNCTION_STARTS), "the signature: none"),
    "signature that isn't ad hoc": (change_directory(12, bytes(4)), "the signature: not an ad hoc one"),
    "signature with another hash": (change_directory(37, b"\1"), "the signature: not an ad hoc one"),
    "signature of less": (change_directory(32, bytes(4)), "the signature: not an ad hoc one"),
    "signature with another part": (add_signature_part, "the signature: not an ad hoc one"),
    "signature with more than pages": (change_directory(24, b"\0\0\0\1"), "the signature: not an ad hoc one"),
    "signature of fewer pages": (change_directory(28, b"\0\0\0\1"), "the signature: doesn't fit the slice"),
    "byte of a signed page": (change_signed_byte, "the signature: doesn't fit the slice"),
    "unknown import": (rename("_strstr", "_strstx"), "imports _strstx, which symbols.txt doesn't list"),
    "not position-independent": (clear_pie, "isn't position-independent"),
    "no version": (change_kind(*VERSION_COMMANDS, to=mach_o.LC_SOURCE_VERSION), "hasn't one version command"),
    "two versions": (change_kind(mach_o.LC_UUID, to=VERSION_COMMANDS[0]), "hasn't one version command"),
    "no dynamic linker": (
        change_kind(mach_o.LC_LOAD_DYLINKER, to=mach_o.LC_ID_DYLINKER),
        "hasn't one dynamic linker, /usr/lib/dyld",
    ),
    "another dynamic linker": (
        lambda part: part.replace(b"/usr/lib/dyld", b"/usr/lib/dylD"),
        "hasn't one dynamic linker, /usr/lib/dyld",
    ),
    "two dynamic linkers": (
        change_kind(mach_o.LC_UUID, to=mach_o.LC_LOAD_DYLINKER),
        "hasn't one dynamic linker, /usr/lib/dyld",
    ),
    "address of a segment": (change_segment("__DATA", vmaddr=plus(8)), "__DATA isn't on page boundaries"),
    "offset of a segment": (change_segment("__DATA", fileoff=plus(8)), "__DATA isn't on page boundaries"),
    "content behind the file": (
        change_segment("__LINKEDIT", filesize=plus(1 << 20), vmsize=plus(1 << 20)),
        "__LINKEDIT has content outside the file or its addresses",
    ),
    "content behind the addresses": (
        change_segment("__DATA", vmsize=to(8)),
        "__DATA has content outside the file or its addresses",
    ),
    "addresses that overlap": (change_segment("__DATA", vmaddr=plus(-0x4000)), "__DATA isn't behind __DATA_CONST"),
    "contents that overlap": (change_segment("__DATA", fileoff=plus(-0x4000)), "__DATA isn't behind __DATA_CONST"),
    "no __LINKEDIT": (change_segment("__LINKEDIT", segname=to(b"__LINK")), "hasn't one __LINKEDIT, at the end"),
    "two __LINKEDIT": (change_segment("__DATA", segname=to(b"__LINKEDIT")), "hasn't one __LINKEDIT, at the end"),
    "__LINKEDIT in the middle": (swap_names("__LINKEDIT", "__DATA"), "hasn't one __LINKEDIT, at the end"),
    "another beginning": (swap_names("__PAGEZERO", "__DATA"), "doesn't begin with a __PAGEZERO of 4 GiB"),
    "header in another segment": (swap_names("__TEXT", "__DATA"), "hasn't its header in __TEXT"),
    "small __PAGEZERO": (
        change_segment("__PAGEZERO", vmsize=to(0x4000)),
        "doesn't begin with a __PAGEZERO of 4 GiB",
    ),
    "moved __PAGEZERO": (
        change_segment("__PAGEZERO", vmaddr=to(0x4000)),
        "doesn't begin with a __PAGEZERO of 4 GiB",
    ),
    "__PAGEZERO with content": (
        change_segment("__PAGEZERO", filesize=to(0x4000)),
        "doesn't begin with a __PAGEZERO of 4 GiB",
    ),
    "readable __PAGEZERO": (change_segment("__PAGEZERO", initprot=to(1)), "doesn't begin with a __PAGEZERO of 4 GiB"),
    "header outside __TEXT": (change_segment("__TEXT", fileoff=to(0x4000)), "hasn't its header in __TEXT"),
    "commands outside __TEXT": (change_segment("__TEXT", filesize=to(64)), "hasn't its header in __TEXT"),
    "section in front": (change_section("__la_symbol_ptr", addr=plus(-0x4000)), "__la_symbol_ptr isn't inside __DATA"),
    "section too long": (change_section("__data", size=plus(1 << 20)), "__data isn't inside __DATA"),
    "zeros too long": (change_section("__bss", size=plus(1 << 20)), "__bss isn't inside __DATA"),
    "section's offset": (change_section("__data", offset=plus(8)), "__data isn't where __DATA has its addresses"),
    "symbols": (change_command(mach_o.LC_SYMTAB, nsyms=plus(1000)), "the symbol table isn't in front of its strings"),
    "signature over the strings": (
        change_command(mach_o.LC_SYMTAB, strsize=plus(0x1000)),
        "the signature isn't the end of the slice",
    ),
    "something behind the signature": (
        change_command(mach_o.LC_CODE_SIGNATURE, datasize=plus(-16)),
        "the signature isn't the end of the slice",
    ),
    "lazy offset": (change_last_lazy_offset, "doesn't lead to its binding"),
    "lazy pointer": (change_lazy_pointer, "doesn't lead to its binding"),
    "lazily bound name": (rename("_strstr", "_strlen", "lazy bindings"), "binds _strlen where _strstr is called"),
}


def inspect(path, capsys):
    """The problems, without the path in front of them."""
    status = inspect_executable.main(str(path))
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


def test_slice_of_another_architecture_is_refused(copy, capsys):
    part = Slice(copy, "arm64")
    part.macho.header.cputype = CPU_TYPE_I386
    part.save()
    assert "has the slices ['i386', 'x86_64'], not ['arm64', 'x86_64']" in inspect(copy, capsys)


def test_slice_off_a_page_boundary_is_refused(copy, capsys):
    content, start = copy.read_bytes(), Slice(copy, "arm64").macho.offset
    moved = content[:start].replace(struct.pack(">I", start), struct.pack(">I", start + 16))
    copy.write_bytes(moved + bytes(16) + content[start:])
    assert inspect(copy, capsys) == ["arm64: the slice isn't on a page boundary of the file"]
