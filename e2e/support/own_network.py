"""A network and a folder /etc of one run's own, so that the tool's name server can be a script.

As a command, started by `run`: "own_network.py SOCKET FOLDER COMMAND [ARGUMENT ...]" puts FOLDER in the place of /etc,
sends listening sockets through SOCKET, awaits a byte and becomes COMMAND.
"""

import fcntl
import os
import socket
import struct
import subprocess
import sys

SIOCSIFFLAGS = 0x8914
IFF_UP = 1
NEW = ["unshare", *([] if os.geteuid() == 0 else ["--map-root-user"]), "--net", "--mount"]


def is_possible():
    """Some systems keep namespaces from ordinary users, some containers from all."""
    return sys.platform == "linux" and subprocess.run([*NEW, "true"], capture_output=True, check=False).returncode == 0


def run(command, folder, serve, **options):
    """Runs a command there, with `folder` as /etc; returns what subprocess.run returns.

    `serve` takes the sockets that `listen` makes, in a list, and is a context manager around the run.
    """
    ours, theirs = socket.socketpair()
    with ours, theirs:
        start = [*NEW, sys.executable, __file__, str(theirs.fileno()), folder, *command]
        with subprocess.Popen(start, pass_fds=[theirs.fileno()], stdout=-1, stderr=-1, **options) as process:
            theirs.close()
            _, descriptors, _, _ = socket.recv_fds(ours, 1, 16)
            with serve([socket.socket(fileno=descriptor) for descriptor in descriptors]):
                ours.send(b"!")
                try:
                    output, errors = process.communicate(timeout=60)
                except subprocess.TimeoutExpired:
                    process.kill()
                    raise
                return subprocess.CompletedProcess(command, process.returncode, output, errors)


def listen():
    """Name servers on 127.0.0.1 and 127.0.0.2, UDP and TCP; web servers on port 80 of 127.0.0.1 and ::1. Connections
    are not answered at port 81 of ::1, nor at port 82 of 127.0.0.1."""
    sockets = []
    for address in ("127.0.0.1", "127.0.0.2"):
        sockets.append(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        sockets[-1].bind((address, 53))
        sockets.append(socket.create_server((address, 53)))
    for address, port in (("127.0.0.1", 80), ("::1", 80), ("127.0.0.1", 81), ("::1", 82)):
        sockets.append(socket.create_server((address, port), family=_family(address)))
    for address, port in (("::1", 81), ("127.0.0.1", 82)):
        sockets += _silent(address, port)
    return sockets


def _family(address):
    return socket.AF_INET6 if ":" in address else socket.AF_INET


def _silent(address, port):
    """One connection fills the queue, and nobody accepts."""
    listener = socket.create_server((address, port), family=_family(address), backlog=0)
    return [listener, socket.create_connection((address, port))]


def main():
    control, folder, *command = sys.argv[1:]
    with socket.socket() as any_socket:
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", IFF_UP))
    listeners = listen()
    subprocess.run(["mount", "--bind", folder, "/etc"], check=True)
    with socket.socket(fileno=int(control)) as test:
        socket.send_fds(test, [b"!"], [listener.fileno() for listener in listeners])
        for listener in listeners:
            listener.close()
        test.recv(1)
    os.execvp(command[0], command)


if __name__ == "__main__":
    main()
