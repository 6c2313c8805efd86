"""Servers that answer malformed things, break off or hold the tool up: what the caller gets from each, exactly."""

import itertools
import socket
import ssl

import h2.config
import h2.connection
import h2.errors
import h2.events
import libcurl
import pytest
from conftest import Answer, unless
from scripted_server import AWAIT_CLOSE, READ_REQUEST, RESET, OK, reply, trickle

SECOND = "|||||999|"  # a time-out of one second


def endless(piece):
    return trickle(itertools.repeat(piece * 1000))


def half_close(connection):
    connection.shutdown(socket.SHUT_WR)


TLS_ALERT = b"\x15\x03\x03\0\x02\x02\x28"
ANSWERS = [
    pytest.param(b"", b"52\n", id="empty reply"),
    pytest.param(b"This is no HTTP.\r\n\r\n", libcurl.answer("garbage"), id="garbage"),
    pytest.param(OK + b"Content-Length: 3\r\n\r\nabcdef", b"200\nabc\n", id="longer than announced"),
    pytest.param(OK + b"Content-Length: 6\r\n\r\nabc", b"18\nabc\n", id="shorter than announced"),
    pytest.param(OK + b"Transfer-Encoding: chunked\r\n\r\n5\r\nabc", b"18\nabc\n", id="chunk cut off"),
    pytest.param(OK + b"Transfer-Encoding: chunked\r\n\r\nxyz\r\n", b"56\n", id="chunk without a length"),
    pytest.param(
        OK + b"".join(b"X-%04d: %s\r\n" % (line, b"x" * 40) for line in range(5000)) + b"Content-Length: 2\r\n\r\nok",
        libcurl.answer("5000 header lines"),
        id="5000 header lines, 250 KB",
    ),
    pytest.param(OK + b"X: " + b"x" * 90_000 + b"\r\nContent-Length: 2\r\n\r\nok", b"200\nok\n", id="long header line"),
    pytest.param(
        OK + b"X: " + b"x" * 300_000 + b"\r\nContent-Length: 2\r\n\r\nok",
        libcurl.answer("too long header line"),
        id="too long header line",
    ),
    pytest.param(OK + b"Transfer-Encoding: chunked\r\n\r\n2\r\nabcd\r\n0\r\n\r\n", b"56\nab\n", id="chunk too long"),
    pytest.param(
        OK + b"Transfer-Encoding: chunked\r\n\r\nfffffffffffffffff\r\nab",
        b"56\n",
        id="chunk of more than 64 bits",
    ),
    pytest.param(OK + b"Transfer-Encoding: chunked\r\n\r\n2\r\nab\r\n", b"18\nab\n", id="no last chunk"),
    pytest.param(
        OK + b"Content-Length: 2\r\nContent-Length: 4\r\n\r\nabcd",
        libcurl.answer("two lengths"),
        id="two lengths",
    ),
    pytest.param(OK + b"Content-Length: -1\r\n\r\nabcd", libcurl.answer("negative length"), id="negative length"),
    pytest.param(
        OK + b"Content-Length: 99999999999999999999\r\n\r\nabcd",
        libcurl.answer("length of more than 64 bits"),
        id="length of more than 64 bits",
    ),
    pytest.param(b"HTTP/1.1 200\r\n\r\nabcd", b"200\nabcd\n", id="no reason phrase"),
    pytest.param(b"HTTP/9.9 200 OK\r\n\r\nabcd", libcurl.answer("unknown version"), id="unknown version"),
    pytest.param(TLS_ALERT, libcurl.answer("TLS where HTTP is expected"), id="TLS where HTTP is expected"),
    pytest.param(reply(302, b"body", "Location: "), b"302\nbody\n", id="empty Location"),
    pytest.param(reply(302, b"body", "Location: http://[::1/"), b"3\n", id="malformed Location"),
]


@pytest.mark.parametrize("response, printed", ANSWERS)
def test_answer(tool, serve, response, printed):
    assert tool.request(serve(response).url) == Answer(printed)


def test_endless_headers(tool, serve):
    server = serve([READ_REQUEST, OK, endless(b"X: y\r\n")])
    assert tool.request(server.url + SECOND) == Answer(libcurl.answer("endless headers"))


def test_endless_body(tool, serve):
    server = serve([READ_REQUEST, OK + b"\r\n", endless(b"x")])
    answer = tool.request(server.url + SECOND)
    body = answer.stdout[3:-1]
    assert answer == Answer(b"28\n" + body + b"\n")
    assert len(body) > 0 and body == b"x" * len(body)


def test_endless_redirects(tool, serve):
    again = reply(302, b"", "Location: /again", "X: " + "x" * 3000)
    server = serve(*[again] * 100_000)
    assert tool.request(server.url + SECOND) == Answer(libcurl.answer("endless redirects"))
    assert len(server.requests) > 20


def test_silence(tool, serve):
    assert tool.request(serve([AWAIT_CLOSE]).url + SECOND) == Answer(b"28\n")


def test_half_close_behind_the_body(tool, serve):
    server = serve([READ_REQUEST, OK + b"\r\nbody", half_close, AWAIT_CLOSE])
    assert tool.request(server.url) == Answer(b"200\nbody\n")


def test_half_close_before_the_request(tool, serve):
    assert tool.request(serve([half_close, AWAIT_CLOSE]).url) == Answer(b"52\n")


def test_tls_cut_off_in_the_handshake(tool, serve):
    server = serve([lambda connection: connection.recv(5)])
    assert tool.request(f"https://127.0.0.1:{server.port}/") == Answer(b"35\n")


def test_reset_instead_of_a_response(tool, serve):
    server = serve([READ_REQUEST, RESET])
    assert tool.request(server.url) == Answer(b"56\n")


def test_reset_in_the_middle_of_the_body_keeps_what_arrived(tool, serve):
    server = serve([READ_REQUEST, OK + b"Content-Length: 10\r\n\r\nhalf", RESET])
    assert tool.request(server.url) == Answer(b"56\nhalf\n")


@pytest.fixture
def tls(make_certificate):
    return make_certificate("127.0.0.1").server_context


def abandon(connection):
    """Closes the TCP connection below TLS, which gets no chance to say good-bye."""
    socket.socket(fileno=connection.detach()).close()


def test_tls_without_close_notify_behind_a_whole_body(tool, serve, tls):
    server = serve([READ_REQUEST, OK + b"Content-Length: 4\r\n\r\nbody", abandon], tls_context=tls)
    assert tool.request(server.url) == Answer(libcurl.answer("TLS cut off behind the body"))


def test_tls_without_close_notify_where_only_it_would_end_the_body(tool, serve, tls):
    """Some versions of libcurl let it pass."""
    server = serve([READ_REQUEST, OK + b"\r\nbody", abandon], tls_context=tls)
    assert tool.request(server.url) == Answer(libcurl.answer("TLS cut off"))


def http2(ending):
    """A step that answers by HTTP/2 with half a body and, once that was received, lets `ending` have its way."""

    def answer(connection):
        protocol = h2.connection.H2Connection(h2.config.H2Configuration(client_side=False))
        protocol.initiate_connection()
        stream = await_event(protocol, connection, h2.events.RequestReceived).stream_id
        protocol.send_headers(stream, [(":status", "200"), ("content-length", "10")])
        protocol.send_data(stream, b"half\0")
        protocol.ping(b"received")
        await_event(protocol, connection, h2.events.PingAckReceived)
        ending(protocol, stream)
        connection.sendall(protocol.data_to_send())

    return answer


def await_event(protocol, connection, kind):
    while True:
        connection.sendall(protocol.data_to_send())
        received = connection.recv(65536)
        if not received:
            raise ConnectionError("the peer left")
        for event in protocol.receive_data(received):
            if isinstance(event, kind):
                return event


@unless(libcurl.version() < (7, 62, 0), "its libcurl asks for HTTP/1.1")
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
@pytest.mark.parametrize(
    "ending, then, printed",
    [
        pytest.param(
            lambda h2, stream: h2.send_data(stream, b"whole", True), AWAIT_CLOSE, b"200\nhalf\0whole\n", id="end"
        ),
        pytest.param(
            lambda h2, stream: h2.reset_stream(stream, 2), AWAIT_CLOSE, libcurl.answer("RST_STREAM"), id="RST_STREAM"
        ),
        pytest.param(
            lambda h2, stream: h2.close_connection(2, b"", 0), AWAIT_CLOSE, libcurl.answer("GOAWAY"), id="GOAWAY"
        ),
        pytest.param(lambda h2, stream: None, b"", libcurl.answer("HTTP/2 closed"), id="close"),
        pytest.param(lambda h2, stream: None, abandon, libcurl.answer("HTTP/2 cut off"), id="cut off"),
    ],
)
def test_http_2_that_ends_in_the_middle_of_the_body(tool, serve, tls, version, ending, then, printed):
    tls.minimum_version = tls.maximum_version = version
    tls.set_alpn_protocols(["h2"])
    assert tool.request(serve([http2(ending), then], tls_context=tls).url) == Answer(printed)
