"""Answers of servers, well-formed and not, and what becomes of them on standard output."""

import libcurl
import pytest
from conftest import Answer
from scripted_server import AWAIT_CLOSE, READ_REQUEST, RESET, reply

OK = b"HTTP/1.1 200 OK\r\n"


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
    pytest.param(
        OK + b"Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2;x=y\r\nde\r\n0\r\nTrailer: t\r\n\r\n",
        b"200\nabcde\n",
        id="chunked",
    ),
    pytest.param(b"HTTP/1.0 200 OK\r\n\r\nuntil\0close", b"200\nuntil\0close\n", id="HTTP/1.0 until close"),
    pytest.param(OK + b"\r\nuntil close", b"200\nuntil close\n", id="no length until close"),
    pytest.param(OK + b"Content-Length: 3\r\n\r\nabcdef", b"200\nabc\n", id="longer than announced"),
    pytest.param(OK + b"Content-Length: 6\r\n\r\nabc", b"18\nabc\n", id="shorter than announced"),
    pytest.param(OK + b"Transfer-Encoding: chunked\r\n\r\n5\r\nabc", b"18\nabc\n", id="chunk cut off"),
    pytest.param(OK + b"Transfer-Encoding: chunked\r\n\r\nxyz\r\n", b"56\n", id="chunk without a length"),
    pytest.param(OK + b"Content-Encoding: gzip\r\nContent-Length: 3\r\n\r\nabc", b"200\nabc\n", id="never decoded"),
    pytest.param(OK + b"Content-Type: text/plain; charset=utf-16\r\n\r\n\xff\xfe", b"200\n\xff\xfe\n", id="no charset"),
    pytest.param(b"", b"52\n", id="empty reply"),
    pytest.param(b"This is no HTTP.\r\n\r\n", libcurl.answer("garbage"), id="garbage"),
]


@pytest.mark.parametrize("response, printed", RESPONSES)
def test_response(tool, serve, response, printed):
    assert tool.request(serve(response).url) == Answer(printed)


def test_reset_instead_of_a_response(tool, serve):
    server = serve([READ_REQUEST, RESET])
    assert tool.request(server.url) == Answer(b"56\n")


def test_reset_in_the_middle_of_the_body_keeps_what_arrived(tool, serve):
    server = serve([READ_REQUEST, OK + b"Content-Length: 10\r\n\r\nhalf", RESET])
    assert tool.request(server.url) == Answer(b"56\nhalf\n")


def test_connection_that_stays_open_behind_the_body_is_not_waited_for(tool, serve):
    server = serve([READ_REQUEST, OK + b"Content-Length: 3\r\n\r\nabc", AWAIT_CLOSE])
    assert tool.request(server.url) == Answer(b"200\nabc\n")
