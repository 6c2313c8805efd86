"""Standard output: what it gets, and what becomes of a run when it can't be written."""

import contextlib
import os
import pathlib
import socket
import threading
import tty

import pytest
from conftest import Answer, impossible_on_macos
from nginx import Nginx
from scripted_server import reply

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


def through_pipe(tool, description):
    return tool.request(description).stdout


def through_file(tool, description):
    with open("stdout", "w+b") as file:
        assert tool.request(description, stdout=file) == Answer(None)
        file.seek(0)
        return file.read()


def read_until_closed(terminal, received):
    with contextlib.suppress(OSError):  # how Linux reports its end
        while part := os.read(terminal, 1 << 20):
            received += part


def through_terminal(tool, description):
    """A terminal that leaves line feeds alone."""
    ours, theirs = os.openpty()
    tty.setraw(theirs)
    received = bytearray()
    thread = threading.Thread(target=read_until_closed, args=[ours, received])
    thread.start()
    try:
        assert tool.request(description, stdout=theirs) == Answer(None)
    finally:
        os.close(theirs)
        thread.join()
        os.close(ours)
    return received


def through_output_file(tool, description):
    """The result line and the file, put together as standard output has them."""
    return tool.request(f"{description}||||||out").stdout + pathlib.Path("out").read_bytes() + b"\n"


@pytest.mark.parametrize(
    "receive, powers",
    [
        (through_pipe, range(21)),
        (through_file, [16, 20]),
        (through_terminal, [16, 20]),
        (through_output_file, [16, 20]),
    ],
)
def test_sizes_around_powers_of_2(tool, serve, receive, powers):
    """Bodies that end in LF, CR and CR LF by turns."""
    for power in powers:
        for more in (-1, 0, 1):
            size = (1 << power) + more
            end = (b"\n", b"\r", b"\r\n")[(power + more) % 3]
            body = ((bytes(range(251)) * (size // 251 + 1))[:size] + end)[-size:] if size else b""
            answer = receive(tool, serve(reply(200, body)).url)
            assert answer == b"200\n" + body + b"\n" * (size > 0), size


@pytest.mark.parametrize("flags", [0, os.O_APPEND])
def test_output_comes_behind_the_callers_own_and_before_what_follows(tool, url, flags):
    with open(os.open("out", os.O_RDWR | os.O_CREAT | flags), "w+b", buffering=0) as file:
        file.write(b"before\n")
        assert tool.request(url, stdout=file) == Answer(None)
        file.write(b"behind\n")
        file.seek(0)
        assert file.read() == b"before\n200\n" + BODY + b"\nbehind\n"


def test_file_of_50_mb(tool, tmp_path, large, large_url):
    assert tool.request(f"{large_url}||||||out") == Answer(b"200\n")
    assert (tmp_path / "out").read_bytes() == large


def test_standard_output_of_50_mb(tool, large, large_url):
    assert tool.request(large_url) == Answer(b"200\n" + large + b"\n")


@pytest.mark.parametrize("blocking", [True, False])
def test_reader_that_takes_the_result_line_and_goes(tool, large_url, blocking):
    """The body doesn't fit into the pipe: were it written first, the line would not be there yet."""
    reader, writer = os.pipe()
    os.set_blocking(writer, blocking)
    with tool.start([tool.path, "-web", large_url], stdout=writer) as process:
        os.close(writer)
        assert os.read(reader, 4) == b"200\n"
        os.close(reader)
        assert (process.stderr.read(), process.wait()) == (b"", 0)


@pytest.mark.parametrize("closed", [(0,), (1,), (2,), (0, 1), (1, 2), (0, 2), (0, 1, 2)])
def test_closed_standard_descriptors(tool, tmp_path, serve, closed):
    """The answer goes where it belongs and nowhere else; fuzz/command_line.cpp says what is opened in their place."""
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
