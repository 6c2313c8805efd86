"""Bodies of 1 and 3 GiB, the second larger than what is reserved: exact to the byte. They take memory and time, so
"scripts/check large" runs them and the ordinary suite does not."""

import hashlib
import os

import pytest
from conftest import Answer
from nginx import Nginx

MEBIBYTE = 1 << 20


@pytest.fixture(scope="module")
def files():
    """The body and the output file, in memory and gone with this process."""
    with open(os.memfd_create("body"), "wb") as body, open(os.memfd_create("out"), "w+b") as output:
        yield body, output


def path_of(file):
    return f"/proc/{os.getpid()}/fd/{file.fileno()}"


@pytest.fixture(scope="module", params=[1, 3], ids=["1 GiB", "3 GiB"])
def digests(request, files):
    """The digests of the body that is served, and of the tool's whole output when it prints that body."""
    body, answer = hashlib.sha1(), hashlib.sha1(b"200\n")
    files[0].seek(0)
    for _ in range(request.param * 1024):
        part = os.urandom(MEBIBYTE)
        files[0].write(part)
        body.update(part)
        answer.update(part)
    files[0].flush()
    answer.update(b"\n")
    return body.hexdigest(), answer.hexdigest()


@pytest.fixture(scope="module")
def url(files, tmp_path_factory):
    folder = tmp_path_factory.mktemp("site")
    (folder / "body").symlink_to(path_of(files[0]))
    with Nginx(folder) as server:
        yield server.http_url + "/body"


def digest_of(file):
    digest = hashlib.sha1()
    while part := file.read(MEBIBYTE):
        digest.update(part)
    return digest.hexdigest()


def test_in_a_file(digests, url, tool, files):
    output = files[1]
    assert tool.request(f"{url}|||||100000|{path_of(output)}") == Answer(b"200\n")
    output.seek(0)
    assert digest_of(output) == digests[0]
    output.truncate(0)


def test_on_standard_output(digests, url, tool):
    with tool.start([tool.path, "-web", f"{url}|||||100000"], timeout=600) as process:
        assert digest_of(process.stdout) == digests[1]
        assert process.wait() == 0
