"""Turns a slice of the executable into assembler for Linux: its bytes in memory, and what load.cpp reads. Linux's
linker and loader rebase its pointers and bind its imports to what symbols.txt names: with `eagerly` all of them at
launch, as dyld does from macOS 12 on; with `lazily` load.cpp binds functions when they are first called, as dyld did
before.

    build/tools/bin/python macos/loader/prepare_slice.py ARCHITECTURE lazily|eagerly EXECUTABLE LIBUNWIND
"""

import pathlib
import struct
import sys

import lief
from lief import MachO

LAZY = MachO.DyldBindingInfo.CLASS.LAZY
NEEDS_MORE = ("MOD_INIT_FUNC_POINTERS", "THREAD_LOCAL_VARIABLES")  # sections for which there is nothing here
PAGE = 0x4000  # arm64's; x86_64's is a part of it
READABLE, READ_ONLY_ONCE_BOUND = 1, 0x10  # a protection; a segment's flag


def read_replacements():
    """What a symbol of macOS's is bound to."""
    text = (pathlib.Path(__file__).parents[1] / "symbols.txt").read_text()
    entries = [entry for line in text.splitlines() if not line.startswith("#") for entry in line.split()[1:]]
    pairs = [entry.partition("=") for entry in entries]
    return {symbol: replacement or symbol.removeprefix("_") for symbol, _, replacement in pairs}


class Image:
    """A slice as it is in memory, from its header on."""

    def __init__(self, name, path, architecture):
        self.name = name
        self.file = MachO.parse(path)
        self.slice = next(part for part in self.file if part.header.cpu_type.name.lower() == architecture)
        self.segments = [segment for segment in self.slice.segments if segment.init_protection]  # not __PAGEZERO
        self.exports = {export.symbol.name: self.place(export.address) for export in self.slice.dyld_info.exports}
        kinds = {section.type.name for section in self.slice.sections}
        assert kinds.isdisjoint(NEEDS_MORE), f"sections of types {kinds}"

    def place(self, offset):
        return f"{self.name} + {offset:#x}"

    def at(self, address):
        return self.place(address - self.slice.imagebase)

    def content(self):
        content = bytearray()
        for segment in self.segments:
            content += bytes(segment.virtual_address - self.slice.imagebase - len(content)) + bytes(segment.content)
        return content + bytes(-len(content) % PAGE)

    def list_words(self, bound):
        """The content with its pointers. `bound` has what those to other images lead to, by their addresses."""
        words = [word for (word,) in struct.iter_unpack("<Q", self.content())]
        pointers = {relocation.address: None for relocation in self.slice.relocations} | bound
        for address, target in pointers.items():
            index, rest = divmod(address - self.slice.imagebase, 8)
            assert rest == 0, f"a pointer at {address:#x}"
            words[index] = target or self.at(words[index])
        return words

    def list_segments(self):
        for segment in self.segments:
            is_constant = segment.flags & READ_ONLY_ONCE_BOUND
            protection = READABLE if is_constant else segment.init_protection
            yield f"{self.at(segment.virtual_address)}, {segment.virtual_size:#x}, {protection}"

    def bind(self, targets, lazily):
        """What pointers to other images lead to, by their addresses, and the rows of kLazyBindings, none without
        `lazily`. What is weak leads to the image's own definition already."""
        bound, lazy = {}, []
        for binding in self.slice.bindings:
            if not binding.has_library:
                continue
            if binding.symbol.name not in targets:
                sys.exit(f"the import {binding.symbol.name} is not in macos/symbols.txt")
            target = targets[binding.symbol.name]
            if lazily and binding.binding_class == LAZY:
                lazy.append(f"{self.at(binding.address)}, {target}, {binding.original_offset}")
            else:
                bound[binding.address] = f"{target} + {binding.addend}"
        return bound, lazy

    def unwind_sections(self):
        sections = [self.slice.get_section(name) for name in ("__eh_frame", "__unwind_info")]
        places = [f"{self.at(part.virtual_address)}, {part.size:#x}" if part else "0, 0" for part in sections]
        return f"{self.name}, {', '.join(places)}"


def print_words(name, words):
    print(f".globl {name}", f"{name}:", *(f".quad {word}" for word in words), sep="\n")


def main(architecture, way, *paths):
    lief.logging.disable()  # what there is to say of the executable, the inspection has said
    executable, unwinder = images = [
        Image(name, path, architecture) for name, path in zip(("executable", "libunwind"), paths)
    ]
    targets = read_replacements() | unwinder.exports
    bound, lazy = executable.bind(targets, way == "lazily")
    print(f".data\n.balign {PAGE}")
    print_words("executable", executable.list_words(bound))
    print_words("libunwind", unwinder.list_words(unwinder.bind(targets, lazily=False)[0]))
    print_words("endOfImages", [])
    print_words("kSegments", [*(row for image in images for row in image.list_segments()), "0, 0, 0"])
    print_words("kLazyBindings", [*lazy, "0, 0, 0"])
    print_words("kUnwindSections", [image.unwind_sections() for image in images])
    print_words("kEntryPoint", [executable.place(executable.slice.main_command.entrypoint)])


if __name__ == "__main__":
    main(*sys.argv[1:])
