"""What scripts/package has made: each package's files and modes, that it runs, what it needs and says of itself.

scripts/serve runs this file, with the address of a server in HTTP_URL.
"""

import hashlib
import json
import os
import pathlib
import platform
import re
import subprocess
import tarfile
import urllib.parse

import pytest

REPOSITORY = pathlib.Path(__file__).parent.parent
PACKAGES = REPOSITORY / "build/packages"

EXAMPLES = ["fan-out.sh", "fetch.cpp", "fetch.lua", "fetch.mjs", "fetch.py", "fetch.sh", "fetch.swift"]
DOCUMENTS = (
    "README.md SECURITY.md docs/performance.md docs/performance.svg docs/reliability.md static/README.md".split()
)

MACHINE = platform.machine()
DEBIAN_NAMES = {"x86_64": "amd64", "aarch64": "arm64"}

# The machine of each, and with it the command that runs what each has as bin/webreq; nothing here runs macOS's, but as
# the check macos does.
DEBS = {f"webreq_*_{DEBIAN_NAMES[MACHINE]}.deb": MACHINE}
DEBS |= {f"webreq-static_*_{name}.deb": machine for machine, name in DEBIAN_NAMES.items()}
RPMS = {f"webreq-static-*.{machine}.rpm": machine for machine in DEBIAN_NAMES}
ARCHIVES = {f"webreq-[0-9]*-linux-{MACHINE}.tar.gz": MACHINE}
ARCHIVES |= {f"webreq-static-*-linux-{machine}.tar.gz": machine for machine in DEBIAN_NAMES}
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
    if package.suffix == ".rpm":
        (folder / "files.tar.gz").write_bytes(subprocess.check_output(["rpm2archive", "-"], stdin=package.open()))
        return tarfile.open(folder / "files.tar.gz")
    return tarfile.open(package)


def listing(tar):
    """Each file's permissions and owner."""
    return {entry.name: (oct(entry.mode), entry.uid, entry.gid) for entry in tar if not entry.isdir()}


def expected_listing(name, suffix):
    documents = [*DOCUMENTS, *(f"examples/{example}" for example in EXAMPLES)]
    debian = ["copyright", "changelog.gz", "changelog.Debian.gz"]
    documents += debian if suffix == ".deb" else ["CHANGELOG.md", "LICENSE"]
    files = ["bin/webreq", "share/man/man1/webreq.1" + ".gz" * (suffix != ".gz")]
    if name == "webreq-static":
        documents += [f"{name}.spdx.json", *["LICENSE.libraries"] * (suffix != ".deb")]
        files += [f"share/lintian/overrides/{name}"] * (suffix == ".deb")
    files += [f"share/doc/{name}/{document}" for document in documents]
    return {file: ("0o755" if file.endswith((".sh", "bin/webreq")) else "0o644", 0, 0) for file in files}


def name_of(package):
    return "webreq-static" if package.name.startswith("webreq-static") else "webreq"


@pytest.mark.parametrize("pattern", [*DEBS, *RPMS, *ARCHIVES, MACOS])
def test_files(pattern, tmp_path):
    package = find(pattern)
    prefix = package.name.removesuffix(".tar.gz") + "/" if package.suffix == ".gz" else "./usr/"
    with open_tar(package, tmp_path) as tar:
        assert {entry.mode for entry in tar if entry.isdir()} == {0o755}
        expected = expected_listing(name_of(package), package.suffix)
        assert listing(tar) == {prefix + file: facts for file, facts in expected.items()}


# Installs an RPM for any machine in a root folder of its own; an ordinary user does so in a user namespace.
AS_ROOT = [] if os.geteuid() == 0 else ["unshare", "--map-root-user"]
INSTALL_RPM = [*AS_ROOT, "rpm", "--force-debian", "--ignorearch", "--install"]


def unpack(package, folder):
    """The path of the executable."""
    if package.suffix == ".rpm":
        output(*INSTALL_RPM, "--root", folder, package)
    else:
        with open_tar(package, folder) as tar:
            tar.extractall(folder)
    (executable,) = folder.glob("**/bin/webreq")
    return executable


@pytest.mark.parametrize(["pattern", "machine"], [*DEBS.items(), *RPMS.items(), *ARCHIVES.items()])
def test_a_request(pattern, machine, tmp_path):
    executable = unpack(find(pattern), tmp_path)
    page = (REPOSITORY / "server/site/page.html").read_bytes()
    emulator = [] if machine == MACHINE else [f"qemu-{machine}"]
    request = [*emulator, executable, "-web", os.environ["HTTP_URL"] + "/page.html"]
    assert output(*request) == b"200\n" + page + b"\n"


@pytest.mark.parametrize("pattern", [*DEBS, *RPMS, *ARCHIVES, MACOS])
def test_links_lead_to_files_in_the_package(pattern, tmp_path):
    pages = list(unpack(find(pattern), tmp_path).parent.parent.glob("share/doc/**/*.md"))
    links = [(page, link) for page in pages for link in re.findall(r"\]\((?!https?:)([^)#]+)", page.read_text())]
    assert len(links) > 10
    assert [(page.name, link) for page, link in links if not (page.parent / link).exists()] == []


def test_both_slices_for_macos(tmp_path):
    universal = REPOSITORY / "build/macos-universal/webreq"
    assert unpack(find(MACOS), tmp_path).read_bytes() == universal.read_bytes()
    assert "2 architectures" in output("file", "--brief", universal).decode()


@pytest.mark.parametrize("pattern", DEBS)
def test_what_a_deb_says_of_itself(pattern):
    package = find(pattern)
    release = output("sh", "-c", ". /etc/os-release; echo $VERSION_ID").decode().strip()
    description = " ".join(field(package, "Description").split())
    is_static = name_of(package) == "webreq-static"
    assert field(package, "Version").endswith("-1" if is_static else f"-1~deb{release}u1")
    needed = re.sub(r"t64| \(.*?\)", "", field(package, "Depends"))  # Debian 13 has libcurl4t64
    assert needed == ("" if is_static else "libc6, libcurl4")
    assert "Certificates are not verified." in description
    assert ("static and needs nothing" in description) == is_static


@pytest.mark.parametrize(["pattern", "machine"], RPMS.items())
def test_what_an_rpm_says_of_itself(pattern, machine):
    tags = ["ARCH", "BUILDHOST", "PACKAGER", "VENDOR", "URL", "LICENSE", "DESCRIPTION"]
    query = ["rpm", "--query", "--package", find(pattern)]
    *said, license_, description = output(*query, "--queryformat", "|".join(f"%{{{tag}}}" for tag in tags)).split(b"|")
    authors = b"The webreq authors"
    assert said == [
        machine.encode(),
        b"localhost",
        authors + b" <webreq@example.org>",
        authors,
        b"https://example.org/webreq",
    ]
    assert license_.startswith(b"MIT AND") and b"static and needs nothing" in description
    assert all(need.startswith(b"rpmlib(") for need in output(*query, "--requires").splitlines())


LINKED = ["curl", "aws-lc", "c-ares", "nghttp2", "musl", "libc++", "libc++abi", "libunwind", "compiler-rt"]

# In the virtual environment of deps/fetch: prints what is wrong with an SPDX list.
VALIDATE = """
import sys
from spdx_tools.spdx.parser.json import json_parser
from spdx_tools.spdx.validation.document_validator import validate_full_spdx_document
for message in validate_full_spdx_document(json_parser.parse_from_file(sys.argv[1])):
    print(message)
"""


@pytest.mark.parametrize("pattern", [pattern for pattern in [*DEBS, *RPMS, *ARCHIVES] if "static" in pattern])
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
    (licenses,) = (*path.parent.glob("copyright"), *path.parent.glob("LICENSE.libraries"))
    files = re.findall("^Files: (.*)", licenses.read_text(), re.MULTILINE)
    assert " ".join(files).split() == ["libcurl", *LINKED[1:]]


def sums(packages):
    return [checksum["checksumValue"] for package in packages for checksum in package["checksums"]]


def field(package, name):
    return output("dpkg-deb", "-f", package, name).decode().strip()


def test_sums_of_all_packages():
    listed = [line.split("  ")[1] for line in (PACKAGES / "SHA256SUMS").read_text().splitlines()]
    assert sorted([*listed, "SHA256SUMS"]) == sorted(path.name for path in PACKAGES.iterdir())
    subprocess.run(["sha256sum", "--check", "--strict", "--quiet", "SHA256SUMS"], cwd=PACKAGES, check=True)
