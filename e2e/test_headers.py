"""Header lines as the server receives them."""

import libcurl
import pytest
from conftest import Answer
from scripted_server import reply

# What the caller writes in HEADER, and the header part of the request behind the Host line.
CASES = [
    pytest.param(b"Accept:\\stext/plain", b"Accept: text/plain\r\n", id="a default is replaced"),
    pytest.param(b"A: 1\rB: 2", b"Accept: */*\r\nA: 1\r\nB: 2\r\n", id="CR separates"),
    pytest.param(b"A: 1\r\nB: 2", b"Accept: */*\r\nA: 1\r\n\nB: 2\r\n", id="LF stays in front of the second line"),
    pytest.param(b" \rA: 1\r\t\r \t B: 2 \r", b"Accept: */*\r\nA: 1\r\nB: 2\r\n", id="blank lines and edges vanish"),
    pytest.param(b"  X-Msg:\\shello\\sworld\t", b"Accept: */*\r\nX-Msg: hello world\r\n", id="backslash s is a space"),
    pytest.param(b"X: \\s a\\s", b"Accept: */*\r\nX:   a \r\n", id="spaces from escapes are not trimmed"),
    pytest.param(b"none\r:v\r :v\rX;\rA:b:c", b"Accept: */*\r\nA:b:c\r\n", id="no colon, or in front"),
    pytest.param(b"Accept:", b"", id="a name alone removes a default"),
    pytest.param(b"X-Remove:", b"Accept: */*\r\n", id="a name alone sends nothing"),
    pytest.param(b"X-Empty: \\s", b"Accept: */*\r\n", id="nor does a name with blanks"),
]


@pytest.mark.parametrize("header, sent", CASES)
def test_header_lines(tool, serve, header, sent):
    server = serve(reply(200))
    assert tool.request(server.url.encode() + b"/|||" + header) == Answer(b"200\n")
    assert server.requests == [server.get(lines=sent)]


def test_many_lines_arrive_in_order(tool, serve):
    server = serve(reply(200))
    lines = [f"x{number}:1" for number in range(10_000)]
    assert tool.request(f"{server.url}/|||" + "\r".join(lines)) == Answer(b"200\n")
    assert server.requests[0].decode().split("\r\n")[3:-2] == lines


def test_host_line_can_be_replaced(tool, serve):
    server = serve(reply(200))
    assert tool.request(f"{server.url}/|||Host: example.invalid") == Answer(b"200\n")
    assert server.requests == [b"GET / HTTP/1.1\r\nHost: example.invalid\r\nAccept: */*\r\n\r\n"]


@pytest.mark.parametrize("scheme", ["Digest", "Negotiate", "NTLM", "Bearer", "AWS4-HMAC-SHA256"])
def test_password_is_offered_once_and_plainly(tool, serve, scheme):
    server = serve(reply(401, b"who?", f'WWW-Authenticate: {scheme} realm="r", nonce="n"'))
    assert tool.request(server.url.replace("//", "//user:secret@")) == Answer(b"401\nwho?\n")
    (request,) = server.requests
    assert b"\r\nAuthorization: Basic dXNlcjpzZWNyZXQ=\r\n" in request


def test_nginx_receives_fields_over_tls(tool, nginx):
    answer = tool.request(f"{nginx.https_url}/echo|q=1||X-Demo:\\sa\\sb|Me/1.0|20000")
    protocol = libcurl.answer("protocol over TLS")
    assert answer == Answer(b"200\n%s GET /echo?q=1\nUser-Agent: Me/1.0\nX-Demo: a b\n\n" % protocol)
