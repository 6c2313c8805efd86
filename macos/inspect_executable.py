"""Inspects the universal macOS executable: prints what keeps it from running on the systems that it is meant for, and
exits with status 1 if there is anything.

    build/tools/bin/python macos/inspect_executable.py EXECUTABLE
"""

import hashlib
import pathlib
import struct
import sys

import lief
from lief import MachO

OLDEST_SYSTEMS = {"arm64": [11, 0, 0], "x86_64": [10, 13, 0]}
# With the newest compatibility version that every system meets.
LIBRARIES = {
    "/usr/lib/libSystem.B.dylib": [1, 0, 0],
    "/usr/lib/libcurl.4.dylib": [7, 0, 0],
}
# dyld refuses an executable that has another command with the bit REQUIRED than it knows; all know these.
REQUIRED = 0x80000000
KNOWN_COMMANDS = (MachO.LoadCommand.TYPE.DYLD_INFO_ONLY, MachO.LoadCommand.TYPE.MAIN)
AD_HOC = 0x2
SHA256 = 2


def main(path):
    problems = list(dict.fromkeys(find_problems(pathlib.Path(path))))
    for problem in problems:
        print(f"{path}: {problem}", file=sys.stderr)
    return 1 if problems else 0


def find_problems(path):
    lief.logging.disable()
    universal = MachO.parse(path)  # None if it is no such file
    names = sorted(binary.header.cpu_type.name.lower() for binary in universal or ())
    if names != sorted(OLDEST_SYSTEMS):
        yield f"has the slices {names}, not {sorted(OLDEST_SYSTEMS)}"
        return
    fits, problem = MachO.check_layout(universal)
    if not fits:
        yield " ".join(problem.split())
    for binary in universal:
        content = path.read_bytes()[binary.fat_offset :][: binary.original_size]
        name = binary.header.cpu_type.name.lower()
        for problem in find_slice_problems(binary, content, OLDEST_SYSTEMS[name]):
            yield f"{name}: {problem}"


def find_slice_problems(binary, content, promised):
    oldest = oldest_system(binary)
    if oldest != promised:
        yield f"the oldest system is {dotted(oldest)}, not {dotted(promised)}"
    for library in binary.libraries:
        if library.compatibility_version > LIBRARIES.get(library.name, []):
            yield f"loads {library.name} {dotted(library.compatibility_version)}"
    for command in binary.commands:
        if command.command.value & REQUIRED and command.command not in KNOWN_COMMANDS:
            yield f"has a load command of kind {command.command.name}"
    yield from find_import_problems(binary, oldest)
    yield from find_signature_problems(binary.code_signature, content)


def oldest_system(binary):
    if binary.build_version:
        return binary.build_version.minos
    return binary.version_min.version if binary.version_min else []


def dotted(version):
    return ".".join(map(str, version))


def find_import_problems(binary, oldest):
    releases = read_releases()
    # LIEF's symbols are also those that are bound without being in the table of symbols.
    imported = {symbol.name for symbol in binary.symbols if symbol.type == MachO.Symbol.TYPE.UNDEFINED}
    for symbol in sorted(imported):
        if symbol not in releases:
            yield f"imports {symbol}, which macos/symbols.txt doesn't list"
        elif releases[symbol] > oldest:
            yield f"imports {symbol}, which is new in {dotted(releases[symbol])}"


def read_releases():
    """For each listed symbol the first system that has it."""
    releases = {}
    for line in pathlib.Path(__file__).with_name("symbols.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            release, *symbols = line.split()
            for symbol in symbols:
                releases[symbol.partition("=")[0]] = list(map(int, release.split(".")))
    return releases


def find_signature_problems(command, content):
    """Whether the slice's bytes are those that its ad hoc signature was made for."""
    if command is None:
        yield "has no signature"
        return
    limit = command.data_offset
    signature = content[limit:]
    directory = signature[struct.unpack_from(">I", signature, 16)[0] :]
    flags, hashes, _, _, page_count, signed, size, kind, _, page_bits = struct.unpack_from(">6I4B", directory, 12)
    if not flags & AD_HOC or kind != SHA256 or signed != limit:
        yield "the signature isn't an ad hoc one with SHA-256 over the whole slice"
        return
    pages = [content[start:limit][: 1 << page_bits] for start in range(0, limit, 1 << page_bits)]
    fits = (hashlib.sha256(page).digest() == directory[hashes + i * size :][:size] for i, page in enumerate(pages))
    if len(pages) != page_count or not all(fits):
        yield "the signature doesn't fit the slice"


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
