"""No certificate is refused: each of these fails a client that verifies, and none fails the tool."""

import socket
import ssl

import pytest
from conftest import Answer
from scripted_server import reply

# Of OpenSSL's X509_V_ERR_...
NOT_YET_VALID, EXPIRED, SELF_SIGNED, HOST_NAME_MISMATCH = 9, 10, 18, 62


def reason_to_refuse(port, trusted):
    """Why a verifying client that trusts this certificate file refuses the server: OpenSSL's code, or None."""
    context = ssl.create_default_context(cafile=trusted)
    with socket.create_connection(("127.0.0.1", port)) as connection:
        try:
            context.wrap_socket(connection, server_hostname="localhost").close()
        except ssl.SSLCertVerificationError as error:
            return error.verify_code
    return None


@pytest.fixture
def check(tool, serve):
    """Has a verifying client and the tool ask a server; returns the client's reason to refuse it."""

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
    assert check(make_certificate("localhost"), trusted=None) == SELF_SIGNED


def test_expired_certificate(check, make_certificate):
    certificate = make_certificate("localhost", first_day=-9, last_day=-2)
    assert check(certificate, trusted=certificate.path) == EXPIRED


def test_certificate_that_is_not_valid_yet(check, make_certificate):
    certificate = make_certificate("localhost", first_day=+2, last_day=+9)
    assert check(certificate, trusted=certificate.path) == NOT_YET_VALID


def test_certificate_for_another_name(check, make_certificate):
    certificate = make_certificate("another.invalid")
    assert check(certificate, trusted=certificate.path) == HOST_NAME_MISMATCH


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_each_version_of_tls(tool, serve, make_certificate, version):
    context = make_certificate("localhost").server_context
    context.minimum_version = context.maximum_version = version
    server = serve(reply(200, b"body"), tls_context=context)
    assert tool.request(f"https://localhost:{server.port}/") == Answer(b"200\nbody\n")


def test_server_without_tls_behind_https(tool, serve):
    server = serve([b"no TLS here\r\n"])
    assert tool.request(f"https://127.0.0.1:{server.port}/") == Answer(b"35\n")
