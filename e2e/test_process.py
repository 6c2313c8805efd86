"""A run as the system sees it: how much memory it takes, what it does when there is little, how a signal ends it."""

import os
import pathlib
import re
import resource
import signal
import threading

import pytest
from conftest import IS_SANITIZED, Answer, impossible_on_macos, impossible_under_translator, unless
from scripted_server import AWAIT_CLOSE, OK, READ_REQUEST, RESPONSE


def limit_address_space(mebibytes):
    limit = mebibytes << 20
    return lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit))


has_room = unless(IS_SANITIZED, "the sanitizers need terabytes of address space")
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


@has_room
@has_limit
def test_body_that_outgrows_the_address_space(tool, tmp_path):
    """What has arrived is delivered: a body of 300 MiB, whose mebibytes begin with their numbers."""
    with open("body", "w+b") as body:
        for number in range(300):
            body.seek(number << 20)
            body.write(b"%d" % number)
        body.truncate(300 << 20)
        answer = tool.request(f"file://{tmp_path}/body", preexec_fn=limit_address_space(300))
        size = len(answer.stdout) - len(b"23\n\n")
        body.seek(0)
        is_exact = answer == Answer(b"23\n" + body.read(size) + b"\n")
    assert is_exact and size > 1 << 20


@unless(IS_SANITIZED, "the sanitizers need memory")
@impossible_on_macos("no /proc")
@impossible_under_translator("it takes memory itself")
def test_small_body_takes_little_memory(tool, tmp_path, serve):
    """Up to the opening of the output file, a FIFO that nobody reads yet."""
    os.mkfifo(tmp_path / "fifo")
    with tool.start([tool.path, "-web", f"{serve(RESPONSE).url}||||||fifo"]) as process:
        assert process.stdout.readline() == b"200\n"
        status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        assert tool.run_command(["cat", "fifo"]) == Answer(b"ok")
    assert int(re.search(r"^VmHWM:\s*(\d+) kB$", status, re.MULTILINE)[1]) < 32 << 10


def test_signal_ends_a_run_that_waits(tool, serve):
    waits = threading.Event()
    server = serve([READ_REQUEST, OK + b"Content-Length: 10\r\n\r\nhalf", lambda _: waits.set(), AWAIT_CLOSE])
    with tool.start([tool.path, "-web", f"{server.url}|||||60000"]) as process:
        assert waits.wait(60)
        process.terminate()
        assert (*process.communicate(), process.returncode) == Answer(b"", status=-signal.SIGTERM)
