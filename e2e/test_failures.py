"""Requests that no server answers: libcurl's error code is the result, and there is no body."""

import resource

import libcurl
import pytest
from conftest import IS_SANITIZED, Answer, impossible_on_macos
from scripted_server import reply

NO_SUCH_HOST = "a" * 64 + ".invalid"  # a label longer than names may have: no resolver is asked


@pytest.mark.parametrize(
    "url, printed",
    [
        ("foo://127.0.0.1/", b"1\n"),
        ("nonsense://127.0.0.1/", libcurl.answer("nonsense://127.0.0.1/")),
        ("http://", b"3\n"),
        ("http://a b/", libcurl.answer("http://a b/")),
        ("http://127.0.0.1:99999/", b"3\n"),
        ("http://[::1/", b"3\n"),
        ("http://[x/", libcurl.answer("http://[x/")),
        (f"http://{NO_SUCH_HOST}/", b"6\n"),
        ("file:///no/such/file", b"37\n"),
    ],
)
def test_url_that_leads_nowhere(tool, url, printed):
    assert tool.request(url) == Answer(printed)


def test_space_in_the_path(tool, serve):
    assert tool.request(serve(reply(200, b"ok")).url + "/a b") == Answer(libcurl.answer("space in the path"))


def test_connection_refused(tool, refusing):
    assert tool.request(f"http://{refusing}") == Answer(b"7\n")


def test_file_has_no_status(tool, tmp_path):
    (tmp_path / "local").write_bytes(b"a\0b")
    assert tool.request(f"file://{tmp_path}/local") == Answer(b"0\na\0b\n")


def test_empty_file_has_neither_status_nor_body(tool, tmp_path):
    (tmp_path / "local").write_bytes(b"")
    assert tool.request(f"file://{tmp_path}/local") == Answer(b"0\n")


def test_folder(tool, tmp_path):
    (tmp_path / "file").write_bytes(b"")
    assert tool.request(f"file://{tmp_path}") == Answer(libcurl.answer("file:// on a folder"))


def limit_address_space(mebibytes):
    limit = mebibytes << 20
    return lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit))


has_room = pytest.mark.skipif(IS_SANITIZED, reason="the sanitizers need terabytes of address space")
has_limit = impossible_on_macos("no limit to the address space")


@has_room
@has_limit
@pytest.mark.parametrize("mebibytes", [300, 1100, 3400])
@pytest.mark.parametrize("scheme", ["http", "https"])
def test_scarce_address_space_suffices(tool, nginx, mebibytes, scheme):
    url = {"http": nginx.http_url, "https": nginx.https_url}[scheme].replace("127.0.0.1", "localhost")
    answer = tool.request(f"{url}/echo|||||30000", preexec_fn=limit_address_space(mebibytes))
    assert answer.stdout.startswith(b"200\nHTTP/")
    assert answer == answer._replace(stderr=b"", status=0)
