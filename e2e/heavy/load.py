"""3,000 runs, 64 at once. Run it by "scripts/check load"."""

import concurrent.futures
import os
import pathlib
import subprocess
import time

from conftest import Answer

RUNS = 3_000
AT_ONCE = 64


def open_descriptors(process):
    return len(list(pathlib.Path(f"/proc/{process}/fd").iterdir()))


def children(process):
    output = subprocess.run(["ps", "-o", "pid=", "--ppid", str(process)], stdout=subprocess.PIPE, check=False).stdout
    return [int(pid) for pid in output.split() if pathlib.Path(f"/proc/{int(pid)}/fd").exists()]


def steady(measure):
    """What is measured twice in a row."""
    value = measure()
    while (again := measure()) != value:
        value = again
        time.sleep(0.1)
    return value


def await_equal(measure, expected):
    """The server may still be closing its last connections."""
    deadline = time.monotonic() + 30
    while measure() != expected and time.monotonic() < deadline:
        time.sleep(0.1)
    assert measure() == expected


def test_every_answer_is_exact_and_nothing_is_left(tool, nginx):
    def request(number):
        answer = tool.request(f"{nginx.http_url}/echo|run={number}||X-Demo: {number}|agent {number}|30000")
        expected = f"HTTP/1.1 GET /echo?run={number}\nUser-Agent: agent {number}\nX-Demo: {number}\n\n"
        return answer == Answer(b"200\n" + expected.encode())

    def measure():
        workers = children(nginx.process_id)
        return (
            open_descriptors(os.getpid()),
            len(children(os.getpid())),
            [open_descriptors(worker) for worker in workers],
        )

    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        assert all(pool.map(request, range(AT_ONCE)))  # warms up
        before = steady(measure)
        assert list(pool.map(request, range(RUNS))).count(True) == RUNS
        await_equal(measure, before)
