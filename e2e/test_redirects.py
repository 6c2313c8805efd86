"""Redirects are followed, without a limit of the tool's own; the result is the last response's."""

import libcurl
import pytest
from conftest import ANSWERED, IS_STATIC, Answer
from scripted_server import RESPONSE, reply


def moved(status, location, body=b"moved"):
    return reply(status, body, f"Location: {location}")


def targets(server):
    return [request.split(b" ")[1] for request in server.requests]


@pytest.mark.parametrize("status", [301, 302, 303, 307, 308])
def test_redirect_is_followed_and_its_own_body_dropped(tool, serve, status):
    server = serve(moved(status, "/there"), reply(200, b"here"))
    assert tool.request(server.url + "/p|q=1||X-A: 1|Me") == Answer(b"200\nhere\n")
    assert targets(server) == [b"/p?q=1", b"/there"]
    assert all(b"\r\nUser-Agent: Me\r\n" in request and b"\r\nX-A: 1\r\n" in request for request in server.requests)


@pytest.mark.parametrize(
    "location, target", [("other", b"/a/other"), ("../up?x=1", b"/up?x=1"), ("/top", b"/top"), ("?q", b"/a/b?q")]
)
def test_relative_location(tool, serve, location, target):
    server = serve(moved(302, location), reply(200, b"here"))
    assert tool.request(server.url + "/a/b") == Answer(b"200\nhere\n")
    assert targets(server) == [b"/a/b", target]


@pytest.mark.parametrize("host, where", [("localhost", "another host"), ("127.0.0.1", "another port")])
def test_passwords_among_the_header_lines(tool, serve, host, where):
    there = serve(RESPONSE)
    here = serve(moved(302, f"http://{host}:{there.port}/"))
    passwords, other = b"Authorization: Bearer a\r\nCookie: b=c\r\n", b"Accept: */*\r\nX-Key: d\r\n"
    assert tool.request(f"{here.url}/|||Authorization: Bearer a\rCookie: b=c\rX-Key: d") == ANSWERED
    first, second = here.requests[0], there.requests[0]
    assert all(line in first for line in (passwords + other).splitlines())
    gone_along = passwords if libcurl.answer(f"passwords to {where}") else b""
    head = b"GET / HTTP/1.1\r\nHost: %s:%d\r\n" % (host.encode(), there.port)
    assert second == head + b"Accept: */*\r\n" + gone_along + b"X-Key: d\r\n\r\n"


@pytest.mark.parametrize("host, where", [("localhost", "another host"), ("127.0.0.1", "another port")])
def test_password_of_the_url(tool, serve, host, where):
    there = serve(RESPONSE)
    here = serve(moved(302, f"http://{host}:{there.port}/"))
    assert tool.request(f"http://u:p@127.0.0.1:{here.port}/") == ANSWERED
    assert b"\r\nAuthorization: Basic dTpw\r\n" in here.requests[0]
    assert (b"\r\nAuthorization:" in there.requests[0]) == libcurl.answer(f"URL's password to {where}")


def test_to_tls(tool, serve, make_certificate):
    there = serve(reply(200, b"safe"), tls_context=make_certificate("127.0.0.1").server_context)
    assert tool.request(serve(moved(301, there.url + "/x")).url) == Answer(b"200\nsafe\n")


def test_chain_of_25(tool, serve):
    hops = [moved(302, f"/{hop}") for hop in range(1, 26)]
    server = serve(*hops, reply(200, b"the end"))
    assert tool.request(server.url + "/0") == Answer(b"200\nthe end\n")
    assert targets(server) == [b"/%d" % hop for hop in range(26)]


def test_to_a_missing_page(tool, serve):
    server = serve(moved(302, "/gone"), reply(404, b"no such page"))
    assert tool.request(server.url) == Answer(b"404\nno such page\n")


def test_without_a_location_the_redirect_is_the_answer(tool, serve):
    assert tool.request(serve(reply(302, b"nowhere")).url) == Answer(b"302\nnowhere\n")


def test_to_ftp(tool, serve, refusing):
    """The static executable's libcurl has no FTP."""
    server = serve(moved(302, f"ftp://{refusing}"))
    assert tool.request(server.url) == Answer(b"1\n" if IS_STATIC else b"7\n")


def test_to_gopher(tool, serve, refusing):
    server = serve(moved(302, f"gopher://{refusing}"))
    assert tool.request(server.url) == Answer(libcurl.answer("redirect to gopher"))


def test_to_a_scheme_that_redirects_may_not_enter(tool, serve, tmp_path):
    (tmp_path / "secret").write_text("secret")
    assert tool.request(serve(moved(302, f"file://{tmp_path}/secret")).url) == Answer(b"1\n")


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
    server = serve(reply(302, b"", "Location: /next", header_line), RESPONSE)
    assert tool.request(server.url) == ANSWERED
    assert server.requests == [server.get(), server.get(b"/next")]
