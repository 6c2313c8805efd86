"""What the tool asks of the C library and of the kernel: nothing but what is listed here and in docs/reliability.md."""

import platform
import re
import subprocess

import name_server
import own_network
import pytest
from conftest import (
    BUILD,
    ENVIRONMENT,
    IS_STATIC,
    REPOSITORY,
    Answer,
    impossible_on_macos,
    impossible_under_translator,
    only_static,
    preloading,
)

pytestmark = [impossible_on_macos("no ELF files and no strace"), impossible_under_translator("it makes calls itself")]

# The C library's functions.

OF_LIBCURL = "curl_easy_cleanup curl_easy_getinfo curl_easy_init curl_easy_perform curl_easy_setopt "
OF_LIBCURL += "curl_global_cleanup curl_global_init curl_slist_append curl_slist_free_all"
EVERYWHERE = "atoi close errno fcntl mmap munmap open poll signal snprintf strlen strstr write"
ON_LINUX = "madvise sysconf"

# What they are called here, by headers that check or inline them.
OTHER_NAMES = {"__errno_location": "errno", "__error": "errno", "__snprintf_chk": "snprintf"}
OTHER_NAMES |= {"strtol": "atoi", "__isoc23_strtol": "atoi"}

# What the compiler calls for the language: memory, exceptions, strings, maps. No streams, no threads, no files.
OF_THE_LANGUAGE = (
    r"_GLOBAL_OFFSET_TABLE_|_Unwind_Resume|__cxa_\w+|__gxx_personality_v0|__stack_chk_fail|bcmp|mem(chr|cmp|cpy|move|set)"
    r"|operator (new|delete)\(.*|(vtable|typeinfo) for std::(length_error|bad_array_new_length)"
    r"|std::(terminate|__throw_\w+|__glibcxx_assert_fail|_Rb_tree_\w+)\(.*"
    r"|std::(logic_error|length_error|bad_array_new_length)::.*|std::(__\w+::)?basic_string<char, .*"
)


OBJECTS = [BUILD / name for name in ("CMakeFiles/webreq.dir/app/main.cpp.o", "libfront_end.a", "libreqkit.a")]


def symbols(option):
    command = ["nm", option, "--demangle", "--format=posix", *OBJECTS]
    lines = subprocess.run(command, capture_output=True, check=True, text=True).stdout.splitlines()
    return {re.sub(r" [A-Za-z]( .*)?$", "", line) for line in lines if line and not line.endswith(":")}


def test_functions_called():
    called = symbols("--undefined-only") - symbols("--defined-only")
    others = {name for name in called if not re.fullmatch(OF_THE_LANGUAGE, name)}
    assert {OTHER_NAMES.get(name, name) for name in others} == set(f"{OF_LIBCURL} {EVERYWHERE} {ON_LINUX}".split())


if (REPOSITORY / "macos").exists():

    def test_functions_called_on_a_mac():
        paragraphs = (REPOSITORY / "macos/symbols.txt").read_text().split("\n\n")
        (libcurls,) = [part for part in paragraphs if part.startswith("# libcurl")]
        (webreqs,) = [part for part in paragraphs if part.startswith("# called by webreq\n")]
        names = {
            name.removeprefix("_") for name in re.findall(r" (_\w+)", re.sub("#.*", "", libcurls + "\n" + webreqs))
        }
        assert {OTHER_NAMES.get(name, name) for name in names} == set(f"{OF_LIBCURL} {EVERYWHERE}".split())


# The kernel's calls.

# What of a call's arguments counts: others are addresses, descriptors and sizes.
COUNTS = {
    "fcntl": r"\d+, (F_\w+)",
    "madvise": r".*, (MADV_\w+|0x\w+)",
    "mmap": r".*?(PROT_[\w|]+, MAP_[\w|]+)",
    "open": r'("[^"]*", [\w|]+)',
    "openat": r'AT_FDCWD, ("[^"]*", [\w|]+)',
    "rt_sigaction": r"(\w+, (?:NULL|\{sa_handler=\w+))",
    "setsockopt": r"\d+, (\w+, \w+)",
    "socket": r"(\w+, [\w|]+)",
    "stat": r'("[^"]*")',
}


def outline(line):
    """Such as "open OUTFILE O_WRONLY O_CREAT O_TRUNC"."""
    name, arguments = re.fullmatch(r"\d+ +(\w+)\((.*)", line).groups()
    counts = re.match(COUNTS[name], arguments).group(1) if name in COUNTS else ""
    counts = re.sub(r"\|?(O_LARGEFILE|O_CLOEXEC|SOCK_CLOEXEC|SOCK_NONBLOCK)\b|[\",]|NULL|\{sa_handler=", "", counts)
    return f"{name.replace('openat', 'open')} {counts}".replace("|", " ").strip()


@pytest.fixture(name="trace")
def make_trace(tool, tmp_path):
    """Runs the tool, which must answer as `expected`; returns the system's calls, a line each. What is behind `network`
    in the command runs there."""

    def run(*arguments, expected, network=(), options=()):
        command = [*network, "strace", "-f", "-qq", "-o", tmp_path / "trace", *options, tool.path, *arguments]
        assert tool.run_command(command, env=ENVIRONMENT) == expected
        return (tmp_path / "trace").read_text().splitlines()

    return run


BEFORE_ALL = ["fcntl(0, F_GETFD)", "fcntl(1, F_GETFD)", "fcntl(2, F_GETFD)"]
BEFORE_ALL += ["rt_sigaction(SIGPIPE, {sa_handler=SIG_IGN", "rt_sigaction(SIGXFSZ, {sa_handler=SIG_IGN"]
OF_MEMORY = "PROT_READ|PROT_WRITE, MAP_PRIVATE|MAP_ANONYMOUS"
RESERVATION = [f"mmap 3328 {OF_MEMORY}", "munmap 3328", f"mmap 1024 {OF_MEMORY}"]
RESERVATION += ["madvise MADV_NOHUGEPAGE", "madvise MADV_HUGEPAGE"]
RELEASE = ["munmap 1024", "exit_group(0)"]
OPEN = 'openat(AT_FDCWD, "out", O_WRONLY|O_CREAT|O_TRUNC, 0666)'
TO_STANDARD_OUTPUT = ['write(1, "200\\n", 4)', 'write(1, "body", 4)', 'write(1, "\\n", 1)']
TO_A_FILE = ['write(1, "200\\n", 4)', OPEN, 'write(3, "body", 4)', "close(3)"]
URLS = ["http://127.0.0.1/", "https://u:p@localhost/", "ftp://u:p@localhost/", "file:///etc/passwd", "x"]


def own_calls(lines):
    """From main on, in order, without what malloc() asks for. What precedes are the loader's calls, and the libraries'."""
    calls = [re.fullmatch(r"\d+ +(\w+\(.*)\) += .*", line).group(1) for line in lines]
    calls = [memory_in_mebibytes(call + ")") for call in calls[calls.index("fcntl(0, F_GETFD") :]]
    return [call for call in calls if not call.startswith("brk(") and not re.match("m(un)?map 0", call)]


def memory_in_mebibytes(call):
    size = re.fullmatch(r"(m(?:un)?map)\((?:NULL|0x\w+), (\d+)(?:(, PROT_.*), -1, 0)?\)", call)
    advice = re.fullmatch(r"madvise\(.*, (\w+)\)", call)
    action = re.match(r"rt_sigaction\(\w+, \{sa_handler=\w+", call)
    if size:
        return f"{size.group(1)} {int(size.group(2)) >> 20}{(size.group(3) or '').replace(',', '', 1)}"
    return f"madvise {advice.group(1)}" if advice else action.group(0) if action else call


@pytest.fixture(name="request_alone")
def make_request_alone(trace):
    """Performs a request; returns the tool's calls between those of every request. Everything else a request asks for is
    libcurl's, in whose place there is a library that asks for nothing."""
    if IS_STATIC:
        pytest.skip("preloads a library")
    options = [f"--env={name}={value}" for name, value in preloading("no_libcurl").items()]

    def run(description, expected):
        calls = own_calls(trace("-web", description, options=options, expected=Answer(expected)))
        before, after = BEFORE_ALL + RESERVATION, len(calls) - len(RELEASE)
        assert (calls[: len(before)], calls[after:]) == (before, RELEASE)
        return calls[len(before) : after]

    return run


@pytest.mark.parametrize("fields", ["|||||", "|q=1|post|Authorization: a\rCookie: b|agent|5000"])
@pytest.mark.parametrize("url", URLS)
def test_own_calls_of_a_request(request_alone, url, fields):
    assert request_alone(f"{url}{fields}|", b"200\nbody\n") == TO_STANDARD_OUTPUT
    assert request_alone(f"{url}{fields}|out", b"200\n") == TO_A_FILE


def test_own_calls_of_a_request_that_fails(request_alone):
    assert request_alone("refused", b"7\n") == ['write(1, "7\\n", 2)']
    assert request_alone("refused||||||out", b"7\n") == ['write(1, "7\\n", 2)', OPEN, "close(3)"]


def test_own_calls_without_a_url(trace):
    lines = trace("-web", "|||||||out", expected=Answer(b"-1\n"))
    assert own_calls(lines) == [*BEFORE_ALL, 'write(1, "-1\\n", 3)', "exit_group(0)"]


@pytest.fixture(name="usage")
def make_usage(tool):
    return Answer(tool.run().stdout, status=255)


def test_own_calls_of_the_usage(trace, usage):
    calls = own_calls(trace(expected=usage))
    assert calls[:5] == BEFORE_ALL and calls[-1].startswith("exit_group(")
    assert len(calls) == 19 and all(call.startswith("write(1, ") for call in calls[5:-1])


RUNS = ["every run", "a description, even an empty one", "a request", "HTTP", "IPv4", "IPv6", "HTTPS"]
RUNS += ["a host name", "file://", "a file by file://", "a folder by file://"]


def listed():
    """What docs/reliability.md lists: calls by kinds of run."""
    text = (REPOSITORY / "docs/reliability.md").read_text()
    section = re.search(r"^## What a run asks of the system\n(.*?)^## ", text, re.DOTALL | re.MULTILINE)[1]
    items = [item.split(": ", 1) for item in re.findall(r"^- ((?:.|\n(?![-\n]))*)", section, re.MULTILINE)]
    return {run: {" ".join(call.split()) for call in re.findall(r"`([^`]+)`", calls)} for run, calls in items}


def test_document_lists_the_runs_that_are_tested():
    assert list(listed()) == RUNS


for_x86_64 = pytest.mark.skipif(platform.machine() != "x86_64", reason="for the static executable on x86-64")
has_network = pytest.mark.skipif(not own_network.is_possible(), reason="no network namespace can be made here")


def check(lines, *runs):
    made = {outline(line.replace('"out"', '"OUTFILE"')) for line in lines}
    expected = set().union(*(listed()[run] for run in runs))
    if "a request" in runs:
        expected |= listed()["a description, even an empty one"]
    if "HTTP" in runs:
        made.add("fcntl F_GETFL")  # of the connection before libcurl closes it, unless the server has closed it by then
    assert made == expected


@only_static
@for_x86_64
def test_every_call_of_the_usage(trace, usage):
    check(trace(expected=usage), "every run")


@only_static
@for_x86_64
def test_every_call_without_a_url(trace):
    check(trace("-web", "", expected=Answer(b"-1\n")), "every run", "a description, even an empty one")


@only_static
@for_x86_64
@pytest.mark.parametrize("scheme, runs", [("http", []), ("https", ["HTTPS"])])
def test_every_call_of_a_request(trace, nginx, scheme, runs):
    url = {"http": nginx.http_url, "https": nginx.https_url}[scheme]
    lines = trace("-web", f"{url}/page.html|q=1|p|Cookie: a|agent|5000|out", expected=Answer(b"200\n"))
    check(lines, "every run", "a request", "HTTP", "IPv4", *runs)


@only_static
@for_x86_64
@pytest.mark.parametrize("path, run", [("source", "a file by file://"), ("", "a folder by file://")])
def test_every_call_for_a_file(trace, tmp_path, path, run):
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder/source").write_text("body")
    lines = trace("-web", f"file://{tmp_path}/folder/{path}||||||out", expected=Answer(b"0\n"))
    lines = [re.sub(rf'"{tmp_path}/folder/(source)?"', '"FILE"', line) for line in lines]
    check(lines, "every run", "a request", "file://", run)


@only_static
@for_x86_64
@has_network
@pytest.mark.parametrize("record, family", [("A 127.0.0.1", "IPv4"), ("AAAA ::1", "IPv6")])
def test_every_call_for_a_name(trace, tmp_path, record, family):
    with name_server.start(tmp_path / "etc", name_server.zone({"host.test.": [record]})) as network:
        description = "http://host.test/||||||out"
        lines = trace("-web", description, expected=Answer(b"200\n"), network=network.enter)
    check(lines, "every run", "a request", "HTTP", "a host name", family)
