"""Bodies of 1 and 3 GiB, the second larger than what is reserved: exact to the byte. They take memory and time, so
"scripts/check large" runs them and the ordinary suite does not."""

import hashlib
import os
import pathlib
import subprocess
import tempfile

import pytest
from conftest import ENVIRONMENT, WEBREQ, Answer
from nginx import Nginx

MEBIBYTE = 1 << 20


@pytest.fixture(scope="module")
def folder():
    with tempfile.TemporaryDirectory(dir="/dev/shm" if os.path.isdir("/dev/shm") else None) as path:
        os.chmod(path, 0o755)
        yield pathlib.Path(path)


@pytest.fixture(scope="module", params=[1, 3], ids=["1 GiB", "3 GiB"])
def digests(request, folder):
    """The digests of the body that is served, and of the tool's whole output when it prints that body."""
    body, answer = hashlib.sha1(), hashlib.sha1(b"200\n")
    with open(folder / "body", "wb") as file:
        for _ in range(request.param * 1024):
            part = os.urandom(MEBIBYTE)
            file.write(part)
            body.update(part)
            answer.update(part)
    answer.update(b"\n")
    return body.hexdigest(), answer.hexdigest()


@pytest.fixture(scope="module")
def url(folder):
    with Nginx(folder) as server:
        yield server.http_url + "/body"


def digest_of(file):
    digest = hashlib.sha1()
    while part := file.read(MEBIBYTE):
        digest.update(part)
    return digest.hexdigest()


def test_in_a_file(digests, url, tool, folder):
    output = folder / "out"
    try:
        assert tool.request(f"{url}|||||100000|{output}") == Answer(b"200\n")
        with open(output, "rb") as file:
            assert digest_of(file) == digests[0]
    finally:
        output.unlink(missing_ok=True)


def test_on_standard_output(digests, url):
    command = [WEBREQ, "-web", f"{url}|||||100000"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, env=ENVIRONMENT) as process:
        assert digest_of(process.stdout) == digests[1]
    assert process.returncode == 0
