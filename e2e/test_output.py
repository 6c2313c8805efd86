"""Where the body goes, and what becomes of a run whose output can't be written."""

import os
import socket
import threading

import pytest
from conftest import Answer, impossible_on_macos
from nginx import Nginx
from scripted_server import OK, reply

needs_full = impossible_on_macos("no /dev/full")

BODY = b"a body\0with NUL"


@pytest.fixture
def url(serve):
    return serve(reply(200, BODY)).url


@pytest.fixture(scope="session")
def large():
    """50 MB of every byte value."""
    return bytes(range(256)) * 195_313


@pytest.fixture(scope="session")
def large_url(large, tmp_path_factory):
    root = tmp_path_factory.mktemp("site")
    (root / "large").write_bytes(large)
    with Nginx(root) as server:
        yield server.http_url + "/large"


def test_file_receives_the_exact_body(tool, tmp_path, url):
    assert tool.request(f"{url}||||||out.txt") == Answer(b"200\n")
    assert (tmp_path / "out.txt").read_bytes() == BODY


def test_absolute_path_with_blanks_inside(tool, tmp_path, url):
    assert tool.request(f"{url}|||||| {tmp_path}/my  out \t") == Answer(b"200\n")
    assert (tmp_path / "my  out").read_bytes() == BODY


@impossible_on_macos("file systems refuse such names")
def test_name_that_is_no_utf8(tool, tmp_path, url):
    assert tool.request(url.encode() + b"||||||\xff\xfe") == Answer(b"200\n")
    assert [os.fsencode(path.name) for path in tmp_path.iterdir()] == [b"\xff\xfe"]


def test_longer_file_is_truncated(tool, tmp_path, url):
    (tmp_path / "out.txt").write_bytes(b"x" * 1000)
    assert tool.request(f"{url}||||||out.txt") == Answer(b"200\n")
    assert (tmp_path / "out.txt").read_bytes() == BODY


def test_file_with_two_names_is_the_same_file_afterwards(tool, tmp_path, url):
    (tmp_path / "out.txt").write_bytes(b"former")
    os.link(tmp_path / "out.txt", tmp_path / "other name")
    assert tool.request(f"{url}||||||out.txt") == Answer(b"200\n")
    assert (tmp_path / "other name").read_bytes() == BODY


@pytest.mark.parametrize("umask, mode", [(0o000, 0o666), (0o027, 0o640)])
def test_new_file_has_the_mode_that_the_mask_leaves(tool, tmp_path, url, umask, mode):
    assert tool.request(f"{url}||||||out.txt", umask=umask) == Answer(b"200\n")
    assert (tmp_path / "out.txt").stat().st_mode & 0o777 == mode


def test_file_of_50_mb(tool, tmp_path, large, large_url):
    assert tool.request(f"{large_url}||||||out") == Answer(b"200\n")
    assert (tmp_path / "out").read_bytes() == large


def test_standard_output_of_50_mb(tool, large, large_url):
    assert tool.request(large_url) == Answer(b"200\n" + large + b"\n")


@pytest.mark.parametrize("before", [None, b"former contents"])
def test_empty_response_leaves_an_empty_file(tool, tmp_path, serve, before):
    if before:
        (tmp_path / "out.txt").write_bytes(before)
    assert tool.request(f"{serve(reply(204)).url}||||||out.txt") == Answer(b"204\n")
    assert (tmp_path / "out.txt").read_bytes() == b""


def test_failed_request_truncates_the_file_too(tool, tmp_path):
    (tmp_path / "out.txt").write_bytes(b"former contents")
    assert tool.request("http://||||||out.txt") == Answer(b"3\n")
    assert (tmp_path / "out.txt").read_bytes() == b""


def test_partial_body_of_a_failed_request_is_delivered(tool, tmp_path, serve):
    server = serve(OK + b"Content-Length: 10\r\n\r\nhalf")
    assert tool.request(f"{server.url}||||||out.txt") == Answer(b"18\n")
    assert (tmp_path / "out.txt").read_bytes() == b"half"


@pytest.mark.parametrize("path", ["missing/out.txt", ".", pytest.param("/dev/full", marks=needs_full), "x" * 300])
def test_file_that_cannot_be_written_is_skipped(tool, url, path):
    assert tool.request(f"{url}||||||{path}") == Answer(b"200\n")


def test_standard_output_as_the_file_gets_the_body_without_a_line_feed(tool, url):
    assert tool.request(f"{url}||||||/dev/stdout") == Answer(b"200\n" + BODY)


def test_result_line_comes_before_the_file_is_touched(tool, tmp_path, url):
    """The output file is a FIFO, which the tool can't open before this test reads from it."""
    os.mkfifo(tmp_path / "fifo")
    with tool.start([tool.path, "-web", f"{url}||||||fifo"]) as process:
        assert process.stdout.readline() == b"200\n"
        assert (tmp_path / "fifo").read_bytes() == BODY
        assert (*process.communicate(), process.returncode) == Answer(b"")


def test_result_line_comes_before_the_body_is_taken(tool, large_url):
    """The body doesn't fit into the pipe: were it written first, the line would not be there yet."""
    with tool.start([tool.path, "-web", large_url]) as process:
        assert process.stdout.readline() == b"200\n"
        process.stdout.close()
        assert (process.stderr.read(), process.wait()) == (b"", 0)


@pytest.mark.parametrize("closed", [(0,), (1,), (2,), (0, 1), (1, 2), (0, 2), (0, 1, 2)])
def test_closed_standard_descriptors(tool, tmp_path, serve, closed):
    """The answer goes where it belongs and nowhere else; unit tests check which descriptors are open by then."""
    server = serve(reply(200, BODY))
    redirections = " ".join(f"{descriptor}>&-" for descriptor in closed)
    command = ["sh", "-c", f'exec "$@" {redirections}', "sh", tool.path, "-web", f"{server.url}||||||out.txt"]
    assert tool.run_command(command) == Answer(b"" if 1 in closed else b"200\n")
    assert (tmp_path / "out.txt").read_bytes() == BODY
    assert server.requests == [server.get()]


def test_usage_with_closed_standard_output(tool):
    assert tool.run_command(["sh", "-c", 'exec "$@" >&-', "sh", tool.path]) == Answer(b"", status=255)


@needs_full
def test_full_standard_output(tool, tmp_path, serve):
    server = serve(reply(200, BODY), reply(200, BODY))
    with open("/dev/full", "wb") as full:
        assert tool.request(server.url, stdout=full) == Answer(None)
        assert tool.request(f"{server.url}||||||out.txt", stdout=full) == Answer(None)
        assert tool.run(stdout=full) == Answer(None, status=255)
    assert (tmp_path / "out.txt").read_bytes() == BODY


def test_reader_that_went_away_costs_neither_file_nor_status(tool, tmp_path, serve):
    server = serve(reply(200, BODY), reply(200, BODY))
    reader, writer = os.pipe()
    os.close(reader)
    with open(writer, "wb") as gone:
        assert tool.request(server.url, stdout=gone) == Answer(None)
        assert tool.request(f"{server.url}||||||out.txt", stdout=gone) == Answer(None)
        assert tool.run(stdout=gone) == Answer(None, status=255)
    assert (tmp_path / "out.txt").read_bytes() == BODY


def test_non_blocking_standard_output_loses_nothing(tool, large, large_url):
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    received = bytearray()
    with open(reader, "rb") as pipe:
        thread = threading.Thread(target=lambda: received.extend(pipe.read()))
        thread.start()
        with open(writer, "wb") as non_blocking:
            assert tool.request(large_url, stdout=non_blocking) == Answer(None)
        thread.join()
    assert received == b"200\n" + large + b"\n"


def test_nothing_is_read_from_standard_input(tool, url):
    with socket.socketpair()[0] as silent:  # a read from it would wait for ever
        assert tool.request(url, stdin=silent) == Answer(b"200\n" + BODY + b"\n")
