"""No certificate is refused: each of these fails a client that verifies, and none fails the tool."""

import socket
import ssl

import pytest
from conftest import Answer
from scripted_server import reply


def reason_to_refuse(port, trusted):
    """What a verifying client that trusts this certificate file says of the server, or None if it is content."""
    context = ssl.create_default_context(cafile=trusted)
    with socket.create_connection(("127.0.0.1", port)) as connection:
        try:
            context.wrap_socket(connection, server_hostname="localhost").close()
        except ssl.SSLCertVerificationError as error:
            return error.verify_message
    return None


@pytest.fixture
def check(tool, serve):
    """Lets a verifying client and the tool meet a server; returns what the client has against it."""

    def serve_and_request(certificate, trusted):
        server = serve([], reply(200, b"body"), tls_context=certificate.server_context)
        reason = reason_to_refuse(server.port, trusted)
        assert tool.request(f"https://localhost:{server.port}/") == Answer(b"200\nbody\n")
        return reason

    return serve_and_request


def test_certificate_that_verifies(check, make_certificate):
    certificate = make_certificate("localhost")
    assert check(certificate, trusted=certificate.path) is None


def test_self_signed_certificate(check, make_certificate):
    assert check(make_certificate("localhost"), trusted=None) in ("self-signed certificate", "self signed certificate")


def test_expired_certificate(check, make_certificate):
    certificate = make_certificate("localhost", first_day=-9, last_day=-2)
    assert check(certificate, trusted=certificate.path) == "certificate has expired"


def test_certificate_that_is_not_valid_yet(check, make_certificate):
    certificate = make_certificate("localhost", first_day=+2, last_day=+9)
    assert check(certificate, trusted=certificate.path) == "certificate is not yet valid"


def test_certificate_for_another_name(check, make_certificate):
    certificate = make_certificate("another.invalid")
    assert "Hostname mismatch" in check(certificate, trusted=certificate.path)


def test_nginx_over_http_2(tool, nginx):
    assert tool.request(nginx.https_url + "/echo") == Answer(b"200\nHTTP/2.0 GET /echo\nUser-Agent: \nX-Demo: \n\n")


def test_server_without_tls_behind_https(tool, serve):
    server = serve([b"no TLS here\r\n"])
    assert tool.request(f"https://127.0.0.1:{server.port}/") == Answer(b"35\n")
