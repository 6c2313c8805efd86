"""Requests that no server answers: libcurl's error code is the result, and there is no body."""

import libcurl
import pytest
from conftest import Answer
from scripted_server import reply

NO_SUCH_HOST = "a" * 64 + ".invalid"  # a label longer than names may have: no resolver is asked


@pytest.mark.parametrize(
    "url, printed",
    [
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


@pytest.mark.parametrize("body, printed", [(b"a\0b", b"0\na\0b\n"), (b"", b"0\n")])
def test_file_has_no_status(tool, tmp_path, body, printed):
    (tmp_path / "local").write_bytes(body)
    assert tool.request(f"file://{tmp_path}/local") == Answer(printed)


def test_folder(tool, tmp_path):
    (tmp_path / "file").write_bytes(b"")
    assert tool.request(f"file://{tmp_path}") == Answer(libcurl.answer("file:// on a folder"))
