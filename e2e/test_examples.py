"""The callers in examples/: each prints the exact body of an answer, and fails when the request does."""

import os
import re
import shutil
import subprocess

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


def has(program):
    return "FETCH_EXAMPLE" in os.environ if program == "c++" else shutil.which(program)


@pytest.fixture(scope="session", params=CALLERS)
def command(request, tmp_path_factory):
    if not has(request.param):
        pytest.skip(f"there is no {request.param} here")
    return CALLERS[request.param](tmp_path_factory.mktemp("caller"))


@pytest.fixture
def run(tool, tmp_path):
    """Runs a caller that finds the tool as "webreq"."""
    (tmp_path / "bin").mkdir()
    (tmp_path / "bin/webreq").symlink_to(tool.path)
    environment = {**ENVIRONMENT, "PATH": f"{tmp_path}/bin:{os.environ['PATH']}"}
    return lambda *command, variables=None: tool.run_command(command, env={**environment, **(variables or {})})


@pytest.mark.parametrize("body", BODIES, ids=lambda body: repr(body[:10]))
def test_body_arrives_unchanged(run, serve, command, body):
    assert run(*command, serve(reply(200, body)).url) == Answer(body)


def test_error_status_is_a_failure(run, serve, command):
    answer = run(*command, serve(reply(404, b"no such page")).url)
    assert answer == Answer(b"", b"fetch: the result is 404\n", 1)


def test_failed_transfer_is_a_failure(run, command):
    assert run(*command, "foo://127.0.0.1/") == Answer(b"", b"fetch: the result is 1\n", 1)


def test_no_argument_is_a_usage_error(run, command):
    assert run(*command) == Answer(b"", b"usage: fetch URL\n", 2)


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


@pytest.mark.parametrize("part", ["", "200\\n", "200\\nhalf"])
def test_tool_that_is_killed_is_a_failure(run, command, tmp_path, part):
    replace_tool(tmp_path, f"printf '{part}'; kill -KILL $$")
    answer = run(*command, "http://127.0.0.1/")
    assert answer.stdout == b"" and answer.stderr and answer.status != 0


def test_fan_out(run, nginx):
    answer = run(EXAMPLES / "fan-out.sh", nginx.http_url + "/page.html", "100", "4")
    assert re.fullmatch(rb" *100 200\n[1-9]\d* requests a second\n", answer.stdout), answer
    assert (answer.stderr, answer.status) == (b"", 0)


def test_fan_out_takes_a_long_url_with_bars(run, serve):
    server = serve(reply(200, b"body"))
    answer = run(EXAMPLES / "fan-out.sh", f"{server.url}/{'x' * 4000}|", "1", "1")
    assert (answer.stdout.splitlines()[0].split(), answer.stderr, answer.status) == ([b"1", b"200"], b"", 0)
    assert server.requests[0].startswith(b"GET /" + b"x" * 4000 + b"%7C?n=1 ")


def test_fan_out_without_a_url_is_a_usage_error(run):
    assert run(EXAMPLES / "fan-out.sh") == Answer(b"", b"usage: fan-out.sh URL [REQUESTS [PROCESSES]]\n", 2)


@pytest.fixture
def comma_locale(tmp_path):
    """Environment variables that make the decimal point a comma."""
    (tmp_path / "definition").write_text(
        'LC_NUMERIC\ndecimal_point ","\nthousands_sep ""\ngrouping -1\nEND LC_NUMERIC\n'
    )
    # Debian 13 has none without package locales.
    codes = "".join(f"<U{code:04X}> \\x{code:02x}\n" for code in range(128))
    (tmp_path / "ascii").write_text(f"CHARMAP\n{codes}END CHARMAP\n")
    command = ["localedef", "--force", "-f", tmp_path / "ascii", "-i", tmp_path / "definition", tmp_path / "comma"]
    if not shutil.which("localedef") or subprocess.run(command, capture_output=True, check=False).returncode > 1:
        pytest.skip("no locale can be made here")
    # With LOCPATH the C library loses some bytes, which the sanitizer of leaks would report.
    return {"LOCPATH": str(tmp_path), "LC_NUMERIC": "comma", "ASAN_OPTIONS": "detect_leaks=0"}


def test_fan_out_counts_in_any_locale(run, serve, comma_locale):
    answer = run(EXAMPLES / "fan-out.sh", serve(reply(200)).url, "1", variables=comma_locale)
    assert re.fullmatch(rb" *1 200\n[1-9]\d* requests a second\n", answer.stdout), answer


def test_fan_out_reports_a_missing_tool(run, tmp_path):
    for program in "awk bash mktemp rm seq sh sort uniq xargs".split():  # the PATH may have another webreq
        (tmp_path / "bin" / program).symlink_to(shutil.which(program))
    (tmp_path / "bin/webreq").unlink()
    answer = run(EXAMPLES / "fan-out.sh", "http://127.0.0.1/", "1", "1", variables={"PATH": f"{tmp_path}/bin"})
    assert b"webreq" in answer.stderr and answer.status != 0
