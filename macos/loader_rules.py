"""The rules of XNU's and dyld's loaders that a linker can break and LIEF doesn't check."""

import struct

from lief import MachO

COMMAND, SECTION, CLASS = MachO.LoadCommand.TYPE, MachO.Section.TYPE, MachO.DyldBindingInfo.CLASS

REQUIRED = 0x80000000  # a bit in those kinds of commands that a loader must know
VERSION_COMMANDS = (COMMAND.VERSION_MIN_MACOSX, COMMAND.BUILD_VERSION)

# The types of sections that need nothing beyond rebasing and binding. Initialisers and variables of threads do.
ZEROS = ("ZEROFILL", "GB_ZEROFILL")
LITERALS = ("CSTRING_LITERALS", "IS_4BYTE_LITERALS", "IS_8BYTE_LITERALS", "IS_16BYTE_LITERALS")
SYMBOLS = ("NON_LAZY_SYMBOL_POINTERS", "LAZY_SYMBOL_POINTERS", "SYMBOL_STUBS")
PLAIN_SECTIONS = ("REGULAR", "COALESCED", *ZEROS, *LITERALS, *SYMBOLS)

POINTERS = (MachO.DyldInfo.REBASE_TYPE.POINTER, MachO.DyldBindingInfo.TYPE.POINTER)
WRITABLE = 2

# A stub helper's entry loads an offset into the lazy bindings: its first bytes and where the offset is.
HELPERS = {
    "x86_64": (b"\x68", 1),  # push
    "arm64": (b"\x50\x00\x00\x18", 8),  # ldr w16, #8
}


def find_loader_problems(architecture, binary, content):
    """What the loaders refuse or stumble over in a slice: LIEF's `binary` of it, and its `content`."""
    yield from find_header_problems(binary)
    yield from find_command_problems(list(binary.commands))
    yield from find_segment_problems(binary)
    for section in binary.sections:
        yield from find_section_problems(section)
    yield from find_pointer_problems(binary)
    fits, problem = MachO.check_layout(binary)
    if fits:  # else nothing is where it should be
        yield from find_lazy_binding_problems(architecture, binary, content)
    else:
        yield " ".join(problem.split())


def find_header_problems(binary):
    if binary.header.file_type != MachO.Header.FILE_TYPE.EXECUTE:
        yield "isn't an executable"
    if not binary.is_pie:
        yield "isn't position-independent"


def find_command_problems(commands):
    kinds = [command.command for command in commands]
    if sum(kinds.count(kind) for kind in VERSION_COMMANDS) != 1:
        yield "hasn't one version command"
    if [command.name for command in commands if command.command == COMMAND.LOAD_DYLINKER] != ["/usr/lib/dyld"]:
        yield "hasn't one dynamic linker, /usr/lib/dyld"
    for kind in kinds:
        if kind.value & REQUIRED and kind not in (COMMAND.DYLD_INFO_ONLY, COMMAND.MAIN):
            yield f"has a load command of kind {kind.name}"


def find_segment_problems(binary):
    segments = list(binary.segments)
    for segment in segments:
        if segment.virtual_address % binary.page_size or segment.file_offset % binary.page_size:
            yield f"{segment.name} isn't on page boundaries"
    zero, text = segments[:2]
    zeros = (zero.name, zero.virtual_address, zero.virtual_size, zero.file_size, zero.init_protection)
    if zeros != ("__PAGEZERO", 0, 1 << 32, 0, 0):
        yield "doesn't begin with a __PAGEZERO of 4 GiB"
    end_of_commands = max(command.command_offset + command.size for command in binary.commands)
    if text.name != "__TEXT" or text.file_offset or text.file_size < end_of_commands:
        yield "hasn't its header in __TEXT"
    if segments[-1].name != "__LINKEDIT":
        yield "hasn't its __LINKEDIT at the end"


def find_section_problems(section):
    segment, kind = section.segment, section.type.name
    begin = section.virtual_address - segment.virtual_address
    if kind not in PLAIN_SECTIONS:
        yield f"{section.name} is of type {kind}"
    if begin < 0 or begin + section.size > (segment.virtual_size if kind in ZEROS else segment.file_size):
        yield f"{section.name} isn't inside {segment.name}"
    elif kind not in ZEROS and section.offset != segment.file_offset + begin:
        yield f"{section.name} isn't where {segment.name} has its addresses"


def find_pointer_problems(binary):
    """Problems of what dyld writes: pointers into the executable and to what it imports."""
    kinds = {relocation.address: relocation.type for relocation in binary.relocations}
    kinds.update((binding.address, binding.binding_type) for binding in binary.bindings)
    for address, kind in kinds.items():
        segment = binary.segment_from_virtual_address(address)
        if kind not in POINTERS:
            yield f"rebases or binds something of type {kind}"
        if segment is None or not segment.init_protection & WRITABLE:
            yield f"has a pointer at {address:#x}, where none can be"


def find_lazy_binding_problems(architecture, binary, content):
    """The pointer that a stub jumps through leads to a stub helper, which has to lead to the pointer's own binding."""
    first_bytes, position = HELPERS[architecture]
    called = name_lazy_pointers(binary)
    for binding in binary.bindings:
        if binding.binding_class == CLASS.LAZY:
            symbol = binding.symbol.name
            (pointer,) = struct.unpack_from("<Q", content, binary.virtual_address_to_offset(binding.address))
            helper = content[pointer - binary.imagebase :][: position + 4]
            if not helper.startswith(first_bytes) or helper[position:] != struct.pack("<I", binding.original_offset):
                yield f"the stub helper of {symbol} doesn't lead to its binding"
            if called.get(binding.address) != symbol:
                yield f"binds {symbol} where {called.get(binding.address)} is called"


def name_lazy_pointers(binary):
    """The symbol that the stubs call through each lazy pointer, by the pointer's address."""
    symbols = list(binary.dynamic_symbol_command.indirect_symbols)
    return {
        section.virtual_address + 8 * i: symbols[section.reserved1 + i].name
        for section in binary.sections
        if section.type == SECTION.LAZY_SYMBOL_POINTERS
        for i in range(section.size // 8)
        if section.reserved1 + i < len(symbols)
    }
