"""Host names, looked up at a scripted name server: what a request comes to, and what was asked of DNS for it."""

import functools
import shutil
import time

import libcurl
import own_network
import pytest
from conftest import ENVIRONMENT, EXECUTABLE, IS_STATIC, WEBREQ, Answer, Tool, impossible_under_translator, only_static

if not own_network.is_possible():
    pytest.skip(own_network.REASON, allow_module_level=True)

import dns.flags
import dns.message
import dns.rcode
import name_server
from name_server import FILES, dropping, everywhere, failing, is_for, kind, refused, silent, zone

HERE = {"host.test.": ["A 127.0.0.1"]}

FOUND = Answer(b"200\n127.0.0.1\n")
FOUND_BY_IPV6 = Answer(b"200\n::1\n")
NOT_FOUND = Answer(b"6\n")
CONNECTION_REFUSED = Answer(b"7\n")
TIMED_OUT = Answer(b"28\n")

# With threads of its own; the other tests hold all the same.
one_look_up = pytest.mark.skipif(
    not IS_STATIC and libcurl.answer("looks each family up by itself"),
    reason="not for this build: its libcurl looks each family up by itself",
)


def each_once(asked):
    """The same without repetitions."""
    return [" ".join(dict.fromkeys(entry.split())) for entry in asked]


def late(query, transport):
    time.sleep(1)
    return zone(HERE)(query, transport)


def truncated(query, transport):
    """The whole answer goes by TCP alone."""
    if transport == "TCP":
        return zone(HERE)(query, transport)
    response = dns.message.make_response(query, recursion_available=True)
    response.flags |= dns.flags.TC
    return response


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
        (["A 127.0.0.1"], FOUND),
        (["AAAA ::1"], FOUND_BY_IPV6),
        ([], NOT_FOUND),
        (None, NOT_FOUND),
    ],
    ids=["IPv4", "IPv6", "no address", "no such name"],
)
@pytest.mark.parametrize("host", ["host.test", "host.test."])
def test_name(request_by_name, host, records, answer):
    records = {} if records is None else {"host.test.": records}
    assert request_by_name(f"http://{host}/", zone(records)) == (answer, ["host.test. A AAAA"])


@pytest.mark.parametrize(
    "records, port, answer",
    [
        (["A 127.0.0.1", "AAAA ::1"], 81, FOUND),  # where the other one doesn't answer connections
        (["A 127.0.0.1", "AAAA ::1"], 82, FOUND_BY_IPV6),
        (["A 127.0.0.9", "AAAA ::1"], 80, FOUND_BY_IPV6),  # where the other one refuses them
        (["A 127.0.0.9", "A 127.0.0.1"], 80, FOUND),
    ],
)
def test_address_that_answers_is_found(request_by_name, records, port, answer):
    found = request_by_name(f"http://host.test:{port}/", zone({"host.test.": records}))
    assert found == (answer, ["host.test. A AAAA"])


def test_chain_of_aliases(request_by_name):
    chain = {f"a{i}.test.": [f"CNAME a{i + 1}.test."] for i in range(8)}
    records = {**chain, "a8.test.": ["A 127.0.0.1"]}
    assert request_by_name("http://a0.test/", zone(records)) == (FOUND, ["a0.test. A AAAA"])


def test_alias_that_leads_nowhere(request_by_name):
    found = request_by_name("http://a0.test/", zone({"a0.test.": ["CNAME a1.test."]}))
    assert found == (NOT_FOUND, ["a0.test. A AAAA"])


def test_truncated_answer_is_asked_for_by_tcp(request_by_name):
    found = request_by_name("http://host.test/", truncated)
    assert found == (FOUND, ["host.test. A A/TCP AAAA AAAA/TCP"])


def test_localhost_is_known(request_by_name):
    answer, asked = request_by_name("http://localhost/", silent)
    assert answer in (FOUND, FOUND_BY_IPV6) and asked == []


# The hosts file.


@one_look_up
@pytest.mark.parametrize("name_server", [everywhere, silent])
@pytest.mark.parametrize(
    "lines, answer",
    [
        ("127.0.0.1 host.test", FOUND),
        ("::1 host.test", FOUND_BY_IPV6),
        ("127.0.0.9 host.test", CONNECTION_REFUSED),
        ("127.0.0.9 host.test\n::1 host.test", FOUND_BY_IPV6),
        ("127.0.0.1 first.test shared\n127.0.0.9 host.test shared", CONNECTION_REFUSED),
        ("# comment\n \t127.0.0.1\tother HOST.Test#comment", FOUND),
        ("nonsense host.test\n127.0.0.1 host.test", FOUND),
        ("0.0.0.0 other\n" * 5000 + "127.0.0.1 " + "x" * 5000 + " host.test", FOUND),
    ],
    ids=["IPv4", "IPv6", "blocked", "both", "shared", "blanks", "nonsense", "long"],
)
def test_name_in_the_hosts_file_is_not_asked_for(request_by_name, name_server, lines, answer):
    assert request_by_name("http://host.test/", name_server, hosts=lines) == (answer, [])


@one_look_up
@pytest.mark.parametrize("host", ["in-hosts", "IN-HOSTS"])
def test_short_name_in_the_hosts_file_is_not_searched_for(request_by_name, host):
    domains = "search search.test\nnameserver 127.0.0.1\n"
    assert request_by_name(f"http://{host}/", everywhere, resolv_conf=domains) == (FOUND, [])


def test_hosts_file_takes_any_character(request_by_name):
    assert request_by_name("http://a~b/", silent, hosts="127.0.0.1 a~b\n") == (FOUND, [])


@pytest.mark.parametrize(
    "lines",
    ["127.0.0.9 other\n127.0.0.9 host.test.example\n", "#127.0.0.9 host.test", "127.9 host.test", "host.test", ""],
)
def test_name_that_is_not_in_the_hosts_file(request_by_name, lines):
    assert request_by_name("http://host.test/", zone(HERE), hosts=lines) == (FOUND, ["host.test. A AAAA"])


@one_look_up
@pytest.mark.parametrize(
    "services, name_server, answer, asked",
    [
        ("files dns", everywhere, FOUND_BY_IPV6, []),
        ("files", everywhere, FOUND_BY_IPV6, []),
        ("dns files", zone({}), FOUND_BY_IPV6, ["host.test. A AAAA"]),
        ("dns files", zone({"host.test.": ["A 127.0.0.9"]}), CONNECTION_REFUSED, ["host.test. A AAAA"]),
        ("dns", zone({}), NOT_FOUND, ["host.test. A AAAA"]),
    ],
)
def test_order_of_hosts_file_and_dns(request_by_name, services, name_server, answer, asked):
    files = {"hosts": "::1 host.test\n", "nsswitch_conf": f"hosts: {services}\n"}
    assert request_by_name("http://host.test/", name_server, **files) == (answer, asked)


def test_dns_is_not_asked_where_the_hosts_file_is_all(request_by_name):
    assert request_by_name("http://host.test/", everywhere, nsswitch_conf="hosts: files\n") == (NOT_FOUND, [])


# Search domains.

WITH_FINAL_DOT = (NOT_FOUND, ["host.test."])
if libcurl.answer("leaves a final dot out"):
    WITH_FINAL_DOT = (FOUND, ["host.test.", "host.test.one."])


@one_look_up
@pytest.mark.parametrize(
    "host, records, answer, names",
    [
        ("host.test", {"host.test.": ["A 127.0.0.1"], "host.test.one.": ["AAAA ::1"]}, FOUND, ["host.test."]),
        ("host.test", {"host.test.": ["AAAA ::1"], "host.test.one.": ["A 127.0.0.1"]}, FOUND_BY_IPV6, ["host.test."]),
        ("host.test", {"host.test.two.": ["A 127.0.0.1"]}, FOUND, ["host.test.", "host.test.one.", "host.test.two."]),
        ("host.test.", {"host.test.one.": ["A 127.0.0.1"]}, *WITH_FINAL_DOT),
        ("host", {"host.": ["A 127.0.0.1"], "host.one.": ["AAAA ::1"]}, FOUND_BY_IPV6, ["host.one."]),
        ("host", {"host.one.": [], "host.two.": ["A 127.0.0.1"]}, FOUND, ["host.one.", "host.two."]),
        ("host", {"host.": ["A 127.0.0.1"]}, FOUND, ["host.one.", "host.two.", "host."]),
        ("host", {}, NOT_FOUND, ["host.one.", "host.two.", "host."]),
    ],
)
def test_search_domains(request_by_name, host, records, answer, names):
    """One after the other, up to a name that has an address, of whatever family."""
    found = request_by_name(f"http://{host}/", zone(records), resolv_conf="search one two\nnameserver 127.0.0.1\n")
    assert found == (answer, [f"{name} A AAAA" for name in names])


@one_look_up
def test_name_with_dots_may_be_searched_for_first(request_by_name):
    domains = "search one\nnameserver 127.0.0.1\noptions ndots:2\n"
    found = request_by_name("http://host.test/", zone({"host.test.one.": ["A 127.0.0.1"]}), resolv_conf=domains)
    assert found == (FOUND, ["host.test.one. A AAAA"])


@one_look_up
@pytest.mark.parametrize("host", ["host", "host.test"])
def test_search_goes_on_after_a_failure(request_by_name, host):
    name_server = failing(f"{host}.one.", dns.rcode.SERVFAIL, zone({f"{host}.two.": ["A 127.0.0.1"]}))
    answer, asked = request_by_name(
        f"http://{host}/", name_server, resolv_conf="search one two\nnameserver 127.0.0.1\n"
    )
    assert answer == FOUND
    assert each_once(asked[-2:]) == [f"{host}.one. A AAAA", f"{host}.two. A AAAA"]


@only_static
@pytest.mark.parametrize("kinds", [["A"], ["AAAA"], ["A", "AAAA"]])
def test_search_ends_with_a_refusal(request_by_name, kinds):
    """The C library's resolver goes on in some cases."""

    def name_server(query, transport):
        is_refused = kind(query) in kinds and query.question[0].name.to_text() == "host.one."
        return (refused if is_refused else zone({"host.one.": [], "host.two.": ["A 127.0.0.1"]}))(query, transport)

    answer, asked = request_by_name("http://host/", name_server, resolv_conf="search one two\nnameserver 127.0.0.1\n")
    assert (answer, each_once(asked)) == (NOT_FOUND, ["host.one. A AAAA"])


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


def test_late_answer(request_by_name):
    assert request_by_name("http://host.test/|||||30000", late) == (FOUND, ["host.test. A AAAA"])


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


def test_name_server_that_refuses(request_by_name):
    answer, asked = request_by_name("http://host.test/|||||30000", refused)
    assert (answer, each_once(asked)) == (NOT_FOUND, ["host.test. A AAAA"])


def test_no_name_server_is_there(request_by_name):
    found = request_by_name("http://host.test/|||||30000", resolv_conf="nameserver 127.0.0.3\n")
    assert found == (NOT_FOUND, [])


@one_look_up
@pytest.mark.skipif(IS_STATIC, reason="not for this build: the system's resolver takes its time")
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


@one_look_up
def test_redirect_to_another_name(request_by_name):
    names = zone({**HERE, "other.test.": ["AAAA ::1"]})
    found = request_by_name("http://host.test/http://other.test/http://in-hosts/", names)
    assert found == (FOUND, ["host.test. A AAAA", "other.test. A AAAA"])


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
