"""What the tool asks of the C library and of the kernel: what macos/symbols.txt and docs/reliability.md list."""

import platform
import re
import subprocess

import name_server
import own_network
import pytest
from conftest import ENVIRONMENT, IS_STATIC, OBJECTS, REPOSITORY, Answer
from conftest import impossible_on_macos, impossible_under_translator, unless

pytestmark = [impossible_on_macos("no ELF files and no strace"), impossible_under_translator("it makes calls itself")]

# The C library's functions: those in macos/symbols.txt, and on Linux these.
ON_LINUX = {"madvise", "sysconf"}

# Their names where a header checks or inlines them.
OTHER_NAMES = {"__errno_location": "errno", "__error": "errno", "__snprintf_chk": "snprintf"}
OTHER_NAMES |= {"strtol": "atoi", "__isoc23_strtol": "atoi"}

# The language's, which the compiler calls: memory, exceptions, strings, maps. No streams, no threads, no files.
OF_THE_LANGUAGE = (
    r"_GLOBAL_OFFSET_TABLE_|_Unwind_Resume|__cxa_\w+|__gxx_personality_v0|__stack_chk_fail"
    r"|bcmp|mem(chr|cmp|cpy|move|set)|operator (new|delete)\(.*"
    r"|(vtable|typeinfo) for std::(length_error|bad_array_new_length)"
    r"|std::(terminate|__throw_\w+|__glibcxx_assert_fail|_Rb_tree_\w+)\(.*"
    r"|std::(logic_error|length_error|bad_array_new_length)::.*|std::(__\w+::)?basic_string<char, .*"
)


def symbols(option):
    command = ["nm", option, "--demangle", "--format=posix", *OBJECTS]
    lines = subprocess.run(command, capture_output=True, check=True, text=True).stdout.splitlines()
    return {re.sub(r" [A-Za-z]( .*)?$", "", line) for line in lines if line and not line.endswith(":")}


def listed_for_macos():
    paragraphs = (REPOSITORY / "macos/symbols.txt").read_text().split("\n\n")
    own = [part for part in paragraphs if part.startswith(("# libcurl", "# called by webreq\n"))]
    return set(re.findall(r" _(\w+)", re.sub("#.*", "", "\n".join(own))))


def proper(names):
    return {OTHER_NAMES.get(name, name) for name in names}


def test_functions_called():
    called = symbols("--undefined-only") - symbols("--defined-only")
    others = {name for name in called if not re.fullmatch(OF_THE_LANGUAGE, name)}
    assert proper(others) == proper(listed_for_macos()) | ON_LINUX, (
        "A function belongs in macos/symbols.txt, or above if it is Linux's alone; in the model of every run, "
        "fuzz/command_line.cpp, with its --wrap in cmake/Tests.cmake; and what it asks of the kernel below "
        "'What a run asks of the system' in docs/reliability.md."
    )


# The kernel's calls.

# The arguments that the document gives; the others are addresses, descriptors and sizes.
GIVEN = {
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
    given = re.match(GIVEN[name], arguments).group(1) if name in GIVEN else ""
    given = re.sub(r"\|?(O_LARGEFILE|O_CLOEXEC|SOCK_CLOEXEC|SOCK_NONBLOCK)\b|[\",]|NULL|\{sa_handler=", "", given)
    return f"{name.replace('openat', 'open')} {given}".replace("|", " ").strip()


@pytest.fixture(name="trace")
def make_trace(tool, tmp_path):
    """Runs the tool, which must answer as `expected`; returns the system calls, one a line. `network` begins the
    command."""

    def run(*arguments, expected, network=()):
        command = [*network, "strace", "-f", "-qq", "-o", tmp_path / "trace", tool.path, *arguments]
        assert tool.run_command(command, env=ENVIRONMENT) == expected
        return (tmp_path / "trace").read_text().splitlines()

    return run


REQUEST = ["every run", "a description, even an empty one", "a request"]
RUNS = [*REQUEST, "HTTP", "IPv4", "IPv6", "HTTPS", "a host name", "file://", "a file by file://", "a folder by file://"]


def listed():
    """What docs/reliability.md lists: calls by kinds of run."""
    text = (REPOSITORY / "docs/reliability.md").read_text()
    section = re.search(r"^## What a run asks of the system\n(.*?)^## ", text, re.DOTALL | re.MULTILINE)[1]
    items = [item.split(": ", 1) for item in re.findall(r"^- ((?:.|\n(?![-\n]))*)", section, re.MULTILINE)]
    return {run: {" ".join(call.split()) for call in re.findall(r"`([^`]+)`", calls)} for run, calls in items}


def test_document_lists_the_runs_that_are_tested():
    assert list(listed()) == RUNS


static_on_x86_64 = unless(not IS_STATIC or platform.machine() != "x86_64", "for the static executable on x86-64")
has_network = pytest.mark.skipif(not own_network.is_possible(), reason=own_network.REASON)


def check(lines, *runs):
    made = {outline(line.replace('"out"', '"OUTFILE"')) for line in lines}
    expected = set().union(*(listed()[run] for run in runs))
    if "a request" in runs:
        expected |= listed()["a description, even an empty one"]
    if "HTTP" in runs:
        made.add("fcntl F_GETFL")  # of the connection before libcurl closes it, unless the server has closed it by then
    assert made == expected


@static_on_x86_64
def test_every_call_of_the_usage(trace, tool):
    check(trace(expected=Answer(tool.run().stdout, status=255)), "every run")


@static_on_x86_64
def test_every_call_without_a_url(trace):
    check(trace("-web", "", expected=Answer(b"-1\n")), *REQUEST[:2])


@static_on_x86_64
@pytest.mark.parametrize("scheme, runs", [("http", []), ("https", ["HTTPS"])])
def test_every_call_of_a_request(trace, nginx, scheme, runs):
    url = {"http": nginx.http_url, "https": nginx.https_url}[scheme]
    lines = trace("-web", f"{url}/page.html|q=1|p|Cookie: a|agent|5000|out", expected=Answer(b"200\n"))
    check(lines, *REQUEST, "HTTP", "IPv4", *runs)


@static_on_x86_64
@pytest.mark.parametrize("path, run", [("source", "a file by file://"), ("", "a folder by file://")])
def test_every_call_for_a_file(trace, tmp_path, path, run):
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder/source").write_text("body")
    lines = trace("-web", f"file://{tmp_path}/folder/{path}||||||out", expected=Answer(b"0\n"))
    lines = [re.sub(rf'"{tmp_path}/folder/(source)?"', '"FILE"', line) for line in lines]
    check(lines, *REQUEST, "file://", run)


@static_on_x86_64
@has_network
@pytest.mark.parametrize("record, family", [("A 127.0.0.1", "IPv4"), ("AAAA ::1", "IPv6")])
def test_every_call_for_a_name(trace, tmp_path, record, family):
    with name_server.start(tmp_path / "etc", name_server.zone({"host.test.": [record]})) as network:
        description = "http://host.test/||||||out"
        lines = trace("-web", description, expected=Answer(b"200\n"), network=network.enter)
    check(lines, *REQUEST, "HTTP", "a host name", family)
