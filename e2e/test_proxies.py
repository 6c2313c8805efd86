"""Proxies, which libcurl takes from the environment: each kind, with the bytes that it receives."""

import socket
import struct

import libcurl
import own_network
import pytest
from conftest import ANSWERED, ENVIRONMENT, Answer, unless
from scripted_server import READ_REQUEST, RESPONSE, ScriptedServer

PLAIN = b"GET / HTTP/1.1\r\nHost: 192.0.2.7\r\nAccept: */*\r\n\r\n"
PORT = struct.pack(">H", 80)
ADDRESS = socket.inet_aton("192.0.2.7")
NAME = b"host.invalid"


def expect(expected):
    """A step that receives these bytes."""

    def receive(connection):
        assert connection.recv(len(expected), socket.MSG_WAITALL) == expected

    return receive


def choose_no_authentication(connection):
    """A SOCKS 5 client offers the ways that its libcurl knows."""
    version, count = connection.recv(2, socket.MSG_WAITALL)
    assert version == 5 and 0 in connection.recv(count, socket.MSG_WAITALL)
    connection.sendall(b"\x05\0")


SOCKS = [
    ("socks4", "192.0.2.7", [expect(b"\x04\x01" + PORT + ADDRESS + b"\0"), b"\0\x5a" + bytes(6)]),
    (
        "socks4a",
        "host.invalid",
        [expect(b"\x04\x01" + PORT + b"\0\0\0\x01" + b"\0" + NAME + b"\0"), b"\0\x5a" + bytes(6)],
    ),
    (
        "socks5",
        "192.0.2.7",
        [choose_no_authentication, expect(b"\x05\x01\0\x01" + ADDRESS + PORT), b"\x05\0\0\x01" + bytes(6)],
    ),
    (
        "socks5h",
        "host.invalid",
        [choose_no_authentication, expect(b"\x05\x01\0\x03\x0c" + NAME + PORT), b"\x05\0\0\x01" + bytes(6)],
    ),
]


@pytest.fixture
def request_through(tool):
    """Performs a request with the proxy that a variable of the environment names."""
    return lambda url, **proxies: tool.request(url, env={**ENVIRONMENT, **proxies})


def test_http_with_a_password(request_through, serve):
    proxy = serve(RESPONSE)
    url = proxy.url.replace("//", "//user:secret@")
    assert request_through("http://192.0.2.7/", http_proxy=url) == ANSWERED
    assert b"\r\nProxy-Authorization: Basic dXNlcjpzZWNyZXQ=\r\n" in proxy.requests[0]


def test_tunnel(request_through, serve, make_certificate):
    """TLS begins behind the proxy's answer."""
    context = make_certificate("192.0.2.7").server_context

    def encrypt(connection):
        with context.wrap_socket(connection, server_side=True) as encrypted:
            request = encrypted.recv(65536)
            encrypted.sendall(RESPONSE if request.startswith(PLAIN) else b"")
            encrypted.unwrap()

    proxy = serve([READ_REQUEST, b"HTTP/1.1 200 Established\r\n\r\n", encrypt])
    assert request_through("https://192.0.2.7/", https_proxy=proxy.url) == ANSWERED
    assert proxy.requests[0].startswith(b"CONNECT 192.0.2.7:443 HTTP/1.1\r\nHost: 192.0.2.7:443\r\n")


@pytest.mark.parametrize("scheme, host, handshake", SOCKS, ids=[scheme for scheme, _, _ in SOCKS])
def test_socks(request_through, serve, scheme, host, handshake):
    proxy = serve([*handshake, READ_REQUEST, RESPONSE])
    assert request_through(f"http://{host}/", ALL_PROXY=f"{scheme}://127.0.0.1:{proxy.port}") == ANSWERED
    assert proxy.requests == [PLAIN.replace(b"192.0.2.7", host.encode())]


@pytest.mark.skipif(not own_network.is_possible(), reason=own_network.REASON)
@pytest.mark.parametrize(
    "listed, result",
    [
        ("localhost", libcurl.answer("trusted proxy")),
        ("elsewhere", b"60\n"),
        (None, libcurl.answer("proxy without authorities")),
    ],
    ids=["trusted", "not trusted", "no list"],
)
def test_https_proxy(tool, tmp_path, make_certificate, listed, result):
    """Verification is off for servers, not for proxies. The list of authorities is the system's, at Debian's path."""
    certificate = make_certificate("localhost")
    (tmp_path / "ssl/certs").mkdir(parents=True)
    if listed:
        authority = certificate if listed == "localhost" else make_certificate(listed)
        (tmp_path / "ssl/certs/ca-certificates.crt").write_bytes(authority.path.read_bytes())
    (tmp_path / "hosts").write_text("127.0.0.1 localhost\n")
    (tmp_path / "nsswitch.conf").write_text("hosts: files\n")
    with own_network.start(tmp_path) as (enter, sockets):
        (listener,) = [opened for opened in sockets if opened.getsockname()[:2] == ("127.0.0.1", 81)]
        with ScriptedServer(RESPONSE, tls_context=certificate.server_context, listener=listener) as proxy:
            command = [*enter, tool.path, "-web", "http://192.0.2.7/"]
            answer = tool.run_command(command, env={**ENVIRONMENT, "http_proxy": "https://localhost:81"})
    assert answer == Answer(result)
    assert bool(b"".join(proxy.requests)) == result.startswith(b"200")


@unless(libcurl.answer("proxy at a Unix socket") is None, "its libcurl knows no such proxies")
def test_socks_at_a_unix_socket(request_through, tmp_path):
    """libcurl takes a path behind "localhost" for one."""
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(tmp_path / "proxy"))
        listener.listen()
        _, host, handshake = SOCKS[-1]
        with ScriptedServer([*handshake, READ_REQUEST, RESPONSE], listener=listener):
            assert request_through(f"http://{host}/", ALL_PROXY=f"socks5h://localhost{tmp_path}/proxy") == Answer(
                libcurl.answer("proxy at a Unix socket")
            )
