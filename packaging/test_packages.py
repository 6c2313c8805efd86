"""What scripts/package has made: each package's files and modes, that it runs, what it needs and says of itself.

scripts/serve runs this file, with the address of a server in HTTP_URL.
"""

import hashlib
import json
import os
import pathlib
import re
import subprocess
import tarfile
import urllib.parse

import pytest

REPOSITORY = pathlib.Path(__file__).parent.parent
PACKAGES = REPOSITORY / "build/packages"

EXAMPLES = ["fan-out.sh", "fetch.cpp", "fetch.lua", "fetch.mjs", "fetch.py", "fetch.sh", "fetch.swift"]
DOCUMENTS = "README.md SECURITY.md copyright docs/performance.md docs/performance.svg docs/reliability.md".split()

# The command that runs what each has as bin/webreq; nothing here runs macOS's, but as the check macos does.
DEBS = {"webreq_*_amd64.deb": [], "webreq-static_*_amd64.deb": [], "webreq-static_*_arm64.deb": ["qemu-aarch64"]}
ARCHIVES = {
    "webreq-[0-9]*-linux-x86_64.tar.gz": [],
    "webreq-static-*-linux-x86_64.tar.gz": [],
    "webreq-static-*-linux-aarch64.tar.gz": ["qemu-aarch64"],
}
MACOS = "webreq-*-macos-universal.tar.gz"


def find(pattern):
    found = list(PACKAGES.glob(pattern))
    if not found:
        pytest.skip(f"no {pattern} was made")
    (package,) = found
    return package


def output(*command):
    return subprocess.run(command, capture_output=True, check=True).stdout


def open_tar(package, folder):
    if package.suffix == ".deb":
        (folder / "files.tar").write_bytes(output("dpkg-deb", "--fsys-tarfile", package))
        return tarfile.open(folder / "files.tar")
    return tarfile.open(package)


def listing(tar):
    """Each file's permissions and owner."""
    return {entry.name: (oct(entry.mode), entry.uid, entry.gid) for entry in tar if not entry.isdir()}


def expected_listing(name, is_deb):
    documents = [*DOCUMENTS, *(f"examples/{example}" for example in EXAMPLES)]
    documents += ["changelog.gz", "changelog.Debian.gz"] if is_deb else ["changelog"]
    files = [f"share/doc/{name}/{document}" for document in documents]
    files += ["bin/webreq", "share/man/man1/webreq.1" + ".gz" * is_deb]
    if name == "webreq-static":
        files.append(f"share/doc/{name}/static/README.md")
        files += [f"share/doc/{name}/{name}.spdx.json", *[f"share/lintian/overrides/{name}"] * is_deb]
    return {file: ("0o755" if file.endswith((".sh", "bin/webreq")) else "0o644", 0, 0) for file in files}


def name_of(package):
    return "webreq-static" if package.name.startswith("webreq-static") else "webreq"


@pytest.mark.parametrize("pattern", [*DEBS, *ARCHIVES, MACOS])
def test_files(pattern, tmp_path):
    package = find(pattern)
    is_deb = package.suffix == ".deb"
    prefix = "./usr/" if is_deb else package.name.removesuffix(".tar.gz") + "/"
    with open_tar(package, tmp_path) as tar:
        assert {entry.mode for entry in tar if entry.isdir()} == {0o755}
        expected = expected_listing(name_of(package), is_deb)
        assert listing(tar) == {prefix + file: facts for file, facts in expected.items()}


def unpack(package, folder):
    """The path of the executable."""
    with open_tar(package, folder) as tar:
        tar.extractall(folder)
    (executable,) = folder.glob("**/bin/webreq")
    return executable


@pytest.mark.parametrize(["pattern", "command"], [*DEBS.items(), *ARCHIVES.items()])
def test_a_request(pattern, command, tmp_path):
    executable = unpack(find(pattern), tmp_path)
    page = (REPOSITORY / "server/site/page.html").read_bytes()
    request = [*command, executable, "-web", os.environ["HTTP_URL"] + "/page.html"]
    assert output(*request) == b"200\n" + page + b"\n"


def test_both_slices_for_macos(tmp_path):
    executable = unpack(find(MACOS), tmp_path)
    assert executable.read_bytes() == (REPOSITORY / "build/macos-universal/webreq").read_bytes()
    kind = output("file", "--brief", executable).decode()
    assert "2 architectures" in kind and "x86_64" in kind and "arm64" in kind


@pytest.mark.parametrize("pattern", ["webreq_*_amd64.deb", "webreq-[0-9]*-linux-x86_64.tar.gz"])
def test_needed_libraries(pattern, tmp_path):
    dynamic = output("readelf", "--wide", "--dynamic", unpack(find(pattern), tmp_path)).decode()
    needed = [line.split("[")[1].rstrip("]") for line in dynamic.splitlines() if "(NEEDED)" in line]
    assert sorted(needed) == ["ld-linux-x86-64.so.2", "libc.so.6", "libcurl.so.4"]


@pytest.mark.parametrize("pattern", DEBS)
def test_what_a_deb_says_of_itself(pattern):
    package = find(pattern)
    release = output("sh", "-c", ". /etc/os-release; echo $VERSION_ID").decode().strip()
    description = " ".join(field(package, "Description").split())
    is_static = name_of(package) == "webreq-static"
    assert field(package, "Version").endswith("-1" if is_static else f"-1~deb{release}u1")
    assert bool(field(package, "Depends")) != is_static
    assert "Certificates are not verified." in description
    assert ("static and needs nothing" in description) == is_static


LINKED = ["curl", "aws-lc", "c-ares", "nghttp2", "musl", "libc++", "libc++abi", "libunwind", "compiler-rt"]

# In the virtual environment of deps/fetch: prints what is wrong with an SPDX list.
VALIDATE = """
import sys
from spdx_tools.spdx.parser.json import json_parser
from spdx_tools.spdx.validation.document_validator import validate_full_spdx_document
for message in validate_full_spdx_document(json_parser.parse_from_file(sys.argv[1])):
    print(message)
"""


@pytest.mark.parametrize("pattern", [pattern for pattern in [*DEBS, *ARCHIVES] if "static" in pattern])
def test_list_for_scanners(pattern, tmp_path):
    executable = unpack(find(pattern), tmp_path)
    (path,) = tmp_path.glob("**/webreq-static.spdx.json")
    assert output(REPOSITORY / "build/tools/bin/python", "-c", VALIDATE, path) == b""
    tool, *packages = json.loads(path.read_text())["packages"]
    linked, fetched = packages[: len(LINKED)], packages[len(LINKED) :]
    assert [package["name"] for package in linked] == LINKED
    for package in [tool, *packages]:
        (purl,) = [ref["referenceLocator"] for ref in package["externalRefs"] if ref["referenceType"] == "purl"]
        assert purl.endswith(f"/{urllib.parse.quote(package['name'])}@{package['versionInfo']}")
    told = output("strings", "--all", executable).decode()
    versions = re.findall(r"^(?:libcurl/|clang version )?(\d+\.\d+\.\d+)", told, re.MULTILINE)
    assert [each["name"] for each in linked if each["versionInfo"] not in versions] == ["musl"]
    assert ("-DEV" in linked[0].get("comment", "")) == (f"libcurl/{linked[0]['versionInfo']}-DEV" in told)
    assert all(each["supplier"] and each["downloadLocation"].startswith("https://") for each in linked)
    assert sums([tool]) == [hashlib.sha256(executable.read_bytes()).hexdigest()]
    pins = "".join(pins.read_text() for pins in (REPOSITORY / "deps").glob("*.txt"))
    assert len(sums(fetched)) == 6 and all(sum in pins for sum in sums(fetched))  # four crates; zig for two processors
    files = re.findall("^Files: (.*)", path.with_name("copyright").read_text(), re.MULTILINE)
    assert " ".join(files).split() == ["*", "libcurl", *LINKED[1:]]


def sums(packages):
    return [checksum["checksumValue"] for package in packages for checksum in package["checksums"]]


def field(package, name):
    return output("dpkg-deb", "-f", package, name).decode().strip()


def test_sums_of_all_packages():
    listed = [line.split("  ")[1] for line in (PACKAGES / "SHA256SUMS").read_text().splitlines()]
    assert sorted([*listed, "SHA256SUMS"]) == sorted(path.name for path in PACKAGES.iterdir())
    subprocess.run(["sha256sum", "--check", "--strict", "--quiet", "SHA256SUMS"], cwd=PACKAGES, check=True)
