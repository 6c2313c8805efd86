"""With CI set, no test of any folder is skipped because something is missing."""

import os
import sys

import pytest

# What the reason begins with where a test may be skipped though CI is set. Whatever else is missing is a failure then.
REASONS_TO_SKIP = (
    "Linux allows an argument 32 pages",
    "about Linux's loader; sanitizers take descriptors",
    "another TLS library",
    "clang proves the one call safe and leaves it unchecked",
    "for the static executable",
    "has zig's libraries",
    "macOS: ",
    "preloads a library",
    "the system's resolver takes its time",
    "the sanitizers need ",
    "there is no node here",
    "there is no swiftc here",
    "this libcurl ",
    f"{os.environ.get('TRANSLATOR')}: ",
)
if sys.platform == "darwin":
    REASONS_TO_SKIP += (
        "no disk can be mounted here",
        "no faketime here",
        "no folder /etc can be put ",
        "no locale can be made here",
        "no network namespace can be made here",
    )


def refuse_to_skip(report):
    if os.environ.get("CI") and report.skipped:
        reason = report.longrepr[2].removeprefix("Skipped: ")
        if not reason.startswith(REASONS_TO_SKIP):
            report.outcome, report.longrepr = "failed", f"With CI set, this is no reason to skip a test: {reason}"


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport():
    refuse_to_skip((yield).get_result())


@pytest.hookimpl(hookwrapper=True)
def pytest_make_collect_report():
    refuse_to_skip((yield).get_result())
