"""What the end-to-end tests share. The tool under test is $WEBREQ, else build/release/webreq."""

import contextlib
import datetime
import os
import pathlib
import re
import signal
import socket
import ssl
import subprocess
import sys
import threading
from typing import NamedTuple

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec

from nginx import Nginx
from scripted_server import ScriptedServer

REPOSITORY = pathlib.Path(__file__).parent.parent
WEBREQ = os.path.abspath(os.environ.get("WEBREQ", REPOSITORY / "build/release/webreq"))

# The project's.
VERSION, DATE = re.search(
    r'^project\(webreq VERSION (\S+) .*\nset\(WEBREQ_DATE "(.*)"\)', (REPOSITORY / "CMakeLists.txt").read_text(), re.M
).groups()
BUILD_DATE = datetime.datetime.strptime(DATE, "%B %d, %Y")

# The build's folder and the executable in it. WEBREQ may be a script: valgrind or an emulator runs the executable then.
BUILD = pathlib.Path(WEBREQ).parent
EXECUTABLE = BUILD / "webreq"
OBJECTS = [BUILD / name for name in ("CMakeFiles/webreq.dir/app/main.cpp.o", "libfront_end.a", "libreqkit.a")]

IS_SANITIZED = b"__asan_init" in EXECUTABLE.read_bytes()  # such tools need seconds to start when many start at once
IS_STATIC = b"libcurl/" in EXECUTABLE.read_bytes()  # libcurl is in it, and nothing can be preloaded


def unless(condition, reason):
    """Skips a test that this build has no use for, in CI as well; for any other reason to skip, CI fails."""
    return pytest.mark.skipif(condition, reason=f"not for this build: {reason}")


only_static = unless(not IS_STATIC, "for the static executable")

MEMORY = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES")  # bytes

# Proxies of the machine must not come between the tool and loopback.
ENVIRONMENT = {name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")}

# The program that translates the tool's machine code, if it is for another processor.
TRANSLATOR = os.environ.get("TRANSLATOR")


def impossible_under_translator(reason):
    return unless(TRANSLATOR is not None, f"{TRANSLATOR}: {reason}")


def impossible_on_macos(reason):
    return unless(sys.platform == "darwin", f"macOS: {reason}")


def preloading(name):
    """Environment variables that make the loader preload the build's NAME.so. LD_PRELOAD takes no path with blanks."""
    folders = [str(BUILD), os.environ.get("LD_LIBRARY_PATH")]
    return {"LD_PRELOAD": f"{name}.so", "LD_LIBRARY_PATH": ":".join(filter(None, folders))}


class Answer(NamedTuple):
    """All that a caller sees of a run."""

    stdout: bytes
    stderr: bytes = b""
    status: int = 0


ANSWERED = Answer(b"200\nok\n")  # by scripted_server.RESPONSE


def kill_session(leader):
    with contextlib.suppress(ProcessLookupError):  # it has ended
        os.killpg(leader.pid, signal.SIGKILL)


class Tool:
    """Runs the tool. A run that lasts `timeout` seconds is ended and fails the test."""

    path = WEBREQ

    def run(self, *arguments, **options):
        """Runs the tool with these arguments; `options` are subprocess.Popen's."""
        return self.run_command([self.path, *arguments], **options)

    def request(self, description, **options):
        return self.run("-web", description, **options)

    def run_command(self, command, **options):
        """Runs a command that runs the tool."""
        with self.start(command, **options) as process:
            return Answer(*process.communicate(), process.returncode)

    @contextlib.contextmanager
    def start(self, command, timeout=60, **options):
        """Starts a command that runs the tool. Its whole session ends here, however the test ends."""
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "env": ENVIRONMENT, **options}
        expired = threading.Event()
        with subprocess.Popen(command, start_new_session=True, **options) as process:
            timer = threading.Timer(timeout, lambda: (expired.set(), kill_session(process)))
            timer.start()
            try:
                yield process
            finally:
                timer.cancel()
                kill_session(process)
        if expired.is_set():
            raise subprocess.TimeoutExpired(command, timeout)


@pytest.fixture(name="tool")
def make_tool(tmp_path, monkeypatch):
    """The tool, in an empty working directory."""
    monkeypatch.chdir(tmp_path)
    return Tool()


@pytest.fixture
def serve():
    """Starts a scripted server; the arguments are ScriptedServer's."""
    with contextlib.ExitStack() as servers:
        yield lambda *scripts, **options: servers.enter_context(ScriptedServer(*scripts, **options))


@pytest.fixture
def refusing():
    """An address that refuses connections: its port is bound but not listening, so nobody else can take it."""
    with socket.socket() as bound:
        bound.bind(("127.0.0.1", 0))
        yield "127.0.0.1:%d/" % bound.getsockname()[1]


@pytest.fixture(name="nginx", scope="session")
def run_nginx():
    with Nginx() as server:
        yield server


class Certificate(NamedTuple):
    """A self-signed certificate; `server_context` serves it."""

    path: pathlib.Path
    server_context: ssl.SSLContext


@pytest.fixture(scope="session")
def make_certificate(tmp_path_factory):
    """Makes a self-signed certificate for `name` that is valid from `first_day` to `last_day`, counted from today."""

    def make(name, first_day=-2, last_day=+2):
        key = ec.generate_private_key(ec.SECP256R1())
        subject = x509.Name([x509.NameAttribute(x509.NameOID.COMMON_NAME, name)])
        today = datetime.datetime.now(datetime.timezone.utc)
        certificate = (
            x509.CertificateBuilder()
            .subject_name(subject)
            .issuer_name(subject)
            .public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(today + datetime.timedelta(days=first_day))
            .not_valid_after(today + datetime.timedelta(days=last_day))
            .add_extension(x509.SubjectAlternativeName([x509.DNSName(name)]), critical=False)
            .sign(key, hashes.SHA256())
        )
        path = tmp_path_factory.mktemp("certificate") / "server.pem"
        path.write_bytes(
            key.private_bytes(
                serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()
            )
            + certificate.public_bytes(serialization.Encoding.PEM)
        )
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(path)
        return Certificate(path, context)

    return make
