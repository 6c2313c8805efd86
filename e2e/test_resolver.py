"""Host names, looked up at a scripted name server: what a request comes to, and how long it takes.

The C library's resolver has time-outs of its own, which a request outlasts: those cases are for the static executable.
"""

import contextlib
import shutil
import socket
import socketserver
import threading
import time

import libcurl
import own_network
import pytest
from conftest import ENVIRONMENT, EXECUTABLE, IS_SANITIZED, IS_STATIC, WEBREQ, Answer, impossible_under_translator

if not own_network.is_possible():
    pytest.skip("no network namespace can be made here", allow_module_level=True)

import dns.flags
import dns.message
import dns.rcode
import dns.rrset

only_static = pytest.mark.skipif(not IS_STATIC, reason="another resolver, which takes its time")

PROMPT = 20 if IS_SANITIZED else 2  # seconds: less than resolvers wait for a server that doesn't answer

HERE = {"host.test.": ["A 127.0.0.1"]}


def zone(records):
    """A name server's answers from `records`: by name what it holds, such as "A 127.0.0.1"."""

    def answer(query, _):
        response = dns.message.make_response(query, recursion_available=True)
        name = query.question[0].name.to_text()
        if name not in records:
            response.set_rcode(dns.rcode.NXDOMAIN)
        while name:
            name = add_records(response, name, records.get(name, []))
        return response

    return answer


def add_records(response, name, records):
    """Adds those of the asked type, and all CNAMEs; returns the name that one leads to."""
    target = None
    for record in records:
        kind, value = record.split()
        target = value if kind == "CNAME" else target
        if kind in ("CNAME", dns.rdatatype.to_text(response.question[0].rdtype)):
            response.answer.append(dns.rrset.from_text(name, 60, "IN", kind, value))
    return target


def refused(query, _):
    response = dns.message.make_response(query, recursion_available=True)
    response.set_rcode(dns.rcode.REFUSED)
    return response


def silent(_query, _transport):
    return None


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


class Network:
    """The servers in the tool's network. `answers` are those of the name servers 127.0.0.1 and 127.0.0.2."""

    def __init__(self, *answers):
        self.answers = dict(zip(["127.0.0.1", "127.0.0.2"], answers))
        self.queries = []  # such as "UDP host.test. A", in order of arrival

    @contextlib.contextmanager
    def serve(self, sockets):
        servers = [server for server in map(self._server_on, sockets) if server]
        threads = [threading.Thread(target=server.serve_forever, args=[0.05]) for server in servers]
        for thread in threads:
            thread.start()
        try:
            yield
        finally:
            for server, thread in zip(servers, threads):
                server.shutdown()
                thread.join()
            for opened in sockets:
                opened.close()

    def _server_on(self, opened):
        address, port = opened.getsockname()[:2]
        if opened.type == socket.SOCK_DGRAM:
            return make_server(socketserver.UDPServer, opened, lambda request, peer: self._udp(address, *request, peer))
        if not opened.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN) or (address, port) in SILENT:
            return None
        handle = (lambda request, _: self._tcp(address, request)) if port == 53 else answer_request
        return make_server(socketserver.TCPServer, opened, handle)

    def _udp(self, address, query, opened, peer):
        if response := self._respond(address, query, "UDP"):
            opened.sendto(response, peer)

    def _tcp(self, address, connection):
        while size := int.from_bytes(connection.recv(2, socket.MSG_WAITALL), "big"):
            if response := self._respond(address, connection.recv(size, socket.MSG_WAITALL), "TCP"):
                connection.sendall(len(response).to_bytes(2, "big") + response)

    def _respond(self, address, wire, transport):
        query = dns.message.from_wire(wire)
        question = query.question[0]
        self.queries.append(f"{transport} {question.name} {dns.rdatatype.to_text(question.rdtype)}")
        response = self.answers.get(address, silent)(query, transport)
        return response and response.to_wire()


SILENT = [("::1", 81), ("127.0.0.1", 82)]


def answer_request(connection, peer):
    """The body is the address that the client connected to."""
    connection.recv(65536)
    connection.sendall(b"HTTP/1.0 200 OK\r\n\r\n" + peer[0].encode())


def make_server(kind, opened, handle):
    """A server on an open socket; `handle` takes the request and the peer's address."""

    class Server(socketserver.ThreadingMixIn, kind):
        """Each request has a thread."""

        def finish_request(self, request, client_address):
            handle(request, client_address)

    server = Server(None, None, bind_and_activate=False)
    server.socket.close()
    server.socket = opened
    return server


@pytest.fixture
def request_by_name(tmp_path):
    """Performs a request where name servers give `answers`; returns the answer, the seconds it took and the queries.
    `files` are those of /etc; `command` runs the tool."""

    def request(description, *answers, command=(WEBREQ,), **files):
        folder = tmp_path / "etc"
        folder.mkdir()
        for name, text in {**FILES, **files}.items():
            (folder / name.replace("_", ".")).write_text(text)
        network = Network(*answers)
        start = time.monotonic()
        run = own_network.run([*command, "-web", description], folder, network.serve, env=ENVIRONMENT)
        answer = Answer(run.stdout, run.stderr, run.returncode)
        return answer, time.monotonic() - start, network.queries

    return request


FILES = {
    "resolv_conf": "nameserver 127.0.0.1\n",
    "hosts": "127.0.0.1 localhost in-hosts\n",
    "nsswitch_conf": "hosts: files dns\n",
}
FOUND = Answer(b"200\n127.0.0.1\n")
NOT_FOUND = Answer(b"6\n")
TIMED_OUT = Answer(b"28\n")


def test_address(request_by_name):
    answer, seconds, queries = request_by_name("http://host.test/", zone(HERE))
    assert answer == FOUND and seconds < PROMPT
    assert set(queries) == {"UDP host.test. A", "UDP host.test. AAAA"}


def test_name_that_does_not_exist(request_by_name):
    answer, seconds, _ = request_by_name("http://host.test/", zone({}))
    assert answer == NOT_FOUND and seconds < PROMPT


def test_chain_of_aliases(request_by_name):
    chain = {f"a{i}.test.": [f"CNAME a{i + 1}.test."] for i in range(8)}
    answer, seconds, _ = request_by_name("http://a0.test/", zone({**chain, "a8.test.": ["A 127.0.0.1"]}))
    assert answer == FOUND and seconds < PROMPT


def test_alias_that_leads_nowhere(request_by_name):
    answer, seconds, _ = request_by_name("http://a0.test/", zone({"a0.test.": ["CNAME a1.test."]}))
    assert answer == NOT_FOUND and seconds < PROMPT


def test_truncated_answer_is_asked_for_by_tcp(request_by_name):
    answer, seconds, queries = request_by_name("http://host.test/", truncated)
    assert answer == FOUND and seconds < PROMPT
    assert {"UDP host.test. A", "TCP host.test. A"} <= set(queries)


def test_late_answer(request_by_name):
    answer, seconds, _ = request_by_name("http://host.test/|||||5000", late)
    assert answer == FOUND and 1 <= seconds < 1 + PROMPT


@pytest.mark.parametrize("first", [refused, zone({}), silent], ids=["refuses", "knows nothing", "is silent"])
def test_second_name_server(request_by_name, first):
    """It is asked when the first has no answer; that a name doesn't exist is one."""
    servers = "nameserver 127.0.0.1\nnameserver 127.0.0.2\noptions timeout:1\n"
    answer, seconds, _ = request_by_name("http://host.test/|||||5000", first, zone(HERE), resolv_conf=servers)
    assert answer == (FOUND if first in (refused, silent) else NOT_FOUND) and seconds < 5


def test_search_domain(request_by_name):
    found = zone({"host.second.test.": ["A 127.0.0.1"]})
    domains = "search first.test second.test\nnameserver 127.0.0.1\n"
    answer, seconds, queries = request_by_name("http://host/", found, resolv_conf=domains)
    assert answer == FOUND and seconds < PROMPT
    assert {"UDP host.first.test. A", "UDP host.second.test. A"} <= set(queries)


def test_localhost_is_known(request_by_name):
    answer, seconds, queries = request_by_name("http://localhost/", silent)
    assert answer.stdout.startswith(b"200\n") and seconds < PROMPT
    assert queries == []


@pytest.mark.parametrize("name_server", [zone({}), pytest.param(silent, marks=only_static)], ids=["another", "silent"])
def test_name_in_etc_hosts(request_by_name, name_server):
    """Its address counts, though a name server may be asked for one of the other kind, which is not in the file."""
    answer, seconds, queries = request_by_name("http://in-hosts/", name_server)
    assert answer == FOUND and seconds < PROMPT
    assert "UDP in-hosts. A" not in queries


@pytest.mark.parametrize(
    "records, port, body",
    [
        (["A 127.0.0.1"], 80, b"127.0.0.1"),
        (["AAAA ::1"], 80, b"::1"),
        (["A 127.0.0.1", "AAAA ::1"], 81, b"127.0.0.1"),  # where the other one doesn't answer connections
        (["A 127.0.0.1", "AAAA ::1"], 82, b"::1"),
        (["A 127.0.0.9", "AAAA ::1"], 80, b"::1"),  # where the other one refuses them
        (["A 127.0.0.9", "A 127.0.0.1"], 80, b"127.0.0.1"),
    ],
)
def test_address_that_answers_is_found(request_by_name, records, port, body):
    answer, seconds, _ = request_by_name(f"http://host.test:{port}/", zone({"host.test.": records}))
    assert answer == Answer(b"200\n%s\n" % body) and seconds < PROMPT


def test_name_server_that_refuses(request_by_name):
    answer, seconds, _ = request_by_name("http://host.test/|||||30000", refused)
    assert answer == NOT_FOUND and seconds < PROMPT


def one_kind(query, transport):
    """Addresses of the other kind are not answered."""
    return zone(HERE)(query, transport) if query.question[0].rdtype == dns.rdatatype.A else None


@pytest.mark.skipif(IS_STATIC, reason="the system's resolver takes its time")
@pytest.mark.parametrize("name_server, seconds", [(silent, 10), (one_kind, 15)])
def test_silent_name_server_outlasts_the_time_out(request_by_name, name_server, seconds):
    """Newer versions of libcurl wait for it; older ones break off at the time-out."""
    answer, taken, _ = request_by_name("http://host.test/", name_server)
    assert answer == TIMED_OUT
    assert taken >= seconds if libcurl.answer("hanging resolver") else 2 <= taken < seconds


@only_static
@pytest.mark.parametrize("text, least", [("999", 1), ("1500", 1), ("2000", 2), ("", 2)])
def test_time_out_holds_while_no_name_server_answers(request_by_name, text, least):
    answer, seconds, queries = request_by_name(f"http://host.test/|||||{text}", silent)
    assert answer == TIMED_OUT and least <= seconds < least + 1.5
    assert queries != []


@only_static
def test_time_out_holds_while_an_answer_is_late(request_by_name):
    answer, seconds, _ = request_by_name("http://host.test/|||||999", lambda *query: time.sleep(3))
    assert answer == TIMED_OUT and 1 <= seconds < 2.5


def test_no_name_server_is_there(request_by_name):
    answer, seconds, _ = request_by_name("http://host.test/|||||30000", resolv_conf="nameserver 127.0.0.3\n")
    assert answer == NOT_FOUND and seconds < PROMPT


@only_static
@impossible_under_translator("it would have to be there, too")
@pytest.mark.parametrize("host", ["127.0.0.1", "host.test", "in-hosts", "localhost"])
def test_executable_alone_in_an_empty_root(request_by_name, tmp_path, host):
    root = tmp_path / "root"
    (root / "etc").mkdir(parents=True)
    shutil.copy(EXECUTABLE, root)
    for name in ("resolv.conf", "hosts"):
        (root / "etc" / name).write_text(FILES[name.replace(".", "_")])
    answer, _, _ = request_by_name(f"http://{host}:81/", zone(HERE), command=["chroot", root, "/webreq"])
    assert answer == FOUND
