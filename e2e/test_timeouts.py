"""A TIMEOUT of t milliseconds becomes whole seconds: t/1000 for connecting, t/500 for the whole request.

The unit tests pin the numbers that libcurl gets; these cases show that they take effect. On a busy machine a run may
last longer than its time-out: its upper bound is another run, started before it, that has to end after it.
"""

import contextlib
import shutil
import subprocess
import sys
import time

import libcurl
import own_network
import pytest
from conftest import ENVIRONMENT, IS_STATIC, Answer, impossible_on_macos, impossible_under_translator, unless
from scripted_server import AWAIT_CLOSE, READ_REQUEST, OK, pause, reply

HALF_A_BODY = OK + b"Content-Length: 10\r\n\r\nhalf\0"

# TIMEOUT, seconds for connecting, seconds for the whole request.
ROUNDING = [("2000", 2, 4), ("", 2, 4), ("1500", 1, 3), ("999", None, 1), (" +1999x", 1, 3)]
NO_TIME_OUT = ["499", "-1000"]


@contextlib.contextmanager
def timed(at_least):
    start = time.monotonic()
    yield
    assert time.monotonic() - start >= at_least


@contextlib.contextmanager
def silent_listener():
    """A port on which connecting gets no answer."""
    listener, connection = own_network.silent_sockets("127.0.0.1", 0)
    with listener, connection:
        yield listener.getsockname()[1]


@pytest.mark.parametrize("text, _, seconds", ROUNDING)
def test_whole_request_times_out_and_keeps_what_arrived(tool, serve, text, _, seconds):
    server = serve([READ_REQUEST, HALF_A_BODY, AWAIT_CLOSE])
    with timed(at_least=seconds):
        assert tool.request(f"{server.url}|||||{text}") == Answer(b"28\nhalf\0\n")


@impossible_on_macos("a full queue refuses connections")
@pytest.mark.parametrize("text, seconds, total", ROUNDING)
def test_connecting_times_out_by_itself(tool, serve, text, seconds, total):
    connects = [tool.path, "-web", f"{serve([AWAIT_CLOSE]).url}|||||{text}"]
    with silent_listener() as port, tool.start(connects) as process, timed(seconds or total):
        assert tool.request(f"http://127.0.0.1:{port}/|||||{text}") == Answer(b"28\n")
        assert process.poll() is None or seconds is None


@pytest.mark.parametrize("text", NO_TIME_OUT)
def test_text_without_a_time_out_waits_longer_than_the_default(tool, serve, text):
    server = serve([READ_REQUEST, pause(4.5), reply(200, b"late")])
    assert tool.request(f"{server.url}|||||{text}") == Answer(b"200\nlate\n")


def test_slow_answer_within_the_time_out(tool, serve):
    server = serve([READ_REQUEST, HALF_A_BODY, pause(1.5), b"whole"])
    assert tool.request(f"{server.url}|||||1000") == Answer(b"200\nhalf\0whole\n")


preloads = unless(sys.platform != "linux" or IS_STATIC, "faketime preloads a library")
needs_own_clock = impossible_under_translator("faketime doesn't make the clock faster")
needs_faketime = pytest.mark.skipif(not shutil.which("faketime"), reason="no faketime here")

UNDER_FAKETIME = {**ENVIRONMENT, "ASAN_OPTIONS": "verify_asan_link_order=0"}  # its library precedes asan's


def hurried(tool, description, speed):
    """A command that runs the tool on a clock that goes so many times as fast. Killed, it would leave files behind."""
    return ["faketime", "-f", f"+0 x{speed}", tool.path, "-web", description]


@needs_faketime
@needs_own_clock
@preloads
def test_30_seconds_for_connecting_and_60_for_the_whole_request(tool, serve):
    server = serve([READ_REQUEST, HALF_A_BODY, AWAIT_CLOSE])
    whole = hurried(tool, f"{server.url}|||||30000", speed=20)
    with silent_listener() as port, timed(60 / 20), tool.start(whole, env=UNDER_FAKETIME) as process:
        connecting = hurried(tool, f"http://127.0.0.1:{port}/|||||30000", speed=20)
        with timed(30 / 20):
            assert tool.run_command(connecting, env=UNDER_FAKETIME) == Answer(b"28\n")
        assert process.poll() is None
        assert process.communicate() == (b"28\nhalf\0\n", b"")


@needs_faketime
@needs_own_clock
@preloads
def test_negative_time_out_on_a_silent_server(tool):
    printed = libcurl.answer("negative time-out")
    with contextlib.ExitStack() as listening:
        port = listening.enter_context(silent_listener())
        command = hurried(tool, f"http://127.0.0.1:{port}/|||||-1000", speed=100)
        with timed(0 if printed is None else 300 / 100), tool.start(command, env=UNDER_FAKETIME) as process:
            if printed is None:
                with pytest.raises(subprocess.TimeoutExpired):
                    process.communicate(timeout=600 / 100)
                listening.close()  # from now on the port refuses connections
            assert process.communicate() == (printed or b"7\n", b"")
