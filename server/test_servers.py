"""The servers that the tests talk to: nginx serves any folder, and what goes wrong in one is told. Run it by
"scripts/check scripts"."""

import os
import select
import shutil
import subprocess
import sys
import urllib.request

import nginx
import pytest
from scripted_server import READ_REQUEST, RESPONSE, ScriptedServer

direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))


@pytest.mark.parametrize("name", ["Größe und Maß", '"; $uri {', "a'b\\c#"])
def test_any_folder_is_served(tmp_path, name):
    (tmp_path / name).mkdir()
    (tmp_path / name / "page").write_bytes(b"body")
    with nginx.Nginx(tmp_path / name) as server:
        assert direct.open(server.http_url + "/page").read() == b"body"


def test_nginx_finds_nothing_wrong_with_its_configuration():
    with nginx.Nginx() as server:
        log = (server.folder / "error.log").read_text()
    assert "[warn]" not in log


def test_nginx_ends_with_whoever_started_it():
    start = "import nginx; server = nginx.Nginx(); print(server.process_id, server.folder, flush=True); input()"
    command = [sys.executable, "-c", start]
    with subprocess.Popen(command, stdin=-1, stdout=-1, text=True, cwd=nginx.SITE.parent) as starter:
        number, folder = starter.stdout.readline().split(maxsplit=1)
        server = os.pidfd_open(int(number))
        starter.kill()
    assert select.select([server], [], [], 60)[0] == [server]
    os.close(server)
    shutil.rmtree(folder.rstrip("\n"))


def test_server_that_does_not_start_says_why(monkeypatch):
    monkeypatch.setattr(nginx, "CONFIGURATION", nginx.CONFIGURATION + "nonsense;\n")
    with pytest.raises(OSError, match='nginx does not start: .* unknown directive "nonsense"'):
        nginx.Nginx()


def test_step_that_fails_fails_the_test_and_not_the_next_connection():
    def fail(_):
        assert False, "a reason"

    with pytest.raises(AssertionError, match="a reason"):
        with ScriptedServer([READ_REQUEST, fail], RESPONSE) as server:
            with pytest.raises(OSError):
                direct.open(server.url, timeout=60)
            assert direct.open(server.url, timeout=60).read() == b"ok"
