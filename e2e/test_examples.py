"""The callers in examples/: each prints the exact body of an answer, and fails when the request does."""

import os
import re
import shutil
import subprocess
import sys

import pytest
from conftest import ENVIRONMENT, REPOSITORY, Answer
from scripted_server import reply

EXAMPLES = REPOSITORY / "examples"

BODIES = [b"", b"body", b"\n", b"\0", b"\0a\nb\0\n\n", b"\n\nends with a line feed\n", bytes(range(256)) * 1000]


def compile_swift(folder):
    subprocess.run(["swiftc", EXAMPLES / "fetch.swift", "-o", folder / "fetch"], check=True)
    return [folder / "fetch"]


# How each is started; what has to be there for it. scripts/setup installs no Swift: Debian 12 has none, and 13's, the
# package swiftlang, takes 2 GB. With that one, 6.0.3, all cases have passed; on a Mac Xcode brings it.
CALLERS = {
    "sh": lambda _: ["sh", EXAMPLES / "fetch.sh"],
    "python3": lambda _: ["python3", EXAMPLES / "fetch.py"],
    "lua5.4": lambda _: ["lua5.4", EXAMPLES / "fetch.lua"],
    "node": lambda _: ["node", EXAMPLES / "fetch.mjs"],
    "c++": lambda _: [os.environ["FETCH_EXAMPLE"]],
    "swiftc": compile_swift,
}

OPTIONAL = ["node", "swiftc", *["lua5.4"] * (sys.platform == "darwin")]


def has(program):
    return "FETCH_EXAMPLE" in os.environ if program == "c++" else shutil.which(program)


@pytest.fixture(scope="session", params=CALLERS)
def command(request, tmp_path_factory):
    if not has(request.param):
        build = "not for this build: " if request.param in OPTIONAL else ""
        pytest.skip(f"{build}there is no {request.param} here")
    return CALLERS[request.param](tmp_path_factory.mktemp("caller"))


@pytest.fixture
def run(tool, tmp_path):
    """Runs a caller that finds the tool as "webreq"."""
    (tmp_path / "bin").mkdir()
    (tmp_path / "bin/webreq").symlink_to(tool.path)
    environment = {**ENVIRONMENT, "PATH": f"{tmp_path}/bin:{os.environ['PATH']}"}
    return lambda *command, **variables: tool.run_command(command, env={**environment, **variables})


@pytest.mark.parametrize("body", BODIES, ids=lambda body: repr(body[:10]))
def test_body_arrives_unchanged(run, serve, command, body):
    assert run(*command, serve(reply(200, body)).url) == Answer(body)


def test_error_status_is_a_failure(run, serve, command):
    answer = run(*command, serve(reply(404, b"no such page")).url)
    assert answer == Answer(b"", b"fetch: the result is 404\n", 1)


def test_failed_transfer_is_a_failure(run, command):
    assert run(*command, "foo://127.0.0.1/") == Answer(b"", b"fetch: the result is 1\n", 1)


def test_no_argument_is_a_usage_error(run, command):
    answer = run(*command)
    assert answer == Answer(b"", answer.stderr, 2) and answer.stderr.startswith(b"usage: fetch URL")


def test_a_bar_in_the_url_begins_no_field(run, serve, command, tmp_path):
    server = serve(reply(200, b"body"))
    assert run(*command, f"{server.url}/||||||{tmp_path}/out.txt") == Answer(b"body")
    assert server.requests[0].startswith(b"GET /%7C%7C%7C%7C%7C%7C")
    assert not (tmp_path / "out.txt").exists()


def test_quotes_in_the_url_are_sent(run, serve, command):
    server = serve(reply(200, b"body"))
    assert run(*command, f"{server.url}/'$(id)\"") == Answer(b"body")
    assert server.requests[0].startswith(b"GET /'$(id)\" HTTP/1.1\r\n")


def replace_tool(folder, script):
    (folder / "bin/webreq").unlink()
    (folder / "bin/webreq").write_text(f"#!/bin/sh\n{script}\n")
    (folder / "bin/webreq").chmod(0o755)


# Swift's Foundation leaves a descriptor of its own.
@pytest.mark.parametrize("command", [name for name in CALLERS if name != "swiftc"], indirect=True)
def test_tool_inherits_the_standard_descriptors_only(run, command, tmp_path):
    replace_tool(tmp_path, 'ls /dev/fd >"$0.descriptors"; echo 204')
    assert run(*command, "http://127.0.0.1/") == Answer(b"")
    assert (tmp_path / "bin/webreq.descriptors").read_text().split() == ["0", "1", "2", "3"]  # 3 is the folder listed


with_deadline = pytest.mark.parametrize("command", ["sh", "python3"], indirect=True)


@with_deadline
def test_header_lines_are_sent(run, serve, command):
    server = serve(reply(200, b"body"))
    assert run(*command, server.url, "60", "X-A: 1", "X-B:  2 ") == Answer(b"body")
    assert server.requests == [server.get(lines=b"Accept: */*\r\nX-A: 1\r\nX-B:  2\r\n")]


@pytest.mark.parametrize(
    "command, seconds, time_out",
    [("sh", [], "15000"), ("sh", ["60"], "30000"), ("python3", [], "15000"), ("python3", ["59.1"], "30000")],
    indirect=["command"],
)
def test_time_out_is_no_shorter_than_the_deadline(run, command, tmp_path, seconds, time_out):
    replace_tool(tmp_path, 'echo "$2" | cut -d "|" -f 6 >"$0.time-out"; echo 204')
    assert run(*command, "http://127.0.0.1/", *seconds) == Answer(b"")
    assert (tmp_path / "bin/webreq.time-out").read_text() == f"{time_out}\n"


@with_deadline
@pytest.mark.parametrize("character", "|\n\r")
def test_header_line_that_would_be_more_is_refused(run, command, character):
    answer = run(*command, "file:///dev/null", "4", "X-A: 1", f"X-B: 2{character}X-C: 3")
    assert answer == Answer(b"", b"fetch: a header line can't hold a bar or a line break\n", 1)


@with_deadline
def test_tool_ends_at_the_deadline(run, command, tmp_path):
    replace_tool(tmp_path, "exec sleep 600")
    assert run(*command, "http://127.0.0.1/", "1") == Answer(b"", b"fetch: no answer within 1 s\n", 1)


@pytest.mark.parametrize("part", ["", "200\\n", "200\\nhalf"])
def test_tool_that_is_killed_is_a_failure(run, command, tmp_path, part):
    replace_tool(tmp_path, f"printf '{part}'; kill -KILL $$")
    answer = run(*command, "http://127.0.0.1/")
    assert answer.stdout == b"" and answer.stderr and answer.status != 0


def test_fan_out(run, nginx):
    answer = run(EXAMPLES / "fan-out.sh", nginx.http_url + "/page.html", "100", "4")
    assert re.fullmatch(rb" *100 200\n100 requests in \d+ s\n", answer.stdout), answer
    assert (answer.stderr, answer.status) == (b"", 0)


def test_fan_out_takes_a_long_url_with_bars(run, serve):
    server = serve(reply(200, b"body"))
    answer = run(EXAMPLES / "fan-out.sh", f"{server.url}/{'x' * 4000}|", "1", "1")
    assert (answer.stdout.splitlines()[0].split(), answer.stderr, answer.status) == ([b"1", b"200"], b"", 0)
    assert server.requests[0].startswith(b"GET /" + b"x" * 4000 + b"%7C?n=1 ")


def test_fan_out_without_a_url_is_a_usage_error(run):
    assert run(EXAMPLES / "fan-out.sh") == Answer(b"", b"usage: fan-out.sh URL [REQUESTS [PROCESSES]]\n", 2)


def test_fan_out_reports_a_missing_tool(run, tmp_path):
    for program in "bash mktemp rm seq sh sort uniq xargs".split():  # the PATH may have another webreq
        (tmp_path / "bin" / program).symlink_to(shutil.which(program))
    (tmp_path / "bin/webreq").unlink()
    answer = run(EXAMPLES / "fan-out.sh", "http://127.0.0.1/", "1", "1", PATH=f"{tmp_path}/bin")
    assert b"webreq" in answer.stderr and answer.status != 0
