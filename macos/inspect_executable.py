"""Inspects a universal macOS executable: prints what a loader would find in each slice, then everything that would keep
it from running on the systems it is meant for. Exits with status 1 if there is anything.

    python3 inspect_executable.py EXECUTABLE
"""

import hashlib
import pathlib
import struct
import sys
from typing import NamedTuple

from macholib import mach_o
from macholib.MachO import MachO
from macholib.SymbolTable import SymbolTable

from loader_rules import find_loader_problems

OLDEST_SYSTEMS = {"x86_64": (10, 13), "arm64": (11, 0)}
# With the newest compatibility version that every system meets.
LIBRARIES = {
    "/usr/lib/libSystem.B.dylib": (1, 0),
    "/usr/lib/libcurl.4.dylib": (7, 0),
}
LIBRARY_COMMANDS = {
    mach_o.LC_LOAD_DYLIB,
    mach_o.LC_LOAD_WEAK_DYLIB,
    mach_o.LC_REEXPORT_DYLIB,
    mach_o.LC_LAZY_LOAD_DYLIB,
    mach_o.LC_LOAD_UPWARD_DYLIB,
}
AD_HOC = 0x2
SHA256 = 2


class Slice(NamedTuple):
    architecture: str
    oldest_system: tuple
    libraries: dict  # path to compatibility version
    run_paths: list
    imports: list
    signature: str  # "none", or what is the matter with it
    loader_problems: list


def main(path):
    slices = [read_slice(path, header) for header in MachO(path).headers]
    for part in slices:
        print(describe(part))
    problems = list(find_problems(slices))
    for problem in problems:
        print(f"{path}: {problem}", file=sys.stderr)
    return 1 if problems else 0


def describe(part):
    libraries = [f"{path} (compatibility version {dotted(version)})" for path, version in part.libraries.items()]
    lines = [
        f"oldest system: {dotted(part.oldest_system)}",
        f"libraries: {', '.join(libraries)}",
        f"rpath: {' '.join(part.run_paths) or 'none'}",
        f"signature: {part.signature}",
        f"imports: {' '.join(part.imports)}",
    ]
    return "\n    ".join([f"{part.architecture}:", *lines])


def dotted(version):
    return ".".join(map(str, version))


def find_problems(slices):
    architectures = sorted(part.architecture for part in slices)
    if architectures != sorted(OLDEST_SYSTEMS):
        yield f"has the slices {architectures}, not {sorted(OLDEST_SYSTEMS)}"
    for part in slices:
        yield from (f"{part.architecture}: {problem}" for problem in find_slice_problems(part))


def find_slice_problems(part):
    oldest = OLDEST_SYSTEMS.get(part.architecture)
    if part.oldest_system != oldest:
        yield f"the oldest system is {part.oldest_system}, not {oldest}"
    for library, version in part.libraries.items():
        if library not in LIBRARIES or version > LIBRARIES[library]:
            yield f"loads {library} {dotted(version)}"
    for run_path in part.run_paths:
        yield f"has the rpath {run_path}"
    if part.signature != "ad hoc, valid":
        yield f"the signature: {part.signature}"
    yield from find_import_problems(part)
    yield from part.loader_problems


def find_import_problems(part):
    releases = read_releases()
    for symbol in part.imports:
        if symbol not in releases:
            yield f"imports {symbol}, which symbols.txt doesn't list"
        elif releases[symbol] > part.oldest_system:
            yield f"imports {symbol}, which is new in {dotted(releases[symbol])}"


def read_releases():
    """For each listed symbol the first system that has it."""
    releases = {}
    for line in pathlib.Path(__file__).with_name("symbols.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            release, *symbols = line.split()
            releases.update(dict.fromkeys(symbols, tuple(map(int, release.split(".")))))
    return releases


def read_slice(path, header):
    content = pathlib.Path(path).read_bytes()[header.offset :][: header.size]
    commands = [(load.cmd, command, data) for load, command, data in header.commands]
    libraries = [(command, data) for kind, command, data in commands if kind in LIBRARY_COMMANDS]
    architecture = mach_o.CPU_TYPE_NAMES.get(header.header.cputype, "unknown").lower()
    return Slice(
        architecture,
        read_oldest_system(commands),
        {text(data): version(command.compatibility_version) for command, data in libraries},
        [text(data) for kind, _, data in commands if kind == mach_o.LC_RPATH],
        sorted(name.decode() for _, name in SymbolTable(header.parent, header).undefsyms),
        check_signature(content, [command for kind, command, _ in commands if kind == mach_o.LC_CODE_SIGNATURE]),
        list(find_loader_problems(architecture, header, content)) if architecture in OLDEST_SYSTEMS else [],
    )


def read_oldest_system(commands):
    for kind, command, _ in commands:
        if kind == mach_o.LC_BUILD_VERSION:
            return version(command.minos)
        if kind == mach_o.LC_VERSION_MIN_MACOSX:
            return version(command.version)
    return ()


def version(number):
    number = getattr(number, "_version", number)  # macholib has plain numbers, too
    return number >> 16, number >> 8 & 0xFF


def text(data):
    return data.rstrip(b"\0").decode()


def check_signature(content, commands):
    """Whether the slice's bytes are those that its ad hoc signature was made for."""
    if not commands:
        return "none"
    signature = content[commands[0].dataoff :]
    parts, _, start = struct.unpack(">III", signature[8:20])  # of which the code directory is the first
    directory = signature[start:]
    flags, hashes, _, others, page_count, limit, size, kind, _, page_bits = struct.unpack(
        ">IIIIIIBBBB", directory[12:40]
    )
    if not flags & AD_HOC or parts != 1 or others or kind != SHA256 or limit != commands[0].dataoff:
        return "not an ad hoc one with SHA-256 over the whole slice"
    pages = [content[start:limit][: 1 << page_bits] for start in range(0, limit, 1 << page_bits)]
    fits = (hashlib.sha256(page).digest() == directory[hashes + i * size :][:size] for i, page in enumerate(pages))
    return "ad hoc, valid" if len(pages) == page_count and all(fits) else "doesn't fit the slice"


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
