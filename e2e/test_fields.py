"""Every byte in every field, first, in the middle and last, and fields of 100 KB: each arrives on the other side,
unless a rule of the tool's or of libcurl's drops it."""

import concurrent.futures
import os
from unittest import mock

import libcurl
import pytest
from conftest import ENVIRONMENT, IS_SANITIZED, TRANSLATOR, Answer, impossible_on_macos
from scripted_server import ECHO, READ_REQUEST, reply

# The bar separates fields, and no argument can hold a NUL. A sample for tools that start slowly.
BYTES = [bytes([byte]) for byte in range(1, 256, 7 if IS_SANITIZED or TRANSLATOR else 1) if byte != ord("|")]
ACCEPT = b"Accept: */*\r\n"
PROXY = b"Proxy-Connection: Keep-Alive\r\n\r\n"


@pytest.fixture
def server(serve):
    """Its answers are the requests."""
    return serve(*[[READ_REQUEST, ECHO]] * len(BYTES))


@pytest.fixture
def check_each(tool):
    """Performs the request that `describe` makes of each byte; `expect` tells the answer."""

    def check(describe, expect, **options):
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            answers = zip(BYTES, pool.map(lambda byte: tool.request(describe(byte), **options), BYTES))
            assert {byte: answer for byte, answer in answers if answer != expect(byte)} == {}

    return check


def trim(field):
    return field.strip(b" \t")


def delivered(request):
    return Answer(b"200\n" + request + b"\n")


def test_url_first(server, check_each):
    """The server is the proxy, which is asked for any host."""

    def expect(byte):
        if byte in b"%@":
            return mock.ANY  # some versions decode what follows a "%"; all drop what precedes an "@"
        first = trim(byte)
        if first and first in libcurl.answer("refused first bytes"):
            return Answer(b"3\n")
        if first > b"\x7f" and libcurl.refuses_international_names():
            return Answer(b"3\n")
        host = first + b"host.test"
        return delivered(b"GET http://%s/ HTTP/1.1\r\nHost: %s\r\n" % (host, host) + ACCEPT + PROXY)

    check_each(lambda byte: byte + b"host.test", expect, env={**ENVIRONMENT, "http_proxy": server.url})


def test_url_and_parameters(server, check_each):
    def expect(byte):
        if byte in libcurl.answer("refused bytes"):
            return Answer(b"3\n")
        if byte == b"#":
            return delivered(server.get(libcurl.answer("/x#x#?")))
        sent = libcurl.answer("byte beyond ASCII in a path") % ord(byte) if byte > b"\x7f" else byte
        path, parameters = trim(b"/x%sx%s" % (sent, sent)), trim(b"%sx%sx%s" % (byte, byte, byte))
        return delivered(server.get(path + b"?" + parameters))

    url = server.url.encode()
    check_each(lambda byte: b"%s/x%sx%s|%sx%sx%s" % (url, byte, byte, byte, byte, byte), expect)


@impossible_on_macos("file systems refuse some names and take others for the same")
def test_other_fields(server, check_each, tmp_path):
    """The request goes into OUTFILE, as its body."""

    def describe(byte):
        text = b"%sx%sx%s" % (byte, byte, byte)
        header = b"%sA%sA: 1%s" % (byte, byte, byte)
        return b"%s|a=1|%sx|%s|%s|5000|%s" % (server.url.encode(), byte, header, text, text)

    def expect_file(byte):
        text = trim(b"%sx%sx%s" % (byte, byte, byte))
        lines = map(trim, (b"%sA%sA: 1%s" % (byte, byte, byte)).split(b"\r"))
        header = b"".join(line + b"\r\n" for line in lines if line.find(b":") > 0)
        target = b"/?p" if byte in b"Pp" else b"/?a=1"
        return text, server.get(target, b"User-Agent: " + text + b"\r\n" + ACCEPT + header)

    check_each(describe, lambda byte: Answer(b"200\n"))
    files = {os.fsencode(path.name): path.read_bytes() for path in tmp_path.iterdir()}
    assert files == dict(expect_file(byte) for byte in BYTES if byte != b"/")  # that leads to another folder


LONG = b"x" * 100_000
LONG_FIELDS = {
    "URL": (b"/" + LONG, b"/" + LONG, ACCEPT),
    "PARAM": (b"/|" + LONG, b"/?" + LONG, ACCEPT),
    "CMD": (b"/||p" + LONG, b"/?p", ACCEPT),
    "HEADER": (b"/|||X:" + b"\\s" * 50_000 + b"x", b"/", ACCEPT + b"X:" + b" " * 50_000 + b"x\r\n"),
    "AGENT": (b"/||||" + LONG, b"/", b"User-Agent: " + LONG + b"\r\n" + ACCEPT),
    "TIMEOUT": (b"/|||||" + b"0" * 100_000 + b"5000", b"/", ACCEPT),
    "OUTFILE": (b"/||||||" + LONG, b"/", ACCEPT),  # no file has such a name
}


@pytest.mark.parametrize("fields, target, lines", LONG_FIELDS.values(), ids=LONG_FIELDS)
def test_long_field(tool, tmp_path, serve, fields, target, lines):
    server = serve(reply(200))
    assert tool.request(server.url.encode() + fields) == Answer(b"200\n")
    assert server.requests == [server.get(target, lines)]
    assert list(tmp_path.iterdir()) == []
