"""A server that plays scripts: exact bytes, pauses, resets. It records the exact bytes of every request."""

import select
import socket
import struct
import threading
import time

READ_REQUEST = object()  # wait for one whole request and record it
ECHO = object()  # answer with the last request as the body
AWAIT_CLOSE = object()  # wait until the peer has closed the connection
RESET = object()  # abort the connection with a TCP reset

OK = b"HTTP/1.1 200 OK\r\n"


def pause(seconds):
    """A step that waits, for the answers of a slow server."""
    return lambda _: time.sleep(seconds)


def trickle(pieces):
    """A step that sends each piece by itself, for as long as the peer takes them."""

    def send(connection):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for piece in pieces:
            connection.sendall(piece)

    return send


def reply(status, body=b"", *header_lines):
    """The bytes of a response that announces its length and the end of the connection."""
    head = [f"HTTP/1.1 {status} Whatever", f"Content-Length: {len(body)}", "Connection: close", *header_lines]
    return "\r\n".join(head).encode() + b"\r\n\r\n" + body


RESPONSE = reply(200, b"ok")


class ScriptedServer:
    """Serves on a free port of 127.0.0.1, or on `listener`, one connection after the other, a script each.

    A script is a list of steps: bytes to send, one of the constants above, or a callable that takes the connection.
    Bytes in place of a list are the answer to one request. After its script a connection is closed, TLS with a
    close_notify; one for which there is no script is closed at once. A step that fails ends its connection, and raises
    its exception where the server ends.
    """

    def __init__(self, *scripts, tls_context=None, listener=None):
        self.requests = []  # bytes each, in order of arrival
        self._failures = []
        self._scripts = [[READ_REQUEST, script] if isinstance(script, bytes) else script for script in scripts]
        self._tls_context = tls_context
        self._listener = listener or socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self.url = f"{'https' if tls_context else 'http'}://127.0.0.1:{self.port}"
        self._stop, self._stopped = socket.socketpair()
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._stop.close()
        self._thread.join()
        self._stopped.close()
        self._listener.close()
        if self._failures:
            raise self._failures[0]

    def get(self, target=b"/", lines=b"Accept: */*\r\n"):
        """The GET request that asks this server for `target`; `lines` are those behind the Host line."""
        return b"GET %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n%s\r\n" % (target, self.port, lines)

    def _serve(self):
        scripts = iter(self._scripts)
        while self._stopped not in select.select([self._listener, self._stopped], [], [])[0]:
            connection, _ = self._listener.accept()
            try:
                self._play(next(scripts, []), self._secure(connection))
            except OSError:
                pass  # the peer left, as its own results tell
            except BaseException as failure:  # pytest's are no Exceptions
                self._failures.append(failure)

    def _secure(self, connection):
        return self._tls_context.wrap_socket(connection, server_side=True) if self._tls_context else connection

    def _play(self, script, connection):
        with connection:
            for step in script:
                self._take(step, connection)
            if self._tls_context:
                connection.unwrap()

    def _take(self, step, connection):
        if step is READ_REQUEST:
            self.requests.append(_read_request(connection))
        elif step is ECHO:
            connection.sendall(reply(200, self.requests[-1]))
        elif step is AWAIT_CLOSE:
            while connection.recv(65536):
                pass
        elif step is RESET:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        elif isinstance(step, bytes):
            connection.sendall(step)
        else:
            step(connection)


def _read_request(connection):
    request = bytearray()
    while not request.endswith(b"\r\n\r\n"):  # the tool's requests are GETs: they have no body
        received = connection.recv(65536)
        if not received:
            break
        request += received
    return bytes(request)
