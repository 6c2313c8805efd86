"""Which libcurl the tool runs on, and its answers where versions of libcurl differ.

The tool leaves to libcurl what a broken answer comes to and which URLs are well-formed. Nothing of the tool's own
differs between versions.
"""

import ctypes
import functools
import pathlib
import re
import socket
import subprocess

from conftest import ENVIRONMENT, IS_STATIC, TRANSLATOR, WEBREQ

CONTROLS = bytes([*range(1, 32), 127])

# What the tool prints, unless the comment says otherwise. A value holds from its version until the next one listed.
# 7.88.1 is Debian 12's, which has 8.3.0's limit on the headers as a whole.
ANSWERS = {
    # The protocol of a request over TLS, as nginx names it.
    "protocol over TLS": {"7.54.0": b"HTTP/1.1", "7.62.0": b"HTTP/2.0"},
    # URLs.
    "http://a b/": {"7.54.0": b"6\n", "7.60.0": b"3\n"},
    "http://[x/": {"7.54.0": b"6\n", "7.67.0": b"3\n"},
    "space in the path": {"7.54.0": b"200\nok\n", "7.79.1": b"3\n"},
    "nonsense://127.0.0.1/": {"7.54.0": b"1\n", "7.64.1": b"6\n", "7.65.1": b"1\n"},
    "file:// on a folder": {"7.54.0": b"0\n", "7.75.0": b"36\n", "7.79.1": b"0\n", "8.8.0": b"0\nfile\n\n"},
    # Bytes that it refuses: in a URL behind the host, as the first of a host. How it sends one beyond ASCII in a path.
    "refused bytes": {"7.54.0": b"\n\r", "7.64.1": CONTROLS, "7.79.1": CONTROLS + b" "},
    "refused first bytes": {
        "7.54.0": b"\n\r#/:?",
        "7.64.1": CONTROLS + b"#/:?[",
        "7.88.1": CONTROLS + b"!\"#$&'()*+,/:;<=>?[\\]^`{}",
    },
    "byte beyond ASCII in a path": {"7.54.0": b"%c", "7.88.1": b"%%%02x", "8.15.0": b"%%%02X"},
    # The path that it asks for when a "#" in the URL swallows the rest.
    "/x#x#?": {"7.54.0": b"/x", "7.64.1": b"/x#x#?", "7.79.1": b"/x"},
    # Is a name's final dot dropped, so that the search domains are tried?
    "leaves a final dot out": {"7.54.0": True, "7.64.1": False},
    # SOCKS 4 (IPv4 alone): the answer, and what is asked of DNS, for a name with addresses of both families, and for
    # one with an IPv6 address in the hosts file.
    "SOCKS 4 and both families": {
        "7.54.0": (b"6\n", ["host.test. A AAAA"]),
        "7.79.1": (b"200\n192.0.2.7\n", ["host.test. A AAAA"]),
        "7.88.1": (b"200\n192.0.2.7\n", ["host.test. A"]),
    },
    "SOCKS 4 and IPv6 in the hosts file": {
        "7.54.0": (b"6\n", []),
        "7.79.1": (b"97\n", []),
        "7.88.1": (b"200\n192.0.2.7\n", ["host.test. A"]),
    },
    # Redirects: before 7.65.2 they also lead to schemes other than HTTP(S) and FTP(S).
    "redirect to gopher": {"7.54.0": b"7\n", "7.65.2": b"1\n"},
    # Do Authorization and Cookie lines go along to another host, to another port? Does the URL's own password?
    "passwords to another host": {"7.54.0": True, "7.64.1": False},
    "passwords to another port": {"7.54.0": True, "7.88.1": False},
    "URL's password to another host": {"7.54.0": False},
    "URL's password to another port": {"7.54.0": False, "7.79.1": True, "7.88.1": False},
    "endless redirects": {"7.54.0": b"28\n", "7.88.1": b"56\n", "8.0.0": b"28\n", "8.3.0": b"47\n"},
    # Proxies: over TLS, certified by the system's authorities; the same without a list of them; at a Unix socket, in
    # whose place older ones ask port 1080, whatever that is here (None); one that refuses a tunnel.
    "trusted proxy": {"7.54.0": b"60\n", "7.62.0": b"200\nok\n"},
    "proxy without authorities": {"7.54.0": b"60\n", "7.62.0": b"77\n"},
    "proxy at a Unix socket": {"7.54.0": None, "7.84.0": b"200\nok\n"},
    "refused tunnel": {"7.54.0": b"56\n", "8.20.0": b"7\n"},
    # Answers that aren't HTTP: before 7.66 they are bodies without a status.
    "garbage": {"7.54.0": b"0\nThis is no HTTP.\r\n\r\n\n", "7.66.0": b"1\n"},
    "TLS where HTTP is expected": {"7.54.0": b"0\n\x15\x03\x03\0\x02\x02\x28\n", "7.66.0": b"1\n"},
    "unknown version": {"7.54.0": b"200\nabcd\n", "7.79.1": b"1\n"},
    # Transfer encodings other than chunked, which no request asks for: decoded, delivered as they are, refused.
    "transfer encoding": {"7.54.0": b"decoded", "8.1.0": b"delivered", "8.14.0": b"61\n"},
    # Headers.
    "negative length": {"7.54.0": b"200\nabcd\n", "7.60.0": b"8\n"},
    "length of more than 64 bits": {"7.54.0": b"18\nabcd\n", "7.60.0": b"200\nabcd\n"},
    "two lengths": {"7.54.0": b"200\nabcd\n", "8.17.0": b"8\n"},
    "too long header line": {"7.54.0": b"27\n", "8.6.0": b"100\n"},
    "5000 header lines": {"7.54.0": b"200\nok\n", "8.14.1": b"100\n"},
    "endless headers": {"7.54.0": b"28\n", "7.88.1": b"56\n", "8.0.0": b"28\n", "8.3.0": b"56\n", "8.14.1": b"100\n"},
    # No memory for its receive buffer: does it give out a handle all the same, and crash?
    "no receive buffer, but a handle": {"7.54.0": True, "7.55.0": False},
    # What comes of fewer descriptors than it needs, where the loader has enough.
    "too few descriptors": {"7.54.0": [], "7.88.1": [b"7\n"], "8.22.0": [b"7\n", b"27\n"]},
    # Does it have LibreSSL read its configuration, and free what it has allocated?
    "configures LibreSSL": {"7.54.0": False, "8.4.0": True},
    "cleans LibreSSL up": {"7.54.0": True, "8.6.0": False},
    # A negative TIMEOUT and a silent server: libcurl refuses the number, so that its own 300 seconds for connecting are
    # in force, or waits 2^32 seconds less that many, for which no test waits (None).
    "negative time-out": {"7.54.0": None, "7.57.0": b"28\n", "8.15.0": None},
    # The secrets of TLS 1.2 in the file that SSLKEYLOGFILE names.
    "appends TLS secrets": {"7.54.0": False, "7.64.1": True},
    # Is the resolver asked for each family by itself? Is one awaited that takes longer than the time-out?
    "looks each family up by itself": {"7.54.0": False, "8.20.0": True},
    "hanging resolver": {"7.54.0": False, "7.62.0": True, "8.16.0": False, "8.17.0": True},
    # Connections that end too early; TLS is cut off when no close_notify comes before the end.
    "TLS cut off behind the body": {"7.54.0": b"200\nbody\n"},
    "TLS cut off": {"7.54.0": b"56\nbody\n", "7.88.1": b"200\nbody\n", "8.14.1": b"56\nbody\n"},
    "RST_STREAM": {
        "7.54.0": b"92\nhalf\0\n",
        "7.67.0": b"18\nhalf\0\n",
        "7.79.1": b"92\nhalf\0\n",
        "8.1.2": b"18\nhalf\0\n",
        "8.4.0": b"92\nhalf\0\n",
    },
    "GOAWAY": {
        "7.54.0": b"16\nhalf\0\n",
        "7.67.0": b"18\nhalf\0\n",
        "7.79.1": b"16\nhalf\0\n",
        "8.1.2": b"55\nhalf\0\n",
        "8.4.0": b"56\nhalf\0\n",
    },
    "HTTP/2 closed": {"7.54.0": b"18\nhalf\0\n", "7.79.1": b"92\nhalf\0\n", "7.88.1": b"18\nhalf\0\n"},
    "HTTP/2 cut off": {"7.54.0": b"56\nhalf\0\n", "7.88.1": b"18\nhalf\0\n", "8.14.1": b"56\nhalf\0\n"},
}

# On OpenSSL 3.2 or newer, which tells every libcurl that TLS was cut off (https://github.com/curl/curl/issues/17471).
# libcurl 8.6.0 then drops what came together with the end.
ANSWERS_ON_OPENSSL_3_2 = {
    "TLS cut off behind the body": {"7.54.0": b"200\nbody\n", "8.6.0": b"56\n", "8.12.1": b"200\nbody\n"},
    "TLS cut off": {"7.54.0": b"56\nbody\n", "8.6.0": b"56\n", "8.12.1": b"56\nbody\n"},
    "HTTP/2 cut off": {"7.54.0": b"56\nhalf\0\n"},
}

# On LibreSSL, macOS's TLS library, which doesn't tell libcurl that TLS was cut off; none newer than 8.6.0 was tried.
ANSWERS_ON_LIBRESSL = {"TLS cut off": {"7.54.0": b"200\nbody\n"}, "HTTP/2 cut off": ANSWERS["HTTP/2 closed"]}


def answer(name):
    """What the tool's libcurl does, out of the tables above."""
    since = {**ANSWERS, **_answers_of_tls_library()}[name]
    return since[max((first for first in since if numbers(first) <= version()), key=numbers)]


def _answers_of_tls_library():
    if is_on_libressl():
        return ANSWERS_ON_LIBRESSL
    return ANSWERS_ON_OPENSSL_3_2 if openssl_version() >= (3, 2, 0) else {}


def numbers(text):
    return tuple(map(int, text.split(".")))


@functools.cache
def version():
    """The version, three numbers, of the libcurl that the tool loads or contains."""
    found = _versions("libcurl")
    assert len(found) == 1, f"of {WEBREQ} the versions of libcurl are {found}"
    return found.pop()


def refuses_international_names():
    """Does it refuse host names with letters that the locale "C" doesn't know? Without libidn2 it takes any bytes."""
    # A translator of a static tool may have libidn2 for itself.
    return not IS_STATIC and version() >= (7, 88, 1) and b"libidn2" in _what_a_run_says()


@functools.cache
def openssl_version():
    """The newest OpenSSL that one of the tool's files speaks of; 0.0.0 if none does."""
    return max(_versions("OpenSSL"), default=(0, 0, 0))


def is_on_libressl():
    return bool(_versions("LibreSSL"))


def _versions(name):
    found = re.findall(rf"{name}[/ ](\d+\.\d+\.\d+)".encode(), _what_a_run_says())
    return {numbers(text.decode()) for text in found}


@functools.cache
def _what_a_run_says():
    if not pathlib.Path("/proc/self/maps").exists():  # on macOS the curl command uses the system's, as the tool does
        return subprocess.run(["/usr/bin/curl", "--version"], stdout=subprocess.PIPE, check=True).stdout
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(60)
        command = [WEBREQ, "-web", f"http://127.0.0.1:{listener.getsockname()[1]}/|||||60000"]
        with subprocess.Popen(command, stdout=subprocess.DEVNULL, env=ENVIRONMENT) as process:
            try:
                with listener.accept()[0]:
                    files = _mapped_files(process.pid)
            finally:
                process.kill()
    return b"\n".join(map(_what_a_file_says, files))


def _mapped_files(process):
    lines = pathlib.Path(f"/proc/{process}/maps").read_text().splitlines()
    paths = {pathlib.Path(line.split(maxsplit=5)[5]) for line in lines if "/" in line}
    return [path for path in paths if path.is_file()]


def _what_a_file_says(path):
    """What a shared libcurl says of itself; any other file's contents, and those of a libcurl for another processor."""
    if TRANSLATOR or not path.name.startswith("libcurl"):
        return path.read_bytes()
    library = ctypes.CDLL(path)
    library.curl_version.restype = ctypes.c_char_p
    return library.curl_version()
