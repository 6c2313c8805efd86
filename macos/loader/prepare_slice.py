"""Turns a slice of the executable into C++: its bytes in memory, whose pointers Linux is to rebase, and what load.cpp
has to know (slice.h). Functions are bound lazily, when they are first called, as dyld does up to macOS 11, or eagerly,
at launch, as from macOS 12 on. LIEF reads the format; nothing else here has to.

    build/tools/bin/python macos/loader/prepare_slice.py ARCHITECTURE lazily|eagerly EXECUTABLE LIBUNWIND
"""

import struct
import sys

import lief
from lief import MachO

CLASS = MachO.DyldBindingInfo.CLASS
LIBSYSTEM = "/usr/lib/libSystem.B.dylib"  # libunwind is a part of it
PAGE = 0x4000  # arm64's; x86_64's is a part of it
READABLE, READ_ONLY_ONCE_BOUND = 1, 0x10  # a protection; a segment's flag


class Image:
    """A slice as it is in memory, from its header on."""

    def __init__(self, name, path, architecture):
        self.name = name
        self.file = MachO.parse(path)
        self.slice = next(part for part in self.file if part.header.cpu_type.name.lower() == architecture)
        self.segments = [segment for segment in self.slice.segments if segment.init_protection]  # not __PAGEZERO
        self.exports = {export.symbol.name: self.place(export.address) for export in self.slice.dyld_info.exports}

    def place(self, offset):
        return f"{self.name} + {offset:#x}"

    def at(self, address):
        return self.place(address - self.slice.imagebase)

    def content(self):
        content = bytearray()
        for segment in self.segments:
            content += bytes(segment.virtual_address - self.slice.imagebase - len(content)) + bytes(segment.content)
        return content + bytes(-len(content) % PAGE)

    def list_words(self):
        """The content, as assembler."""
        words = [word for (word,) in struct.iter_unpack("<Q", self.content())]
        for relocation in self.slice.relocations:
            index, rest = divmod(relocation.address - self.slice.imagebase, 8)
            assert rest == 0, f"a pointer at {relocation.address:#x}"
            words[index] = self.at(words[index])
        return "\n".join([f".balign {PAGE}", f"{self.name}:", *(f".quad {word}" for word in words)])

    def list_segments(self):
        for segment in self.segments:
            is_constant = segment.flags & READ_ONLY_ONCE_BOUND
            protection = READABLE if is_constant else segment.init_protection
            yield f"{self.at(segment.virtual_address)}, {segment.virtual_size:#x}, {protection}"

    def list_imports(self, unwinder, way):
        """Those of libunwind are bound at launch. What is weak leads to the image's own definition already."""
        for binding in self.slice.bindings:
            if binding.binding_class != CLASS.WEAK:
                symbol, library = binding.symbol.name, binding.library.name
                is_lazy = way == "lazily" and binding.binding_class == CLASS.LAZY and self != unwinder
                address = unwinder.exports.get(symbol) if library == LIBSYSTEM else None
                yield (
                    f'{self.at(binding.address)}, "{library}", "{symbol}", {address or "nullptr"}, {binding.addend}, '
                    f"{binding.original_offset if is_lazy else -1}"
                )

    def unwind_sections(self):
        sections = [self.slice.get_section(name) for name in ("__eh_frame", "__unwind_info")]
        places = [f"{self.at(part.virtual_address)}, {part.size:#x}" if part else "nullptr, 0" for part in sections]
        return f"{self.name}, {', '.join(places)}"


def print_array(kind, name, rows):
    print(f"const {kind} {name}[] = {{", *(f"    {{{row}}}," for row in rows), "};", sep="\n")


def main(architecture, way, *paths):
    lief.logging.disable()  # what there is to say of the executable, the inspection has said
    images = [Image(name, path, architecture) for name, path in zip(("executable", "libunwind"), paths)]
    executable, unwinder = images
    print('#include "slice.h"', 'asm(R"(.data', ".globl executable, libunwind, endOfImages", sep="\n")
    print(*(image.list_words() for image in images), 'endOfImages:)");', sep="\n")
    print("namespace macho {")
    print_array("Segment", "kSegments", [*(row for image in images for row in image.list_segments()), ""])
    print_array("Import", "kImports", [*(row for image in images for row in image.list_imports(unwinder, way)), ""])
    print_array("UnwindSections", "kUnwindSections", [image.unwind_sections() for image in images])
    print(f"std::uint8_t* const kEntryPoint = {executable.place(executable.slice.main_command.entrypoint)};")
    print("}  // namespace macho")


if __name__ == "__main__":
    main(*sys.argv[1:])
