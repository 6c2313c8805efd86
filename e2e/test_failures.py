"""Requests that no server answers: libcurl's error code is the result, and there is no body."""

import pathlib
import resource
import socket
import sys

import pytest
from conftest import WEBREQ, Answer

NO_SUCH_HOST = "a" * 64 + ".invalid"  # a label longer than names may have: no resolver is asked


@pytest.mark.parametrize(
    "url, code",
    [
        ("foo://127.0.0.1/", 1),
        ("http://", 3),
        ("http://a b/", 3),
        ("http://127.0.0.1:99999/", 3),
        ("http://[::1/", 3),
        (f"http://{NO_SUCH_HOST}/", 6),
        ("file:///no/such/file", 37),
    ],
)
def test_url_that_leads_nowhere(tool, url, code):
    assert tool.request(url) == Answer(b"%d\n" % code)


def test_connection_refused(tool):
    with socket.socket() as bound:  # bound but not listening: nobody else can take the port
        bound.bind(("127.0.0.1", 0))
        assert tool.request(f"http://127.0.0.1:{bound.getsockname()[1]}/") == Answer(b"7\n")


def test_file_has_no_status(tool, tmp_path):
    (tmp_path / "local").write_bytes(b"a\0b")
    assert tool.request(f"file://{tmp_path}/local") == Answer(b"0\na\0b\n")


def test_empty_file_has_neither_status_nor_body(tool, tmp_path):
    (tmp_path / "local").write_bytes(b"")
    assert tool.request(f"file://{tmp_path}/local") == Answer(b"0\n")


def limit_address_space(mebibytes):
    limit = mebibytes << 20
    return lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit))


has_limits = pytest.mark.skipif(
    b"__asan_init" in pathlib.Path(WEBREQ).read_bytes() or sys.platform == "darwin",
    reason="the sanitizers need terabytes of address space, and macOS has no limit to it",
)


@has_limits
@pytest.mark.parametrize("mebibytes", [300, 1100, 3400])
@pytest.mark.parametrize("scheme", ["http", "https"])
def test_scarce_address_space_suffices(tool, nginx, mebibytes, scheme):
    url = {"http": nginx.http_url, "https": nginx.https_url}[scheme].replace("127.0.0.1", "localhost")
    answer = tool.request(f"{url}/echo", preexec_fn=limit_address_space(mebibytes))
    assert answer.stdout.startswith(b"200\nHTTP/")
    assert answer == answer._replace(stderr=b"", status=0)
