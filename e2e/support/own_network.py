"""A network and a folder /etc of a test's own, so that the tool's name server can be a script.

As a command it is what `start` runs there: "own_network.py SOCKET FOLDER IPV6" puts FOLDER in the place of /etc, sends
listening sockets through SOCKET and stays until the other end of that is closed.
"""

import contextlib
import fcntl
import os
import pathlib
import select
import socket
import struct
import subprocess
import sys

SIOCSIFFLAGS = 0x8914
IFF_UP = 1

# Why a test is skipped where no network can be made.
REASON = "not for this build: macOS: no namespaces" if sys.platform == "darwin" else "no namespace can be made here"

IS_ROOT = os.geteuid() == 0
NEW = ["unshare", *([] if IS_ROOT else ["--map-root-user"]), "--net", "--mount"]
ENTER = ["nsenter", *([] if IS_ROOT else ["--user", "--preserve-credentials"]), "--net", "--mount", "--target"]


def is_possible():
    """Some systems keep namespaces from ordinary users, some containers from all."""
    return sys.platform == "linux" and subprocess.run([*NEW, "true"], capture_output=True, check=False).returncode == 0


@contextlib.contextmanager
def start(folder, ipv6=True):
    """A network with `folder` as /etc, without addresses of IPv6 if it is switched off there. A command behind the
    first thing that this yields runs in it. The second are the sockets that `listen` makes."""
    ours, theirs = socket.socketpair()
    hold = [*NEW, sys.executable, __file__, str(theirs.fileno()), folder, str(int(ipv6))]
    with contextlib.ExitStack() as stack:
        holder = stack.enter_context(subprocess.Popen(hold, pass_fds=[theirs.fileno()]))
        stack.enter_context(ours)  # it is closed first, which ends the holder
        theirs.close()
        ours.settimeout(60)
        _, descriptors, _, _ = socket.recv_fds(ours, 1, 16)
        sockets = [stack.enter_context(socket.socket(fileno=descriptor)) for descriptor in descriptors]
        assert sockets, "the network could not be made: standard error says why"
        yield [*ENTER, str(holder.pid)], sockets


def hold(control, folder, ipv6):
    if ipv6 == "0":
        pathlib.Path("/proc/sys/net/ipv6/conf/all/disable_ipv6").write_text("1")
    with socket.socket() as any_socket:
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", IFF_UP))
    listeners = listen(ipv6 == "1")
    subprocess.run(["mount", "--bind", folder, "/etc"], check=True)
    with socket.socket(fileno=int(control)) as test:
        socket.send_fds(test, [b"!"], [listener.fileno() for listener in listeners])
        for listener in listeners:
            listener.close()
        test.recv(1)


def listen(ipv6):
    """Name servers on 127.0.0.1 and 127.0.0.2, UDP and TCP; web servers on port 80 of 127.0.0.1, .4, .5 and ::1.
    Connections are not answered at port 81 of ::1, nor at port 82 of 127.0.0.1."""
    sockets = []
    for address in ("127.0.0.1", "127.0.0.2"):
        sockets.append(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        sockets[-1].bind((address, 53))
        sockets.append(socket.create_server((address, 53)))
    for address in (("127.0.0.1", 80), ("127.0.0.1", 81), ("127.0.0.4", 80), ("127.0.0.5", 80)):
        sockets.append(socket.create_server(address))
    sockets += silent_sockets("127.0.0.1", 82)
    if ipv6:
        for port in (80, 82):
            sockets.append(socket.create_server(("::1", port), family=socket.AF_INET6))
        sockets += silent_sockets("::1", 81)
    return sockets


def silent_sockets(address, port):
    """A listener on which connecting gets no answer, and the connection that fills its queue; nobody accepts."""
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    listener = socket.create_server((address, port), family=family, backlog=0)
    connection = socket.create_connection(listener.getsockname()[:2])
    select.select([listener], [], [])  # the connection is in the queue
    return [listener, connection]


if __name__ == "__main__":
    hold(*sys.argv[1:])
