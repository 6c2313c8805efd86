"""The rules of XNU's and dyld's loaders that a linker can break."""

import io
import itertools
import struct

from macholib import mach_o

PAGE_SIZES = {"x86_64": 0x1000, "arm64": 0x4000}
HEADER_SIZE = 32
VERSION_COMMANDS = (mach_o.LC_VERSION_MIN_MACOSX, mach_o.LC_BUILD_VERSION)

# A stub helper's entry loads an offset into the lazy bindings: its first bytes and where the offset is.
HELPERS = {
    "x86_64": (b"\x68", 1),  # push
    "arm64": (b"\x50\x00\x00\x18", 8),  # ldr w16, #8
}
DONE, SET_SYMBOL, SET_SEGMENT, DO_BIND = 0x00, 0x40, 0x70, 0x90  # those opcodes of bindings that count here


def find_loader_problems(architecture, header, content):
    """What the loaders refuse or stumble over in a slice: macholib's `header` of it, and its `content`."""
    page_size = PAGE_SIZES[architecture]
    segments = [(command, sections) for load, command, sections in header.commands if load.cmd == mach_o.LC_SEGMENT_64]
    yield from find_position_problems(header, page_size)
    yield from find_command_problems(header)
    yield from find_segment_problems([segment for segment, _ in segments], header, len(content), page_size)
    yield from find_section_problems(segments)
    yield from find_link_edit_problems(header, len(content))
    yield from find_lazy_binding_problems(architecture, segments, header, content)


def find_position_problems(header, page_size):
    if header.offset % page_size:
        yield "the slice isn't on a page boundary of the file"
    if not header.header.flags & mach_o.MH_PIE:
        yield "isn't position-independent"


def find_command_problems(header):
    kinds = [load.cmd for load, _, _ in header.commands]
    if sum(kinds.count(kind) for kind in VERSION_COMMANDS) != 1:
        yield "hasn't one version command"
    linkers = [data.rstrip(b"\0") for load, _, data in header.commands if load.cmd == mach_o.LC_LOAD_DYLINKER]
    if linkers != [b"/usr/lib/dyld"]:
        yield "hasn't one dynamic linker, /usr/lib/dyld"


def find_segment_problems(segments, header, size, page_size):
    names = [name(segment.segname) for segment in segments]
    for segment in segments:
        if segment.vmaddr % page_size or segment.fileoff % page_size:
            yield f"{name(segment.segname)} isn't on page boundaries"
        if segment.fileoff + segment.filesize > size or segment.filesize > segment.vmsize:
            yield f"{name(segment.segname)} has content outside the file or its addresses"
    for one, next_one in itertools.pairwise(segments):
        if next_one.vmaddr < one.vmaddr + one.vmsize or next_one.fileoff < one.fileoff + one.filesize:
            yield f"{name(next_one.segname)} isn't behind {name(one.segname)}"
    if names.count("__LINKEDIT") != 1 or names[-1] != "__LINKEDIT":
        yield "hasn't one __LINKEDIT, at the end"
    zero, text = segments[:2]
    if names[0] != "__PAGEZERO" or (zero.vmaddr, zero.vmsize, zero.filesize, zero.initprot) != (0, 1 << 32, 0, 0):
        yield "doesn't begin with a __PAGEZERO of 4 GiB"
    if names[1] != "__TEXT" or text.fileoff or text.filesize < HEADER_SIZE + header.header.sizeofcmds:
        yield "hasn't its header in __TEXT"


def find_section_problems(segments):
    for segment, sections in segments:
        for section in sections:
            begin, end = section.addr - segment.vmaddr, section.addr + section.size - segment.vmaddr
            has_content = section.flags & mach_o.SECTION_TYPE not in (mach_o.S_ZEROFILL, mach_o.S_GB_ZEROFILL)
            if begin < 0 or end > (segment.filesize if has_content else segment.vmsize):
                yield f"{name(section.sectname)} isn't inside {name(segment.segname)}"
            elif has_content and section.offset != segment.fileoff + begin:
                yield f"{name(section.sectname)} isn't where {name(segment.segname)} has its addresses"


def find_link_edit_problems(header, size):
    commands = {load.cmd: command for load, command, _ in header.commands}
    symbols = commands[mach_o.LC_SYMTAB]
    if symbols.symoff + 16 * symbols.nsyms > symbols.stroff:
        yield "the symbol table isn't in front of its strings"
    signature = commands.get(mach_o.LC_CODE_SIGNATURE)
    if signature and (
        signature.dataoff < symbols.stroff + symbols.strsize or signature.dataoff + signature.datasize != size
    ):
        yield "the signature isn't the end of the slice"


def find_lazy_binding_problems(architecture, segments, header, content):
    """The pointer that a stub jumps through leads to a stub helper, which has to lead to the pointer's own binding."""
    first_bytes, offset_position = HELPERS[architecture]
    symbols = read_indirect_symbols(segments, header, content)
    for start, (segment, offset, symbol) in read_lazy_bindings(header, content).items():
        slot = segments[segment][0].fileoff + offset
        helper = struct.unpack_from("<Q", content, slot)[0] - segments[1][0].vmaddr
        is_helper = content[helper:].startswith(first_bytes)
        if not is_helper or struct.unpack_from("<I", content, helper + offset_position)[0] != start:
            yield f"the stub helper of {symbol} doesn't lead to its binding"
        if symbols.get(slot) != symbol:
            yield f"binds {symbol} where {symbols.get(slot)} is called"


def read_lazy_bindings(header, content):
    """Each lazy binding, a segment's number, the offset in it and a symbol, by its own offset into all of them."""
    (info,) = [command for load, command, _ in header.commands if load.cmd == mach_o.LC_DYLD_INFO_ONLY]
    opcodes = io.BytesIO(content[info.lazy_bind_off :][: info.lazy_bind_size])
    bindings = {}
    start = segment = offset = symbol = None
    while byte := opcodes.read(1):
        opcode, immediate = byte[0] & 0xF0, byte[0] & 0x0F
        start = opcodes.tell() - 1 if start is None else start
        if opcode == SET_SEGMENT:
            segment, offset = immediate, read_uleb(opcodes)
        elif opcode == SET_SYMBOL:
            symbol = read_string(opcodes)
        elif opcode == DO_BIND:
            bindings[start] = (segment, offset, symbol)
        elif opcode == DONE:
            start = None
    return bindings


def read_uleb(stream):
    number = shift = 0
    while True:
        (byte,) = stream.read(1)
        number |= (byte & 0x7F) << shift
        shift += 7
        if byte < 0x80:
            return number


def read_string(stream):
    return b"".join(iter(lambda: stream.read(1), b"\0")).decode()


def read_indirect_symbols(segments, header, content):
    """The symbol that the stubs call through each lazy pointer, by the pointer's place in the content."""
    commands = {load.cmd: command for load, command, _ in header.commands}
    table, symbols = commands[mach_o.LC_DYSYMTAB].indirectsymoff, commands[mach_o.LC_SYMTAB]
    names = {}
    for section in itertools.chain(*(sections for _, sections in segments)):
        if section.flags & mach_o.SECTION_TYPE == mach_o.S_LAZY_SYMBOL_POINTERS:
            for i in range(section.size // 8):
                (index,) = struct.unpack_from("<I", content, table + 4 * (section.reserved1 + i))
                (string,) = struct.unpack_from("<I", content, symbols.symoff + 16 * index)
                names[section.offset + 8 * i] = read_string(io.BytesIO(content[symbols.stroff + string :]))
    return names


def name(field):
    return field.rstrip(b"\0").decode()
