"""A name server in a network of the tool's own, and web servers there.

What a name server answers is a function that takes a query and "UDP" or "TCP".
"""

import contextlib
import select
import socket
import socketserver
import threading

import dns.message
import dns.rcode
import dns.rdatatype
import dns.rrset
import own_network

FILES = {
    "resolv_conf": "nameserver 127.0.0.1\n",
    "hosts": "127.0.0.1 localhost in-hosts\n",
    "host_conf": "multi on\n",  # as Debian has it: a name may have several lines
    "nsswitch_conf": "hosts: files dns\n",
}


def zone(records):
    """By name what it holds, such as "A 127.0.0.1"."""

    def answer(query, _):
        response = dns.message.make_response(query, recursion_available=True)
        name = query.question[0].name.to_text().lower()
        while name:
            if name not in records:
                response.set_rcode(dns.rcode.NXDOMAIN)
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


def everywhere(query, transport):
    """Every name has the servers' addresses."""
    return zone({query.question[0].name.to_text(): ["A 127.0.0.1", "AAAA ::1"]})(query, transport)


def failing(rcode):
    def answer(query, _):
        response = dns.message.make_response(query, recursion_available=True)
        response.set_rcode(dns.rcode.from_text(rcode))
        return response

    return answer


refused = failing("REFUSED")


def dropping(is_dropped, otherwise):
    return lambda query, transport: None if is_dropped(query) else otherwise(query, transport)


def silent(_query, _transport):
    return None


def kind(query):
    return dns.rdatatype.to_text(query.question[0].rdtype)


def is_for(name):
    return lambda query: kind(query) == name


class Network:
    """The tool's network and the servers in it. `answers` are those of the name servers 127.0.0.1 and 127.0.0.2."""

    def __init__(self, *answers):
        self.enter = None  # begins a command that runs there
        self._answers = dict(zip(["127.0.0.1", "127.0.0.2"], answers))
        self._asked = {}  # by name its questions

    @property
    def asked(self):
        """What was asked of DNS, name by name in order of arrival, such as "host.test. A AAAA". A question is there as
        often as it was asked: twice when a resolver waited for an answer and lost patience."""
        return [" ".join([name, *sorted(questions)]) for name, questions in self._asked.items()]

    @contextlib.contextmanager
    def serve(self, sockets):
        servers = [server for server in map(self._server_on, sockets) if server]
        ours, theirs = socket.socketpair()
        thread = threading.Thread(target=handle_requests, args=[servers, theirs])
        thread.start()
        try:
            yield
        finally:
            ours.close()
            thread.join()
            theirs.close()
            for server in servers:
                server.server_close()  # ends with the last request's thread

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
            with contextlib.suppress(OSError):  # the run has ended, and the socket is closed
                opened.sendto(response, peer)

    def _tcp(self, address, connection):
        while size := int.from_bytes(connection.recv(2, socket.MSG_WAITALL), "big"):
            if response := self._respond(address, connection.recv(size, socket.MSG_WAITALL), "TCP"):
                connection.sendall(len(response).to_bytes(2, "big") + response)

    def _respond(self, address, wire, transport):
        query = dns.message.from_wire(wire)
        question = kind(query) + ("/TCP" if transport == "TCP" else "") + ("+EDNS" if query.edns >= 0 else "")
        self._asked.setdefault(query.question[0].name.to_text(), []).append(question)
        response = self._answers.get(address, silent)(query, transport)
        return response and response.to_wire()


def handle_requests(servers, end):
    """Ends when the peer of `end` has been closed and nothing is left: what a run has sent counts, though it may have
    ended without waiting for the answer."""
    while (ready := select.select([*servers, end], [], [])[0]) != [end]:
        for server in ready:
            if server is not end:
                server.handle_request()


SILENT = [("::1", 81), ("127.0.0.1", 82)]


def answer_request(connection, peer):
    """The body is the address that the client connected to. A path "/http://..." leads there. SOCKS 4 is answered by
    the address that the client wants to be connected with."""
    request = connection.recv(65536)
    body = connection.getsockname()[0]
    if request.startswith(b"\x04"):
        body = socket.inet_ntoa(request[4:8])
        connection.sendall(b"\0\x5a" + bytes(6))
        request = connection.recv(65536)
    if not request:
        return  # the client has tried two addresses, and taken the other
    target = request.split()[1].decode()
    head = f"302 Found\r\nLocation: {target[1:]}" if target.startswith("/http") else "200 OK"
    connection.sendall(f"HTTP/1.0 {head}\r\n\r\n{body}".encode())


def make_server(base, opened, handle):
    """A server on an open socket; `handle` takes the request and the peer's address."""

    class Server(socketserver.ThreadingMixIn, base):
        """Each request has a thread."""

        def finish_request(self, request, client_address):
            handle(request, client_address)

    server = Server(None, None, bind_and_activate=False)
    server.socket.close()
    server.socket = opened.dup()
    server.timeout = 0
    return server


@contextlib.contextmanager
def start(folder, *answers, ipv6=True, **files):
    """Starts a network: `answers` are those of its name servers; `folder` is made and becomes /etc, with `files`."""
    folder.mkdir()
    for name, text in {**FILES, **files}.items():
        (folder / name.replace("_", ".")).write_text(text)
    network = Network(*answers)
    with own_network.start(folder, ipv6) as (network.enter, sockets), network.serve(sockets):
        yield network
