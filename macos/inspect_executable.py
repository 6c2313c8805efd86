"""Inspects a universal macOS executable: prints everything that would keep it from running on the systems it is meant
for, and exits with status 1 if there is anything. LIEF reads it; what LIEF stumbles over counts.

    build/tools/bin/python macos/inspect_executable.py EXECUTABLE
"""

import hashlib
import pathlib
import struct
import sys
import tempfile

import lief
from lief import MachO
from loader_rules import CLASS, find_loader_problems

# Mach-O's numbers of processors, the names of their architectures, and the oldest system of each.
ARCHITECTURES = {0x01000007: "x86_64", 0x0100000C: "arm64"}
OLDEST_SYSTEMS = {"x86_64": [10, 13, 0], "arm64": [11, 0, 0]}
# With the newest compatibility version that every system meets.
LIBRARIES = {
    "/usr/lib/libSystem.B.dylib": [1, 0, 0],
    "/usr/lib/libcurl.4.dylib": [7, 0, 0],
}
UNIVERSAL = 0xCAFEBABE
AD_HOC = 0x2
SHA256 = 2


def main(path):
    problems = list(dict.fromkeys(find_problems(pathlib.Path(path).read_bytes())))
    for problem in problems:
        print(f"{path}: {problem}", file=sys.stderr)
    return 1 if problems else 0


def find_problems(content):
    slices = list(list_slices(content))
    names = sorted(ARCHITECTURES.get(number, str(number)) for number, _, _ in slices)
    if names != sorted(OLDEST_SYSTEMS):
        yield f"has the slices {names}, not {sorted(OLDEST_SYSTEMS)}"
    for number, start, size in slices:
        if number in ARCHITECTURES:
            for problem in find_slice_problems(number, start, content[start:][:size]):
                yield f"{ARCHITECTURES[number]}: {problem}"


def list_slices(content):
    """The number of the processor, the place and the size of each slice, as the file lists them. LIEF doesn't say."""
    magic, count = struct.unpack_from(">II", content)
    for i in range(count if magic == UNIVERSAL else 0):
        number, _, start, size, _ = struct.unpack_from(">5I", content, 8 + 20 * i)
        yield number, start, size


def find_slice_problems(number, start, content):
    with tempfile.NamedTemporaryFile("r") as log:
        lief.logging.set_path(log.name)
        file = MachO.parse(content)  # what is in it lasts as long as this
        if file is None or file.at(0).header.cpu_type.value != number:
            yield "the slice isn't for the processor that the file lists"
            return
        binary = file.at(0)
        if start % binary.page_size:
            yield "the slice isn't on a page boundary of the file"
        yield from find_promise_problems(OLDEST_SYSTEMS[ARCHITECTURES[number]], binary)
        yield from find_signature_problems(binary.code_signature, content)
        yield from find_loader_problems(ARCHITECTURES[number], binary, content)
        yield from (f"LIEF stumbles: {line.strip()}" for line in log if line.strip())


def find_promise_problems(promised, binary):
    oldest = oldest_system(binary)
    if oldest != promised:
        yield f"the oldest system is {dotted(oldest)}, not {dotted(promised)}"
    for library in binary.libraries:
        if library.compatibility_version > LIBRARIES.get(library.name, []):
            yield f"loads {library.name} {dotted(library.compatibility_version)}"
    yield from find_import_problems(binary, oldest)


def oldest_system(binary):
    if binary.build_version:
        return binary.build_version.minos
    return binary.version_min.version if binary.version_min else []


def dotted(version):
    return ".".join(map(str, version))


def find_import_problems(binary, oldest):
    releases = read_releases()
    imported = {symbol.name for symbol in binary.symbols if symbol.type == MachO.Symbol.TYPE.UNDEFINED}
    bound = {binding.symbol.name for binding in binary.bindings if binding.binding_class != CLASS.WEAK}
    for symbol in sorted(imported | bound):
        if symbol not in releases:
            yield f"imports {symbol}, which symbols.txt doesn't list"
        elif releases[symbol] > oldest:
            yield f"imports {symbol}, which is new in {dotted(releases[symbol])}"
    for symbol in sorted(imported ^ bound):
        yield f"imports {symbol} without binding it, or the other way round"


def read_releases():
    """For each listed symbol the first system that has it."""
    releases = {}
    for line in pathlib.Path(__file__).with_name("symbols.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            release, *symbols = line.split()
            releases.update(dict.fromkeys(symbols, list(map(int, release.split(".")))))
    return releases


def find_signature_problems(command, content):
    """Whether the slice's bytes are those that its ad hoc signature was made for."""
    if command is None:
        yield "has no signature"
        return
    limit = command.data_offset
    signature = content[limit:]
    parts, _, start = struct.unpack(">III", signature[8:20])  # of which the code directory is the first
    directory = signature[start:]
    flags, hashes, _, others, page_count, signed, size, kind, _, page_bits = struct.unpack(
        ">IIIIIIBBBB", directory[12:40]
    )
    if not flags & AD_HOC or parts != 1 or others or kind != SHA256 or signed != limit:
        yield "the signature isn't an ad hoc one with SHA-256 over the whole slice"
        return
    pages = [content[start:limit][: 1 << page_bits] for start in range(0, limit, 1 << page_bits)]
    fits = (hashlib.sha256(page).digest() == directory[hashes + i * size :][:size] for i, page in enumerate(pages))
    if len(pages) != page_count or not all(fits):
        yield "the signature doesn't fit the slice"


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
