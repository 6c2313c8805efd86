"""nginx on free ports of 127.0.0.1, over HTTP/1.1 and over HTTPS with HTTP/2.

As a command it runs another one beside the server: "nginx.py COMMAND [ARGUMENT ...]" starts nginx with the files of
server/site, runs COMMAND with the addresses in HTTP_URL and HTTPS_URL, stops nginx and exits with COMMAND's status.
"""

import grp
import os
import pathlib
import pwd
import shutil
import socket
import subprocess
import sys
import tempfile

import trustme

PROGRAM = shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")
SITE = pathlib.Path(__file__).parent / "site"

CONFIGURATION = """
daemon off;
user {user} {group};
worker_processes 2;
pid {folder}/nginx.pid;
error_log {folder}/error.log;
events {{ }}
http {{
  access_log off;
  large_client_header_buffers 4 256k;
  client_body_temp_path {folder}/body;
  proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi;
  uwsgi_temp_path {folder}/uwsgi;
  scgi_temp_path {folder}/scgi;
  types {{ text/html html; }}
  default_type application/octet-stream;
  server {{
    listen 127.0.0.1:{http_port};
    listen 127.0.0.1:{https_port} ssl http2;
    ssl_certificate {folder}/certificate.pem;
    ssl_certificate_key {folder}/key.pem;
    root {root};
    location = /echo {{
      return 200 "$server_protocol $request_method $request_uri\\nUser-Agent: $http_user_agent\\nX-Demo: $http_x_demo\\n";
    }}
    location = /moved {{ return 301 /page.html; }}
    location = /secure {{ return 302 https://127.0.0.1:{https_port}/page.html; }}
    location = /empty {{ return 204; }}
  }}
}}
"""


class Nginx:
    """Serves the files below `root`; `http_url` and `https_url` say where. Both ports are open once it is made."""

    def __init__(self, root=SITE):
        self.root = root
        self._folder = pathlib.Path(tempfile.mkdtemp(prefix="webreq-nginx-"))
        http, https = (socket.create_server(("127.0.0.1", 0), backlog=511) for _ in range(2))
        http_port, https_port = (listener.getsockname()[1] for listener in (http, https))
        self.http_url = f"http://127.0.0.1:{http_port}"
        self.https_url = f"https://127.0.0.1:{https_port}"
        self._write_certificate()
        configuration = self._folder / "nginx.conf"
        configuration.write_text(
            CONFIGURATION.format(
                folder=self._folder,
                user=pwd.getpwuid(os.getuid()).pw_name,
                group=grp.getgrgid(os.getgid()).gr_name,
                http_port=http_port,
                https_port=https_port,
                root=root,
            )
        )
        self._process = _start(configuration, http, https)

    @property
    def process_id(self):
        return self._process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.terminate()
        self._process.wait()
        shutil.rmtree(self._folder)

    def _write_certificate(self):
        certificate = trustme.CA().issue_cert("127.0.0.1")
        certificate.private_key_pem.write_to_path(self._folder / "key.pem")
        certificate.cert_chain_pems[0].write_to_path(self._folder / "certificate.pem")


def _start(configuration, *listeners):
    """Starts nginx with listening sockets of ours, which it takes over as it does when it replaces its own binary:
    so the ports are free ones, and open before nginx runs."""
    for listener in listeners:
        listener.setblocking(False)  # as nginx's own are: a worker that another is faster than would wait for the next
    descriptors = [listener.fileno() for listener in listeners]
    environment = {**os.environ, "NGINX": "".join(f"{descriptor};" for descriptor in descriptors)}
    command = [PROGRAM, "-c", configuration, "-e", configuration.with_name("error.log")]
    process = subprocess.Popen(command, pass_fds=descriptors, env=environment, stderr=subprocess.DEVNULL)
    for listener in listeners:
        listener.close()
    return process


def main():
    with Nginx() as server:
        environment = {**os.environ, "HTTP_URL": server.http_url, "HTTPS_URL": server.https_url}
        return subprocess.run(sys.argv[1:], env=environment, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
