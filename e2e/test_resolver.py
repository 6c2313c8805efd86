"""Host names, looked up at a scripted name server: what a request comes to, and what was asked of DNS for it.

heavy/names.py compares the static executable with the C library; here is what both do, and where they differ.
"""

import functools
import shutil
import time

import libcurl
import own_network
import pytest
from conftest import ENVIRONMENT, EXECUTABLE, IS_STATIC, WEBREQ, Answer, Tool
from conftest import impossible_under_translator, only_static, unless

if not own_network.is_possible():
    pytest.skip(own_network.REASON, allow_module_level=True)

import name_server
from name_server import FILES, dropping, everywhere, failing, is_for, refused, silent, zone

HERE = {"host.test.": ["A 127.0.0.1"]}

FOUND = Answer(b"200\n127.0.0.1\n")
FOUND_BY_IPV6 = Answer(b"200\n::1\n")
NOT_FOUND = Answer(b"6\n")
CONNECTION_REFUSED = Answer(b"7\n")
TIMED_OUT = Answer(b"28\n")

# With threads of its own; the other tests hold all the same.
one_look_up = unless(
    not IS_STATIC and libcurl.answer("looks each family up by itself"), "its libcurl looks each family up by itself"
)


def each_once(asked):
    """The same without repetitions."""
    return [" ".join(dict.fromkeys(entry.split())) for entry in asked]


def request(network, description, command=(WEBREQ,), environment=ENVIRONMENT):
    """Performs a request there; returns the answer and the seconds that it took. `command` runs the tool."""
    start = time.monotonic()
    answer = Tool().run_command([*network.enter, *command, "-web", description], env=environment)
    return answer, time.monotonic() - start


@pytest.fixture
def start(tmp_path):
    """Starts a network; the arguments are name_server.start's, without the folder."""
    return functools.partial(name_server.start, tmp_path / "etc")


@pytest.fixture
def request_by_name(start):
    """Performs a request in a network; returns the answer, and what was asked of DNS. `variables` are the
    environment's."""

    def perform(description, *answers, command=(WEBREQ,), variables=None, **options):
        with start(*answers, **options) as network:
            answer, _ = request(network, description, command, {**ENVIRONMENT, **(variables or {})})
        return answer, network.asked

    return perform


@pytest.mark.parametrize(
    "records, answer",
    [
        ({"host.test.": ["A 127.0.0.1"]}, FOUND),
        ({"host.test.": ["CNAME a.test."], "a.test.": ["CNAME b.test."], "b.test.": ["AAAA ::1"]}, FOUND_BY_IPV6),
        ({"host.test.": []}, NOT_FOUND),
        ({}, NOT_FOUND),
    ],
    ids=["IPv4", "aliases and IPv6", "no address", "no such name"],
)
def test_name(request_by_name, records, answer):
    assert request_by_name("http://host.test/", zone(records)) == (answer, ["host.test. A AAAA"])


@pytest.mark.parametrize(
    "records, port, answer",
    [
        (["A 127.0.0.1", "AAAA ::1"], 81, FOUND),  # where the other one doesn't answer connections
        (["A 127.0.0.1", "AAAA ::1"], 82, FOUND_BY_IPV6),
    ],
)
def test_address_that_answers_is_found(request_by_name, records, port, answer):
    found = request_by_name(f"http://host.test:{port}/", zone({"host.test.": records}))
    assert found == (answer, ["host.test. A AAAA"])


def test_localhost_is_known(request_by_name):
    answer, asked = request_by_name("http://localhost/", silent)
    assert answer in (FOUND, FOUND_BY_IPV6) and asked == []


# The hosts file.


@one_look_up
@pytest.mark.parametrize("name_server", [everywhere, silent])
@pytest.mark.parametrize(
    "lines, answer",
    [
        ("127.0.0.9 host.test", CONNECTION_REFUSED),
        ("127.0.0.9 host.test\n::1 host.test", FOUND_BY_IPV6),
    ],
)
def test_name_in_the_hosts_file_is_not_asked_for(request_by_name, name_server, lines, answer):
    assert request_by_name("http://host.test/", name_server, hosts=lines) == (answer, [])


# Search domains.

WITH_FINAL_DOT = (NOT_FOUND, ["host.test."])
if libcurl.answer("leaves a final dot out"):
    WITH_FINAL_DOT = (FOUND, ["host.test.", "host.test.one."])


@one_look_up
@pytest.mark.parametrize(
    "host, records, answer, names",
    [
        ("host.test", {"host.test.two.": ["A 127.0.0.1"]}, FOUND, ["host.test.", "host.test.one.", "host.test.two."]),
        ("host.test.", {"host.test.one.": ["A 127.0.0.1"]}, *WITH_FINAL_DOT),
        ("host", {"host.": ["A 127.0.0.1"], "host.one.": ["AAAA ::1"]}, FOUND_BY_IPV6, ["host.one."]),
        ("host", {"host.one.": []}, NOT_FOUND, ["host.one.", "host.two.", "host."]),
    ],
)
def test_search_domains(request_by_name, host, records, answer, names):
    """One after the other, up to a name that has an address, of whatever family."""
    found = request_by_name(f"http://{host}/", zone(records), resolv_conf="search one two\nnameserver 127.0.0.1\n")
    assert found == (answer, [f"{name} A AAAA" for name in names])


@one_look_up
@pytest.mark.parametrize(
    "variable, value, host, found",
    [
        ("LOCALDOMAIN", "two", "host", "host.two."),
        ("RES_OPTIONS", "ndots:2", "host.test", "host.test.one."),
        ("HOSTALIASES", "aliases", "host", "other.test."),
    ],
)
def test_environment_leads_elsewhere(request_by_name, tmp_path, variable, value, host, found):
    (tmp_path / "aliases").write_text("host other.test\n")
    options = {
        "variables": {variable: value.replace("aliases", str(tmp_path / "aliases"))},
        "resolv_conf": "search one\nnameserver 127.0.0.1\n",
    }
    answer = zone({found: ["A 127.0.0.1"]})
    assert request_by_name(f"http://{host}/", answer, **options) == (FOUND, [f"{found} A AAAA"])


@one_look_up
@pytest.mark.parametrize("second", ["", "nameserver 127.0.0.3\n"])
def test_search_goes_on_after_a_failure(request_by_name, second):
    """Even if there is a second name server, asked for another answer, that isn't there."""

    def name_server(query, transport):
        is_one = query.question[0].name.to_text() == "host.one."
        return (failing("SERVFAIL") if is_one else zone({"host.two.": ["A 127.0.0.1"]}))(query, transport)

    servers = f"search one two\nnameserver 127.0.0.1\n{second}options attempts:1\n"
    assert request_by_name("http://host/|||||30000", name_server, resolv_conf=servers)[0] == FOUND


# Name servers that are not as they should be.


def test_queries_with_edns_are_dropped(request_by_name):
    name_server = dropping(lambda query: query.edns >= 0, zone(HERE))
    assert request_by_name("http://host.test/", name_server) == (FOUND, ["host.test. A AAAA"])


@only_static
@pytest.mark.parametrize("dropped, answer", [("A", FOUND_BY_IPV6), ("AAAA", FOUND)])
def test_questions_for_one_family_are_dropped(request_by_name, dropped, answer):
    """The other family's answer will do. The C library's resolver waits until it gives up."""
    name_server = dropping(is_for(dropped), everywhere)
    assert request_by_name("http://host.test/", name_server) == (answer, ["host.test. A AAAA"])


def test_questions_for_ipv6_are_dropped_and_there_is_time(request_by_name):
    name_server = dropping(is_for("AAAA"), everywhere)
    configuration = "nameserver 127.0.0.1\noptions timeout:1\n"
    answer, asked = request_by_name("http://host.test/|||||30000", name_server, resolv_conf=configuration)
    assert (answer, each_once(asked)) == (FOUND, ["host.test. A AAAA"])


@pytest.mark.parametrize(
    "first, answer",
    [(refused, FOUND), (zone({}), NOT_FOUND), (silent, FOUND)],
    ids=["refuses", "knows nothing", "is silent"],
)
def test_second_name_server(request_by_name, first, answer):
    """It is asked when the first has no answer; that a name doesn't exist is one."""
    servers = "nameserver 127.0.0.1\nnameserver 127.0.0.2\noptions timeout:1\n"
    found, asked = request_by_name("http://host.test/|||||30000", first, zone(HERE), resolv_conf=servers)
    assert (found, each_once(asked)) == (answer, ["host.test. A AAAA"])


@one_look_up
@unless(IS_STATIC, "the system's resolver takes its time")
@pytest.mark.parametrize("name_server, least", [(silent, 2 * 2), (dropping(is_for("AAAA"), everywhere), 3 * 2)])
def test_silent_name_server_outlasts_the_time_out(start, name_server, least):
    """Newer versions of libcurl wait for it, 5 s for each answer unless resolv.conf says otherwise; older ones break
    off at the time-out."""
    with start(name_server, resolv_conf="nameserver 127.0.0.1\noptions timeout:2\n") as network:
        answer, seconds = request(network, "http://host.test/")
    assert answer == TIMED_OUT
    assert seconds >= least if libcurl.answer("hanging resolver") else 2 <= seconds < least


@only_static
@pytest.mark.parametrize("text, least", [("999", 1), ("1500", 1), ("2000", 2), ("", 2)])
def test_time_out_holds_while_no_name_server_answers(start, text, least):
    """The run takes as long as with a server that does not answer. The C library's resolver can't be interrupted."""
    with start(silent) as network:
        at_a_server, seconds_at_a_server = request(network, f"http://127.0.0.1:82/|||||{text}")
        answer, seconds = request(network, f"http://host.test/|||||{text}")
    assert answer == at_a_server == TIMED_OUT
    assert least <= seconds < 2 * seconds_at_a_server
    assert each_once(network.asked) == ["host.test. A AAAA"]


# More than one look-up.


@pytest.mark.parametrize("records, answer", [(["AAAA ::1"], FOUND_BY_IPV6), (None, Answer(b"5\n"))])
def test_proxy_that_is_a_name(request_by_name, records, answer):
    """The host's name is then the proxy's matter."""
    records = {"proxy.test.": records} if records else {}
    variables = {"http_proxy": "http://proxy.test:80"}
    found = request_by_name("http://host.test/", zone(records), variables=variables)
    assert found == (answer, ["proxy.test. A AAAA"])


@pytest.mark.parametrize(
    "lines, records, printed, asked",
    [
        ("", ["A 192.0.2.7", "AAAA ::1"], *libcurl.answer("SOCKS 4 and both families")),
        ("192.0.2.8 host.test", ["A 192.0.2.7"], b"200\n192.0.2.8\n", []),
        ("2001:db8::1 host.test", ["A 192.0.2.7"], *libcurl.answer("SOCKS 4 and IPv6 in the hosts file")),
    ],
    ids=["DNS", "hosts file", "the other family in the hosts file"],
)
def test_proxy_for_which_the_name_is_looked_up(request_by_name, lines, records, printed, asked):
    """SOCKS 4 knows addresses of IPv4 alone."""
    names = zone({"proxy.test.": ["A 127.0.0.1"], "host.test.": records})
    variables = {"http_proxy": "socks4://proxy.test:80"}
    found = request_by_name("http://host.test/", names, variables=variables, hosts=lines)
    assert found == (Answer(printed), ["proxy.test. A AAAA", *asked])


# Without IPv6.


@pytest.mark.parametrize(
    "records, answer",
    [(["A 127.0.0.1"], FOUND), (["A 127.0.0.1", "AAAA ::1"], FOUND), (["AAAA ::1"], CONNECTION_REFUSED)],
)
def test_ipv6_is_switched_off(request_by_name, records, answer):
    found = request_by_name("http://host.test/", zone({"host.test.": records}), ipv6=False)
    assert found == (answer, ["host.test. A AAAA"])


@pytest.mark.skipif(not shutil.which("strace"), reason="no strace here")
@pytest.mark.parametrize(
    "lines, records, answer, asked",
    [
        ("", ["A 127.0.0.1", "AAAA ::1"], FOUND, ["host.test. A"]),
        ("", ["AAAA ::1"], NOT_FOUND, ["host.test. A"]),
        ("127.0.0.9 host.test", ["A 127.0.0.1"], CONNECTION_REFUSED, []),
        ("2001:db8::1 host.test", ["A 127.0.0.1"], FOUND, ["host.test. A"]),
    ],
)
def test_kernel_without_ipv6(request_by_name, tmp_path, lines, records, answer, asked):
    """libcurl asks the kernel for a socket before it looks the first name up."""
    strace = ["strace", "-f", "-qq", "-o", tmp_path / "trace", "--inject=socket:error=EAFNOSUPPORT:when=1"]
    variables = {"ASAN_OPTIONS": "detect_leaks=0"}  # the leak check can't run there
    command = [*strace, "-e", "trace=socket", WEBREQ]
    found = request_by_name(
        "http://host.test/", zone({"host.test.": records}), command=command, variables=variables, hosts=lines
    )
    assert found == (answer, asked)
    assert "socket(AF_INET6, " in (tmp_path / "trace").read_text().splitlines()[0]


@only_static
@impossible_under_translator("it would have to be there, too")
@pytest.mark.parametrize("host", ["127.0.0.1", "host.test", "in-hosts", "localhost"])
def test_executable_alone_in_an_empty_root(request_by_name, tmp_path, host):
    root = tmp_path / "root"
    (root / "etc").mkdir(parents=True)
    shutil.copy(EXECUTABLE, root)
    for name in ("resolv.conf", "hosts"):
        (root / "etc" / name).write_text(FILES[name.replace(".", "_")])
    answer, _ = request_by_name(f"http://{host}:81/", zone(HERE), command=["chroot", root, "/webreq"])
    assert answer == FOUND
