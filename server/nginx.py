"""nginx on 127.0.0.1, over HTTP/1.1 and over HTTPS with HTTP/2. scripts/serve runs this file, tests import it."""

import grp
import http.client
import os
import pathlib
import pwd
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

PROGRAM = shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")
SITE = pathlib.Path(__file__).resolve().parent / "site"

# The ports in the examples of README and manual page.
HTTP_PORT, HTTPS_PORT = 8080, 8443

# Some characters of a path would mean something to nginx: all paths are relative to the folder that it runs in.
CONFIGURATION = """
daemon off;
{user}
worker_processes 2;
pid nginx.pid;
events {{ }}
http {{
  access_log off;
  large_client_header_buffers 4 256k;
  client_body_temp_path body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  types {{ text/html html; }}
  default_type application/octet-stream;
  server {{
    listen 127.0.0.1:{http_port};
    listen 127.0.0.1:{https_port} ssl{http2};
    ssl_certificate certificate.pem;
    ssl_certificate_key key.pem;
    ssl_protocols TLSv1.2 TLSv1.3;  # what nginx offers by default from 1.23.4 on
    root site;
    location = /echo {{
      return 200
        "$server_protocol $request_method $request_uri\\nUser-Agent: $http_user_agent\\nX-Demo: $http_x_demo\\n";
    }}
    location = /empty {{ return 204; }}
  }}
}}
"""

# An ECDSA certificate. Older openssls, the Mac's too, need the curve's old name, and the word for its encoding.
MAKE_CERTIFICATE = """openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1
  -pkeyopt ec_param_enc:named_curve -nodes -subj /CN=127.0.0.1 -keyout key.pem -out certificate.pem""".split()

# However this process ends, killed say.
ENDS_WITH_US = ["setpriv", "--pdeathsig", "TERM"] if sys.platform == "linux" else []


def _user():
    """Only root can choose the user that the workers run as."""
    return f"user {pwd.getpwuid(0).pw_name} {grp.getgrgid(0).gr_name};" if os.geteuid() == 0 else ""


def _http2():
    """What follows "ssl": from 1.25 on a directive of its own."""
    version = subprocess.run([PROGRAM, "-v"], stderr=subprocess.PIPE, check=True).stderr
    numbers = re.search(rb"nginx/(\d+)\.(\d+)", version).groups()
    return "; http2 on" if tuple(map(int, numbers)) >= (1, 25) else " http2"


class Nginx:
    """Serves the files below `root`, on free ports where none are given; `http_url` and `https_url` say where.

    It answers once it is made. Where it doesn't, making it raises an OSError that tells why.
    """

    def __init__(self, root=SITE, http_port=0, https_port=0):
        self.root = root
        self._process = None
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="nginx-"))
        try:
            self._start(*(socket.create_server(("127.0.0.1", port), backlog=511) for port in (http_port, https_port)))
            self._await_answer()
        except BaseException:
            self.close()
            raise

    @property
    def process_id(self):
        return self._process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        if self._process:
            self._process.terminate()
            self._process.wait()
        shutil.rmtree(self.folder)

    def _start(self, *listeners):
        """Starts nginx with listening sockets of ours, which it takes over as it does when it replaces its own binary:
        so the ports are free ones, and open before nginx runs."""
        if PROGRAM is None:
            raise OSError("there is no nginx here")
        ports = [listener.getsockname()[1] for listener in listeners]
        self.http_url, self.https_url = (f"{scheme}://127.0.0.1:{p}" for scheme, p in zip(("http", "https"), ports))
        self._write_files(*ports)
        for listener in listeners:
            listener.setblocking(False)  # as nginx's own: a worker that comes too late would wait for the next
        descriptors = [listener.fileno() for listener in listeners]
        self._process = subprocess.Popen(
            [*ENDS_WITH_US, PROGRAM, "-p", ".", "-c", "nginx.conf", "-e", "error.log"],
            cwd=self.folder,
            env={**os.environ, "NGINX": "".join(f"{descriptor};" for descriptor in descriptors)},
            pass_fds=descriptors,
            stderr=subprocess.DEVNULL,
        )
        for listener in listeners:
            listener.close()

    def _write_files(self, http_port, https_port):
        subprocess.run(MAKE_CERTIFICATE, cwd=self.folder, capture_output=True, check=True)
        (self.folder / "site").symlink_to(os.path.abspath(self.root))
        (self.folder / "nginx.conf").write_text(
            CONFIGURATION.format(
                user=_user(),
                http2=_http2(),
                http_port=http_port,
                https_port=https_port,
            )
        )

    def _await_answer(self):
        """A request waits in the listening socket until nginx answers it or ends."""
        connection = http.client.HTTPConnection(self.http_url.removeprefix("http://"), timeout=60)
        try:
            connection.request("GET", "/empty")
            connection.getresponse()
        except (OSError, http.client.HTTPException) as error:
            log = self.folder / "error.log"
            reasons = log.read_text(errors="replace").splitlines() if log.exists() else []
            raise OSError(f"nginx does not start: {reasons[-1] if reasons else error}") from error
        finally:
            connection.close()


def serve():
    with Nginx(http_port=HTTP_PORT, https_port=HTTPS_PORT) as server:
        print(f"{server.http_url} and {server.https_url} are served until Ctrl+C", flush=True)
        signal.pause()


def run(command):
    with Nginx() as server:
        environment = {**os.environ, "HTTP_URL": server.http_url, "HTTPS_URL": server.https_url}
        return subprocess.run(command, env=environment, check=False).returncode


def main(command):
    """Runs the command beside a server; without a command serves the examples. Returns what sys.exit() takes."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.default_int_handler)
    try:
        return run(command) if command else serve()
    except OSError as error:
        return f"serve: {error}"
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
