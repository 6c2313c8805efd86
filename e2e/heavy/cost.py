"""What a run costs, in counts that are the same on a busy machine: instructions, page faults, waits. Run it by
"scripts/check valgrind". build/release/idle_libcurl.so is in libcurl's place: the cost is the tool's own."""

import ctypes
import mmap
import os
import re
import signal
import subprocess
import threading

import pytest
from conftest import ENVIRONMENT, WEBREQ, preloading

LOADED = ENVIRONMENT | preloading("idle_libcurl")


def instructions(description):
    """From main on."""
    counting = ["valgrind", "--tool=callgrind", "--toggle-collect=main", "--callgrind-out-file=/dev/null"]
    command = [*counting, WEBREQ, "-web", description]
    done = subprocess.run(command, env=LOADED, capture_output=True, text=True, check=True, timeout=60)
    assert done.stdout.startswith("200\n")
    return int(re.search(r"Collected : (\d+)", done.stderr)[1])


def faults_and_waits(description):
    """Of the whole run, the loader's page faults included."""
    assert ctypes.CDLL(None).prctl(41, 1, 0, 0, 0) == 0  # PR_SET_THP_DISABLE: pages of one size on every system
    process = os.posix_spawn(WEBREQ, [WEBREQ, "-web", description], LOADED)
    limit = threading.Timer(60, os.kill, [process, signal.SIGKILL])
    limit.start()
    _, status, usage = os.wait4(process, 0)
    limit.cancel()
    assert status == 0
    return usage.ru_minflt, usage.ru_nvcsw


OF_LOADER = 1_200  # page faults; 515 on Debian 12, 571 on 13


def test_small_request():
    description = "1 pieces of 4||||||/dev/null"
    assert instructions(description) < 30_000  # 15,470 on Debian 12, 15,214 on 13
    assert faults_and_waits(description)[0] < OF_LOADER


def test_large_body():
    """It is in memory once, and nothing waits."""
    faults, waits = faults_and_waits("8192 pieces of 16384||||||/dev/null")
    pages = 8192 * 16384 // mmap.PAGESIZE
    assert pages < faults < pages + OF_LOADER
    assert waits < 64  # one each 2 MiB


GROWING = {
    r"\s": lambda count: "x|||a:" + r"\s" * count,
    "bars": lambda count: "x" + "|" * count,
    "blanks": lambda count: " " * count + "x" + " " * count,
    "header lines": lambda count: "x|||" + "a:\r" * count,
    "pieces of a body": lambda count: f"{count} pieces of 1||||||/dev/null",
}


@pytest.mark.parametrize("description", GROWING.values(), ids=GROWING)
def test_twice_as_many_cost_twice_as_much(description):
    once, twice = instructions(description(10_000)), instructions(description(20_000))
    assert 1.7 * once < twice < 2.3 * once
