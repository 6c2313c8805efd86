"""What libcurl can do and no request asks for: a build that leaves it out answers like one that has it. And the few
things that the static executable can't do."""

import gzip
import zlib

import libcurl
import pytest
from conftest import ENVIRONMENT, IS_STATIC, Answer
from scripted_server import reply

OK = reply(200, b"ok")
ANSWERED = Answer(b"200\nok\n")

only_static = pytest.mark.skipif(not IS_STATIC, reason="depends on the system's libcurl")


def plain_request(server, target="/"):
    return f"GET {target} HTTP/1.1\r\nHost: 127.0.0.1:{server.port}\r\nAccept: */*\r\n\r\n".encode()


@pytest.mark.parametrize(
    "header_line",
    [
        "Set-Cookie: name=value",
        'Alt-Svc: http/1.1="127.0.0.1:1"',
        "Strict-Transport-Security: max-age=1000",
        "Content-Type: text/html; charset=utf-16",
    ],
)
def test_header_line_of_one_answer_does_not_change_the_next_request(tool, serve, header_line):
    server = serve(reply(302, b"", "Location: /next", header_line), OK)
    assert tool.request(server.url) == ANSWERED
    assert server.requests == [plain_request(server), plain_request(server, "/next")]


@pytest.mark.parametrize("scheme", ["Digest", "Negotiate", "NTLM", "Bearer", "AWS4-HMAC-SHA256"])
def test_password_is_offered_once_and_plainly(tool, serve, scheme):
    server = serve(reply(401, b"who?", f'WWW-Authenticate: {scheme} realm="r", nonce="n"'))
    assert tool.request(server.url.replace("//", "//user:secret@")) == Answer(b"401\nwho?\n")
    (request,) = server.requests
    assert b"\r\nAuthorization: Basic dXNlcjpzZWNyZXQ=\r\n" in request


def test_netrc_is_not_read(tool, tmp_path, serve):
    (tmp_path / ".netrc").write_text("machine 127.0.0.1 login user password secret\n")
    server = serve(OK)
    assert tool.request(server.url, env={**ENVIRONMENT, "HOME": str(tmp_path)}) == ANSWERED
    assert server.requests == [plain_request(server)]


def encoded(name, body):
    return b"HTTP/1.1 200 OK\r\nTransfer-Encoding: %s\r\nConnection: close\r\n\r\n%s" % (name, body)


@pytest.mark.parametrize("name, encode", [(b"gzip", gzip.compress), (b"deflate", zlib.compress)])
def test_transfer_encoding(tool, serve, name, encode):
    body = encode(b"body")
    printed = {b"decoded": b"200\nbody\n", b"delivered": b"200\n" + body + b"\n"}
    answer = libcurl.answer("transfer encoding")
    assert tool.request(serve(encoded(name, body)).url) == Answer(printed.get(answer, answer))


@pytest.mark.parametrize("name", [b"gzip", b"deflate", b"br", b"zstd"])
def test_content_encoding_is_not_decoded(tool, serve, name):
    response = encoded(b"chunked", b"2\r\nok\r\n0\r\n\r\n").replace(
        b"\r\n\r\n", b"\r\nContent-Encoding: " + name + b"\r\n\r\n", 1
    )
    assert tool.request(serve(response).url) == ANSWERED


@only_static
@pytest.mark.parametrize(
    "scheme", "dict ftp ftps gopher imap ldap ldaps mqtt pop3 rtsp scp sftp smb smtp telnet tftp ws wss".split()
)
def test_other_schemes_are_unknown(tool, serve, scheme):
    assert tool.request(f"{scheme}://127.0.0.1:1/") == Answer(b"1\n")
    assert tool.request(serve(reply(302, b"", f"Location: {scheme}://127.0.0.1:1/")).url) == Answer(b"1\n")


@only_static
def test_international_name_is_unknown(tool):
    """Other builds call it malformed (3), as their locale "C" knows no such letters."""
    assert tool.request("http://b\u00fccher.invalid/") == Answer(b"6\n")
