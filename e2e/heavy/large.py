"""A body larger than the GiB reserved for it, and than 32 bits can count: exact to the byte. Run it by "scripts/check
load"; "scripts/check static" runs it, too."""

import hashlib
import os

import pytest
from conftest import MEMORY
from scripted_server import OK, READ_REQUEST, trickle

MEBIBYTE = 1 << 20
PIECES = 4097


@pytest.mark.skipif(MEMORY < 10 << 30, reason="takes 9 GiB of memory")
def test_body_over_4_gib(tool, serve):
    noise = os.urandom(2 * MEBIBYTE)
    expected, received = hashlib.sha1(b"200\n"), hashlib.sha1()

    def pieces():
        for shift in range(PIECES):
            expected.update(piece := noise[shift : shift + MEBIBYTE])
            yield piece

    server = serve([READ_REQUEST, OK + b"Content-Length: %d\r\n\r\n" % (PIECES * MEBIBYTE), trickle(pieces())])
    with tool.start([tool.path, "-web", f"{server.url}|||||1000000"], timeout=600) as process:
        while part := process.stdout.read(MEBIBYTE):
            received.update(part)
        expected.update(b"\n")
        assert (received.digest(), process.wait()) == (expected.digest(), 0)
