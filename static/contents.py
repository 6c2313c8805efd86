"""Writes the list of what is in the static executable, SPDX 2.3: "contents.py VERSION EXECUTABLE LIST"."""

import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import time
import urllib.parse
import uuid

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent
ZIG = (REPOSITORY / "build/tools/bin/zig").resolve()

# Each library's license, supplier, release, and names in the National Vulnerability Database, which has none of LLVM's.
LLVM = ["Apache-2.0 WITH LLVM-exception", "The LLVM project", "github.com/llvm/llvm-project/releases/tag/llvmorg-{}"]
LIBRARIES = {
    "curl": ["curl", "The curl project", "github.com/curl/curl/releases/tag/curl-{1}", "haxx:curl", "haxx:libcurl"],
    "aws-lc": ["Apache-2.0 AND ISC AND MIT", "AWS", "github.com/aws/aws-lc/releases/tag/v{}", "amazon:aws_libcrypto"],
    "c-ares": ["MIT", "The c-ares project", "github.com/c-ares/c-ares/releases/tag/v{}", "c-ares:c-ares"],
    "nghttp2": ["MIT", "The nghttp2 project", "github.com/nghttp2/nghttp2/releases/tag/v{}", "nghttp2:nghttp2"],
    "musl": ["MIT", "The musl project", "musl.libc.org/releases/musl-{}.tar.gz", "musl-libc:musl"],
    "libc++": LLVM,
    "libc++abi": LLVM,
    "libunwind": LLVM,
    "compiler-rt": ["MIT", "Zig Software Foundation", LLVM[2]],
}
OF_ZIG = {
    "supplier": "Organization: Zig Software Foundation",
    "downloadLocation": "https://ziglang.org/download/",
}
COMMENTS = {
    "curl": "The executable says -DEV behind this version, as all of upstream's git tags do: its release script alone "
    "writes the final text, and the crate holds a tag's tree.",
    "compiler-rt": "The zig project's translation, into Zig, of LLVM's.",
}


def pinned_crates():
    """The newest of each library: its version; the crate that carries it, with version and SHA-256."""
    lines = [line.split() for line in (REPOSITORY / "deps/sources.txt").read_text().splitlines() if line[0] != "#"]
    return {library: (version, crate, pin, sha256) for library, version, crate, pin, _, sha256 in lines}


def pinned_zig():
    """Its version, and the SHA-256 of each wheel."""
    pin = (REPOSITORY / "deps/requirements.txt").read_text().partition("ziglang==")[2].partition("\n#")[0]
    return pin.split()[0], re.findall(r"sha256:(\w+)", pin)


def version_in_zig(library):
    if library == "musl":
        return (ZIG.parent / "lib/libc/musl/src/internal/version.h").read_text().split('"')[1]
    said = subprocess.run([ZIG, "cc", "--version"], capture_output=True, check=True, text=True).stdout
    return re.search(r"clang version ([\d.]+)", said)[1]


def identifier(name):
    return "SPDXRef-" + name.replace("+", "x")


def package(name, version, kind="generic", sums=(), cpes=(), **more):
    references = [("PACKAGE-MANAGER", "purl", f"pkg:{kind}/{urllib.parse.quote(name)}@{version}")]
    references += [("SECURITY", "cpe23Type", f"cpe:2.3:a:{cpe}:{version}:*:*:*:*:*:*:*") for cpe in cpes]
    keys = ("referenceCategory", "referenceType", "referenceLocator")
    return {
        "SPDXID": identifier(name),
        "name": name,
        "versionInfo": version,
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
        "checksums": [{"algorithm": "SHA256", "checksumValue": value} for value in sums],
        "externalRefs": [dict(zip(keys, reference)) for reference in references],
        **more,
    }


def linked(name, version):
    license_name, supplier, location, *cpes = LIBRARIES[name]
    more = {"licenseConcluded": license_name, "licenseDeclared": license_name, "supplier": f"Organization: {supplier}"}
    more["downloadLocation"] = "https://" + location.format(version, version.replace(".", "_"))
    if name in COMMENTS:
        more["comment"] = COMMENTS[name]
    return package(name, version, cpes=cpes, **more)


def contents(version, executable):
    """The packages, and their relationships: the executable, the libraries in it, what brought their sources."""
    of_tool = {"supplier": "Organization: The webreq authors", "licenseDeclared": "MIT", "packageFileName": "webreq"}
    tool = package("webreq-static", version, sums=[hashlib.sha256(executable).hexdigest()], **of_tool)
    crates, (zig_version, zig_sums) = pinned_crates(), pinned_zig()
    libraries, origins = [], {"ziglang": package("ziglang", zig_version, "pypi", zig_sums, **OF_ZIG)}
    relationships = [("DOCUMENT", "DESCRIBES", tool["name"])]
    for name in LIBRARIES:
        origin = "ziglang"
        if name in crates:
            its_version, origin, pin, sha256 = crates[name]
            origins[origin] = package(origin, pin, "cargo", [sha256])
        libraries.append(linked(name, its_version if name in crates else version_in_zig(name)))
        relationships += [(tool["name"], "STATIC_LINK", name), (name, "GENERATED_FROM", origin)]
    return [tool, *libraries, *origins.values()], relationships


def document(version, executable):
    packages, relationships = contents(version, executable)
    created = time.strftime("%FT%TZ", time.gmtime(int(os.environ.get("SOURCE_DATE_EPOCH", time.time()))))
    keys = ("spdxElementId", "relationshipType", "relatedSpdxElement")
    return {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"webreq-static-{version}",
        "documentNamespace": f"https://spdx.org/spdxdocs/{uuid.uuid5(uuid.NAMESPACE_OID, json.dumps(packages))}",
        "creationInfo": {"created": created, "creators": ["Organization: The webreq authors"]},
        "packages": packages,
        "relationships": [dict(zip(keys, (identifier(a), kind, identifier(b)))) for a, kind, b in relationships],
    }


if __name__ == "__main__":
    spdx = document(sys.argv[1], pathlib.Path(sys.argv[2]).read_bytes())
    path = pathlib.Path(sys.argv[3])
    path.unlink(missing_ok=True)  # root's, where root has installed before
    path.write_text(json.dumps(spdx, indent=2) + "\n")
