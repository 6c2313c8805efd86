"""A TIMEOUT of t milliseconds becomes whole seconds: t/1000 for connecting, t/500 for the whole request.

The unit tests pin the numbers that libcurl gets; these cases show that they take effect. A run may last longer than
its time-out on a busy machine, so the upper bounds are wide: connecting ends before the whole request would.
"""

import contextlib
import functools
import select
import shutil
import socket
import subprocess
import sys
import time

import libcurl
import pytest
from conftest import ENVIRONMENT, IS_SANITIZED, IS_STATIC, Answer, impossible_under_translator, preloading
from scripted_server import AWAIT_CLOSE, READ_REQUEST, OK, pause, reply

HALF_A_BODY = OK + b"Content-Length: 10\r\n\r\nhalf\0"

# TIMEOUT, seconds for connecting, seconds for the whole request.
ROUNDING = [("2000", 2, 4), ("", 2, 4), ("1500", 1, 3), ("999", None, 1), (" +1999x", 1, 3)]
NO_TIME_OUT = ["499", "0", "abc", "30s", "-1000", "-1", "x5000"]


@contextlib.contextmanager
def timed(at_least, below=60):
    start = time.monotonic()
    yield
    seconds = time.monotonic() - start
    assert at_least <= seconds
    assert seconds < below or IS_SANITIZED


@contextlib.contextmanager
def silent_listener():
    """A port on which connecting gets no answer: one connection fills its queue, and nobody accepts."""
    with socket.create_server(("127.0.0.1", 0), backlog=0) as listener:
        with socket.create_connection(listener.getsockname()):
            select.select([listener], [], [])  # the connection is in the queue
            yield listener.getsockname()[1]


@pytest.mark.parametrize("text, _, seconds", ROUNDING)
def test_whole_request_times_out_and_keeps_what_arrived(tool, serve, text, _, seconds):
    server = serve([READ_REQUEST, HALF_A_BODY, AWAIT_CLOSE])
    with timed(at_least=seconds):
        assert tool.request(f"{server.url}|||||{text}") == Answer(b"28\nhalf\0\n")


@pytest.mark.skipif(sys.platform == "darwin", reason="a full queue refuses connections there")
@pytest.mark.parametrize("text, seconds, total", ROUNDING)
def test_connecting_times_out_by_itself(tool, text, seconds, total):
    with silent_listener() as port, timed(seconds or total, below=total if seconds else 60):
        assert tool.request(f"http://127.0.0.1:{port}/|||||{text}") == Answer(b"28\n")


@pytest.mark.parametrize("text", NO_TIME_OUT)
def test_text_without_a_time_out_waits_longer_than_the_default(tool, serve, text):
    server = serve([READ_REQUEST, pause(4.5), reply(200, b"late")])
    assert tool.request(f"{server.url}|||||{text}") == Answer(b"200\nlate\n")


def test_slow_answer_within_the_time_out(tool, serve):
    server = serve([READ_REQUEST, HALF_A_BODY, pause(1.5), b"whole"])
    assert tool.request(f"{server.url}|||||1000") == Answer(b"200\nhalf\0whole\n")


@pytest.mark.skipif(sys.platform != "linux" or IS_STATIC, reason="preloads a library")
def test_resolver_that_hangs_for_4_seconds(tool):
    """The result is a time-out's, but newer versions of libcurl wait until their resolver's thread gives up."""
    environment = {**ENVIRONMENT, **preloading("hanging_resolver"), "ASAN_OPTIONS": "verify_asan_link_order=0"}
    with timed(at_least=4) if libcurl.answer("hanging resolver") else timed(at_least=1, below=4):
        assert tool.request("http://host.invalid/|||||999", env=environment) == Answer(b"28\n")


needs_faketime = pytest.mark.skipif(
    IS_STATIC or not shutil.which("faketime"),
    reason="faketime preloads a library: none here, or the executable is static",
)
needs_own_clock = impossible_under_translator("faketime doesn't make the clock faster")


@pytest.fixture
def hurried(tool):
    """Runs the tool on a clock that goes so many times as fast."""

    def request(description, speed=20, **options):
        environment = {**ENVIRONMENT, "ASAN_OPTIONS": "verify_asan_link_order=0"}  # faketime's library precedes asan's
        command = ["faketime", "-f", f"+0 x{speed}", tool.path, "-web", description]
        return tool.run_command(command, env=environment, **options)

    return request


@needs_faketime
@needs_own_clock
def test_30_seconds_for_connecting(hurried):
    with silent_listener() as port, timed(at_least=30 / 20, below=60 / 20):
        assert hurried(f"http://127.0.0.1:{port}/|||||30000") == Answer(b"28\n")


@needs_faketime
@needs_own_clock
def test_60_seconds_for_the_whole_request(hurried, serve):
    server = serve([READ_REQUEST, HALF_A_BODY, AWAIT_CLOSE])
    with timed(at_least=60 / 20):
        assert hurried(f"{server.url}|||||30000") == Answer(b"28\nhalf\0\n")


@needs_faketime
@needs_own_clock
def test_negative_time_out_on_a_silent_server(hurried):
    printed = libcurl.answer("negative time-out")
    with silent_listener() as port:
        request = functools.partial(hurried, f"http://127.0.0.1:{port}/|||||-1000", speed=100)
        if printed:
            with timed(at_least=300 / 100):
                assert request() == Answer(printed)
        else:
            with pytest.raises(subprocess.TimeoutExpired):
                request(timeout=600 / 100)
