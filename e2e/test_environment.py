"""Variables and files around a run: the libraries read a few, the tool none."""

import os
import re
import ssl

import libcurl
import pytest
from conftest import ANSWERED, ENVIRONMENT, IS_STATIC, REPOSITORY, Answer, unless
from scripted_server import READ_REQUEST, RESPONSE, pause, reply

PROXIES = {
    "http": ["http_proxy", "all_proxy", "ALL_PROXY"],
    "https": ["https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"],
}
NO_PROXIES = ["no_proxy", "NO_PROXY"]


def test_each_variable_of_the_manual_page_has_a_test():
    documented = re.findall(r"^\.It Ev (.*)", (REPOSITORY / "docs/webreq.1").read_text(), re.MULTILINE)
    tested = {*PROXIES["http"], *PROXIES["https"], *NO_PROXIES, "SSLKEYLOGFILE", "OPENSSL_CONF"}
    tested |= {"LOCALDOMAIN", "RES_OPTIONS", "HOSTALIASES"}  # by test_resolver.py
    assert set(" , ".join(documented).split(" , ")) == tested


@pytest.mark.parametrize("name", PROXIES["http"])
def test_proxy_for_http(tool, serve, name):
    proxy = serve(RESPONSE)
    assert tool.request("http://192.0.2.7/", env={**ENVIRONMENT, name: proxy.url}) == ANSWERED
    head = b"GET http://192.0.2.7/ HTTP/1.1\r\nHost: 192.0.2.7\r\n"
    assert proxy.requests == [head + b"Accept: */*\r\nProxy-Connection: Keep-Alive\r\n\r\n"]


@pytest.mark.parametrize("name", PROXIES["https"])
def test_proxy_for_https(tool, serve, name):
    proxy = serve(reply(403))
    answer = tool.request("https://192.0.2.7/", env={**ENVIRONMENT, name: proxy.url})
    assert answer == Answer(libcurl.answer("refused tunnel"))
    assert proxy.requests[0].startswith(b"CONNECT 192.0.2.7:443 ")


@pytest.mark.parametrize("name", NO_PROXIES)
def test_no_proxy(tool, serve, name):
    environment = {**ENVIRONMENT, "http_proxy": "http://127.0.0.1:1", name: "127.0.0.1"}
    assert tool.request(serve(RESPONSE).url, env=environment) == ANSWERED


def test_variables_that_nothing_reads(tool, tmp_path, serve):
    """libcurl does not read HTTP_PROXY: for a CGI program, that is the header line "Proxy" of a request."""
    server = serve([READ_REQUEST, pause(1.5), RESPONSE])
    fields = {"URL": "x:", "PARAM": "x", "CMD": "p", "HEADER": "X-A: 1", "AGENT": "x", "TIMEOUT": "999", "OUTFILE": "x"}
    variables = {f"WEBREQ_{name}": value for name, value in fields.items()}
    assert tool.request(server.url, env={**ENVIRONMENT, "HTTP_PROXY": "http://127.0.0.1:1", **variables}) == ANSWERED
    assert server.requests == [server.get()]
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("name", [".webreqrc", ".config/webreqrc", ".curlrc", ".config/curlrc", ".netrc"])
def test_file_that_nothing_reads(tool, tmp_path, serve, name):
    """It is a FIFO: whoever opens it waits."""
    (tmp_path / name).parent.mkdir(exist_ok=True)
    os.mkfifo(tmp_path / name)
    server = serve(RESPONSE)
    assert tool.request(server.url, env={**ENVIRONMENT, "HOME": str(tmp_path)}) == ANSWERED
    assert server.requests == [server.get()]


def test_locale_that_knows_all_letters(tool, serve):
    """The tool stays in the locale "C": no such name becomes an ASCII one there."""
    proxy = serve(RESPONSE)
    environment = {**ENVIRONMENT, "LC_ALL": "C.UTF-8", "http_proxy": proxy.url}
    answer = tool.request("http://b\u00fccher.invalid/", env=environment)
    if libcurl.refuses_international_names():
        assert answer == Answer(b"3\n")
    else:
        assert answer == ANSWERED
        assert proxy.requests[0].startswith("GET http://b\u00fccher.invalid/ ".encode())


def test_file_for_tls_secrets(tool, tmp_path, serve, make_certificate):
    """Some builds of libcurl append them, all but the oldest those of TLS 1.2."""
    context = make_certificate("localhost").server_context
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    (tmp_path / "secrets").write_bytes(b"former\n")
    environment = {**ENVIRONMENT, "SSLKEYLOGFILE": str(tmp_path / "secrets")}
    assert tool.request(serve(RESPONSE, tls_context=context).url, env=environment) == ANSWERED
    secrets = rb"(CLIENT_RANDOM [\da-f]{64} [\da-f]{96}\n)" if libcurl.answer("appends TLS secrets") else b""
    assert re.fullmatch(b"former\n" + secrets, (tmp_path / "secrets").read_bytes(), re.IGNORECASE)


# A cipher that no server here has.
OPENSSL_CONF = """
openssl_conf = all
[all]
ssl_conf = ssl
[ssl]
system_default = tls
[tls]
CipherString = DHE-DSS-AES128-SHA
Ciphersuites =
"""


@unless(not IS_STATIC and libcurl.openssl_version() < (3, 0, 0), "another TLS library")
def test_configuration_of_openssl_is_the_systems_own_matter(tool, nginx, tmp_path):
    (tmp_path / "openssl.cnf").write_text(OPENSSL_CONF)
    answer = tool.request(
        nginx.https_url + "/empty", env={**ENVIRONMENT, "OPENSSL_CONF": str(tmp_path / "openssl.cnf")}
    )
    assert answer == Answer(b"204\n" if IS_STATIC else b"35\n")
