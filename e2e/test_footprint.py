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


def symbols(option):
    command = ["nm", option, "--demangle", "--format=posix", BUILD / "libfront_end.a", BUILD / "libreqkit.a"]
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
    """Such as "open out O_WRONLY O_CREAT O_TRUNC"."""
    name, arguments = re.fullmatch(r"\d+ +(\w+)\((.*)", line).groups()
    counts = re.match(COUNTS[name], arguments).group(1) if name in COUNTS else ""
    counts = re.sub(r"\|?(O_LARGEFILE|O_CLOEXEC|SOCK_CLOEXEC|SOCK_NONBLOCK)\b|[\",]|NULL|\{sa_handler=", "", counts)
    return f"{name.replace('openat', 'open')} {counts}".replace("|", " ").strip()


@pytest.fixture(name="trace")
def make_trace(tool, tmp_path):
    """Runs the tool; returns the system's calls, a line each. What is behind `network` in the command runs there."""

    def run(*arguments, network=(), options=()):
        command = [*network, "strace", "-f", "-qq", "-o", tmp_path / "trace", *options, tool.path, *arguments]
        answer = tool.run_command(command, env=ENVIRONMENT)
        assert answer.stderr == b"", answer
        return (tmp_path / "trace").read_text().splitlines()

    return run


BEFORE_ALL = ["fcntl(0, F_GETFD)", "fcntl(1, F_GETFD)", "fcntl(2, F_GETFD)"]
BEFORE_ALL += ["rt_sigaction(SIGPIPE, {sa_handler=SIG_IGN", "rt_sigaction(SIGXFSZ, {sa_handler=SIG_IGN"]
RESERVATION = ["mmap 3328", "munmap 3328", "mmap 1024", "madvise MADV_NOHUGEPAGE", "madvise MADV_HUGEPAGE"]
RELEASE = ["munmap 1024", "exit_group(0)"]
TO_STANDARD_OUTPUT = ['write(1, "200\\n", 4)', 'write(1, "body", 4)', 'write(1, "\\n", 1)']
TO_A_FILE = ['write(1, "200\\n", 4)', 'openat(AT_FDCWD, "out", O_WRONLY|O_CREAT|O_TRUNC, 0666)']
TO_A_FILE += ['write(3, "body", 4)', "close(3)"]
URLS = ["http://127.0.0.1/", "https://u:p@localhost/", "ftp://u:p@localhost/", "file:///etc/passwd", "x"]


def own_calls(lines):
    """From main on, in order, without what malloc() asks for."""
    calls = [re.fullmatch(r"\d+ +(\w+\(.*)\) += .*", line).group(1) for line in lines]
    calls = [memory_in_mebibytes(call + ")") for call in calls[calls.index("fcntl(0, F_GETFD") :]]
    return [call for call in calls if not call.startswith("brk(") and not re.fullmatch("m(un)?map 0", call)]


def memory_in_mebibytes(call):
    size = re.fullmatch(r"(m(?:un)?map)\((?:NULL|0x\w+), (\d+).*", call)
    advice = re.fullmatch(r"madvise\(.*, (\w+)\)", call)
    action = re.match(r"rt_sigaction\(\w+, \{sa_handler=\w+", call)
    if size:
        return f"{size.group(1)} {int(size.group(2)) >> 20}"
    return f"madvise {advice.group(1)}" if advice else action.group(0) if action else call


@pytest.mark.skipif(IS_STATIC, reason="preloads a library")
@pytest.mark.parametrize("fields", ["", "|q=1|post|Authorization: a\rCookie: b|agent|5000"])
@pytest.mark.parametrize("url", URLS)
def test_own_calls_of_a_request(trace, url, fields):
    """Everything else a request asks for is libcurl's, in whose place there is a library that asks for nothing."""
    fields = fields or "|||||"
    options = [f"--env={name}={value}" for name, value in preloading("no_libcurl").items()]
    for output_file, delivery in ("", TO_STANDARD_OUTPUT), ("out", TO_A_FILE):
        calls = own_calls(trace("-web", f"{url}{fields}|{output_file}", options=options))
        assert calls == BEFORE_ALL + RESERVATION + delivery + RELEASE


def test_own_calls_without_a_url(trace):
    assert own_calls(trace("-web", "|||||||out")) == [*BEFORE_ALL, 'write(1, "-1\\n", 3)', "exit_group(0)"]


def test_own_calls_of_the_usage(trace):
    calls = own_calls(trace())
    assert calls[:5] == BEFORE_ALL and calls[-1].startswith("exit_group(")
    assert len(calls) == 19 and all(call.startswith("write(1, ") for call in calls[5:-1])


def listed(*runs):
    """What docs/reliability.md lists for these kinds of run."""
    text = (REPOSITORY / "docs/reliability.md").read_text()
    found = {}
    for run, calls in re.findall(r"^- ([\w:/ ]+): (`(?:.|\n(?![-\n]))*)", text, re.M):
        found[run] = {" ".join(call.split()) for call in re.findall(r"`([^`]+)`", calls)}
    return set().union(*(found[run] for run in runs))


for_x86_64 = pytest.mark.skipif(platform.machine() != "x86_64", reason="for the static executable on x86-64")
has_network = pytest.mark.skipif(not own_network.is_possible(), reason="no network namespace can be made here")

# libcurl looks at the connection before it closes it, unless the server has closed it by then.
SOMETIMES = {"fcntl F_GETFL"}


def check(lines, *runs):
    assert {outline(line) for line in lines} - SOMETIMES == listed("every run", *runs) - SOMETIMES


@only_static
@for_x86_64
def test_every_call_of_the_usage(trace):
    check(trace())


@only_static
@for_x86_64
@pytest.mark.parametrize("scheme, runs", [("http", []), ("https", ["HTTPS"])])
def test_every_call_of_a_request(trace, nginx, scheme, runs):
    url = {"http": nginx.http_url, "https": nginx.https_url}[scheme]
    check(trace("-web", f"{url}/page.html|q=1|p|Cookie: a|agent|5000|out"), "a request", "HTTP", "IPv4", *runs)


@only_static
@for_x86_64
@pytest.mark.parametrize("path, run", [("source", "a file by file://"), ("", "a folder by file://")])
def test_every_call_for_a_file(trace, tmp_path, path, run):
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder/source").write_text("body")
    lines = trace("-web", f"file://{tmp_path}/folder/{path}||||||out")
    lines = [re.sub(rf'"{tmp_path}/folder/(source)?"', '"FILE"', line) for line in lines]
    check(lines, "a request", "file://", run)


@only_static
@for_x86_64
@has_network
@pytest.mark.parametrize("record, family", [("A 127.0.0.1", "IPv4"), ("AAAA ::1", "IPv6")])
def test_every_call_for_a_name(trace, tmp_path, record, family):
    with name_server.start(tmp_path / "etc", name_server.zone({"host.test.": [record]})) as network:
        lines = trace("-web", "http://host.test/||||||out", network=network.enter)
    check(lines, "a request", "HTTP", "a host name", family)
