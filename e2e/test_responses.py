"""Well-formed answers of servers, and what becomes of them on standard output."""

import gzip
import zlib

import libcurl
import pytest
from conftest import ANSWERED, Answer
from scripted_server import AWAIT_CLOSE, READ_REQUEST, OK, reply, trickle


@pytest.mark.parametrize("status", [200, 201, 400, 401, 403, 404, 418, 500, 503, 599, 999])
def test_status_with_body(tool, serve, status):
    server = serve(reply(status, b"what the server says"))
    assert tool.request(server.url) == Answer(b"%d\nwhat the server says\n" % status)


@pytest.mark.parametrize("status", [204, 304])
def test_status_without_body(tool, serve, status):
    server = serve(b"HTTP/1.1 %d Whatever\r\nConnection: close\r\n\r\n" % status)
    assert tool.request(server.url) == Answer(b"%d\n" % status)


def test_empty_body_prints_nothing_not_even_a_line_feed(tool, serve):
    assert tool.request(serve(reply(200)).url) == Answer(b"200\n")


@pytest.mark.parametrize("body", [b"abc", b"abc\n", b"\n", b"\r\n", b"\0", b"a\0b\0", bytes(range(256)) * 3], ids=repr)
def test_body_is_printed_unchanged_with_one_line_feed_behind(tool, serve, body):
    assert tool.request(serve(reply(200, body)).url) == Answer(b"200\n" + body + b"\n")


RESPONSES = [
    pytest.param(b"HTTP/1.1 100 Continue\r\n\r\n" + reply(200, b"ok"), b"200\nok\n", id="100 Continue"),
    pytest.param(b"HTTP/1.1 103 Early\r\nLink: x\r\n\r\n" * 3 + reply(200, b"ok"), b"200\nok\n", id="early hints"),
    pytest.param(b"HTTP/1.1 103 Early\r\n\r\n" * 10_000 + reply(200, b"ok"), b"200\nok\n", id="10,000 early hints"),
    pytest.param(
        OK + b"Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2;x=y\r\nde\r\n0\r\nTrailer: t\r\n\r\n",
        b"200\nabcde\n",
        id="chunked",
    ),
    pytest.param(b"HTTP/1.0 200 OK\r\n\r\nuntil\0close", b"200\nuntil\0close\n", id="HTTP/1.0 until close"),
    pytest.param(OK + b"\r\nuntil close", b"200\nuntil close\n", id="no length until close"),
    pytest.param(OK + b"Content-Type: text/plain; charset=utf-16\r\n\r\n\xff\xfe", b"200\n\xff\xfe\n", id="no charset"),
]


@pytest.mark.parametrize("response, printed", RESPONSES)
def test_response(tool, serve, response, printed):
    assert tool.request(serve(response).url) == Answer(printed)


def test_connection_that_stays_open_behind_the_body_is_not_waited_for(tool, serve):
    server = serve([READ_REQUEST, OK + b"Content-Length: 3\r\n\r\nabc", AWAIT_CLOSE])
    assert tool.request(server.url) == Answer(b"200\nabc\n")


def encoded(name, body=b""):
    return OK + b"Transfer-Encoding: %s\r\nConnection: close\r\n\r\n%s" % (name, body)


def test_body_in_10000_chunks_of_one_byte(tool, serve):
    body = bytes(range(250)) * 40
    chunks = [b"1\r\n%c\r\n" % byte for byte in body]
    server = serve([READ_REQUEST, encoded(b"chunked"), trickle(chunks), b"0\r\n\r\n"])
    assert tool.request(server.url) == Answer(b"200\n" + body + b"\n")


@pytest.mark.parametrize("name, encode", [(b"gzip", gzip.compress), (b"deflate", zlib.compress)])
def test_transfer_encoding(tool, serve, name, encode):
    body = encode(b"body")
    printed = {b"decoded": b"200\nbody\n", b"delivered": b"200\n" + body + b"\n"}
    answer = libcurl.answer("transfer encoding")
    assert tool.request(serve(encoded(name, body)).url) == Answer(printed.get(answer, answer))


@pytest.mark.parametrize("name", ["gzip", "deflate", "br", "zstd"])
def test_content_encoding_is_not_decoded(tool, serve, name):
    assert tool.request(serve(reply(200, b"ok", f"Content-Encoding: {name}")).url) == ANSWERED
