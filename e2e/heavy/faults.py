"""Every allocation of a whole run fails in turn, alone and with all that follow. Run it by "scripts/check faults".

build/<preset>/failing_malloc.so, preloaded, makes them fail from the beginning of main on: in the tool itself and in
all libraries that it calls. A static build has a second executable, linked with it.

$EVERY makes it a sample: the first 30 and the last 80, which have the tool's own, and every so many between them.
"""

import bisect
import concurrent.futures
import itertools
import os
import re
import signal
import subprocess
import sys

import libcurl
import name_server
import own_network
import pytest
from conftest import BUILD, ENVIRONMENT, IS_STATIC, TRANSLATOR, WEBREQ, Answer, only_static, preloading
from nginx import Nginx

LINKED = [*filter(None, [TRANSLATOR]), BUILD / "webreq_failing_malloc"]
PAGE = bytes(range(256)) * 400  # libcurl delivers it in several chunks

FIELDS = "|q=1|g|X-A: 1\rX-B:\\s2|Me/1.0|2000|"
LIMIT = 20  # seconds, after which a run hangs: the request has 4, all else takes milliseconds

EVERY = int(os.environ.get("EVERY", "1"))

# Failures that cost the answer: how the run ends, and the size of the allocation. None is the tool's.
ENDS = []
if libcurl.answer("no receive buffer, but a handle"):
    ENDS += [("crash", 16_385)]
# Its first two locks: OpenSSL 3.5 deadlocks reporting that it could not allocate them. A thread's data: it aborts.
if libcurl.openssl_version() >= (3, 5, 0):
    ENDS += [("hang", 56), ("hang", 56), ("abort", 240)]
# LibreSSL exits when it can't read its configuration. To free a table that couldn't grow, it reads beyond its end.
if libcurl.is_on_libressl() and libcurl.answer("configures LibreSSL"):
    of_asprintf = [100, 100] if os.confstr("CS_GNU_LIBC_VERSION") < "glibc 2.37" else [25]
    ENDS += [("abort", size) for size in [32, 40, 472, *of_asprintf]]
if libcurl.is_on_libressl() and libcurl.answer("cleans LibreSSL up"):
    ENDS += [("crash", 1024), ("crash", 2048)]


@pytest.fixture(name="page_url", scope="module")
def serve_page(tmp_path_factory):
    root = tmp_path_factory.mktemp("site")
    (root / "page").write_bytes(PAGE)
    with Nginx(root) as server:
        yield server.http_url + "/page"


def run_with_failures(tool, first, last, arguments, enter=()):
    """Returns the answer, None if the run hangs, and the size of allocation `first`, None if the run made fewer.
    `enter` begins the command."""
    reader, writer = os.pipe()
    failures = {"FAIL_FIRST": str(first), "FAIL_LAST": str(last), "FAIL_REPORT": str(writer)}
    if not IS_STATIC:
        failures |= preloading("failing_malloc")
    with open(reader, "rb") as report:
        command = [*enter, *(LINKED if IS_STATIC else [WEBREQ]), *arguments]
        try:
            answer = tool.run_command(command, env={**ENVIRONMENT, **failures}, pass_fds=[writer], timeout=LIMIT)
        except subprocess.TimeoutExpired:
            answer = None
        os.close(writer)
        size = report.read()
        return answer, int.from_bytes(size, sys.byteorder) if size else None


def count_allocations(tool, arguments, enter):
    """How many a run makes, give or take those that depend on how its answer arrives."""

    def makes_fewer(number):
        return run_with_failures(tool, number, number, arguments(number), enter)[1] is None

    return bisect.bisect_left(range(100_000), True, lo=1, key=makes_fewer) - 1


def end_without_answer(answer):
    """Names it, if it is one of those above."""
    if answer is None:
        return "hang"
    if answer == Answer(b"", status=-signal.SIGSEGV):
        return "crash"
    if answer.status == -signal.SIGABRT and b": OpenSSL internal error: " in answer.stderr and not answer.stdout:
        return "abort"
    if answer.status == 1 and re.match(rb"Auto configuration failed\n|\Z", answer.stderr) and not answer.stdout:
        return "abort"
    return None


def fail_each(tool, alone, arguments, check, enter=()):
    """Lets one allocation after the other fail; `check` takes each answer and the run's number."""

    def run(number):
        answer, size = run_with_failures(tool, number, number if alone else 10**9, arguments(number), enter)
        end = end_without_answer(answer)
        if end is None:
            check(answer, number)
        return end, size

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        total = count_allocations(tool, arguments, enter)
        numbers = [*range(1, 31), *range(31, total - 80, EVERY), *range(max(31, total - 80), total + 20)]
        failed = [(end, size) for end, size in pool.map(run, numbers) if size is not None]
    print(f"{len(failed)} allocations failed, each in a run of its own")
    assert 60 <= len(failed) < len(numbers)  # memory does run out; the last runs had nothing left to fail
    check_ends(failed, alone)


def check_ends(failed, alone):
    """Where all that follow fail, too, the failures before an abort's end in it as well: only the last one counts."""
    ends = [(end, size) for end, size in failed if end]
    if not alone:
        ends = [end for end, later in itertools.zip_longest(ends, ends[1:]) if end[0] != "abort" or later is None]
    if EVERY > 1:  # a sample may miss them, and of those that follow, too
        assert {end for end, _ in ends} <= {end for end, _ in ENDS}
    else:
        assert sorted(ends) == sorted(ENDS)


def result_and_body(output):
    """Takes a well-formed output apart; one result line, and nothing or a body with a line feed behind it."""
    result, body = re.fullmatch(rb"(-1|\d+)\n(?:(.+)\n)?", output, re.DOTALL).groups()
    return int(result), body or b""


alone_or_not = pytest.mark.parametrize("alone", [True, False], ids=["alone", "from then on"])


@alone_or_not
@pytest.mark.parametrize("in_a_file", [False, True], ids=["standard output", "file"])
def test_body(tool, tmp_path, page_url, in_a_file, alone):
    """A status stands for the whole body, everything else for what of it had arrived."""
    results = []

    def check(answer, number):
        assert answer[1:] == Answer(b"")[1:]
        result, body = result_and_body(answer.stdout)
        if in_a_file:
            assert body == b""
            output_file = tmp_path / str(number)
            body = output_file.read_bytes() if output_file.exists() else b""
            output_file.unlink(missing_ok=True)
        assert result in (-1, 200) or 0 < result <= 99
        assert body == PAGE if result == 200 else PAGE.startswith(body)
        results.append(result)

    def arguments(number):
        (tmp_path / str(number)).unlink(missing_ok=True)
        return ["-web", f"{page_url}{FIELDS}{number if in_a_file else ''}"]

    fail_each(tool, alone, arguments, check)
    assert 200 in results


BY_IPV4 = {"host.two.": ["A 127.0.0.1"], "host.three.": ["AAAA ::1"]}
BY_IPV6 = {"host.two.": ["AAAA ::1"], "host.three.": ["A 127.0.0.1"]}
SEARCHED = {"host.one.", "host.two.", "host."}  # c-ares goes on without the search domains when it can't read them


@only_static
@pytest.mark.skipif(not own_network.is_possible(), reason=own_network.REASON)
@pytest.mark.parametrize(
    "hosts, records, body, asked",
    [
        ("2001:db8::1 host\n127.0.0.1 host\n", BY_IPV6, b"127.0.0.1", set()),
        ("", BY_IPV4, b"127.0.0.1", SEARCHED),
        ("", BY_IPV6, b"::1", SEARCHED),
    ],
    ids=["hosts file", "IPv4", "IPv6"],
)
@alone_or_not
def test_name(tool, tmp_path, alone, hosts, records, body, asked):
    """For want of memory no other machine is found, nor is DNS asked for what the hosts file has. The C library's
    resolver does not hold out.

    The run ends within 2 seconds: then c-ares would crash if it has lost a query for want of memory.
    """
    results = []

    def check(answer, _):
        assert answer[1:] == Answer(b"")[1:]
        result, received = result_and_body(answer.stdout)
        assert received == body if result == 200 else result in range(-1, 100) and received in (b"", body)
        results.append(result)

    configuration = "search one two three\nnameserver 127.0.0.1\n"
    with name_server.start(
        tmp_path / "etc", name_server.zone(records), hosts=hosts, resolv_conf=configuration
    ) as network:
        fail_each(tool, alone, lambda _: ["-web", "http://host/|||||1500"], check, network.enter)
    assert 200 in results and {entry.split()[0] for entry in network.asked} <= asked
    if hosts:  # each question has an answer, of all addresses; libcurl alone does without the first ones
        assert results.count(28) == 0 and results.count(7) <= 1


def test_usage(tool):
    """It allocates nothing."""
    assert run_with_failures(tool, 1, 10**9, []) == (tool.run(), None)
