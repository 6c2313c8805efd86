"""The server that the other tests talk to: any folder will do, and one that doesn't start says why."""

import socket
import urllib.request

import nginx
import pytest

direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))


@pytest.mark.parametrize("name", ["Größe und Maß", '"; $uri {', "a'b\\c#"])
def test_any_folder_is_served(tmp_path, name):
    (tmp_path / name).mkdir()
    (tmp_path / name / "page").write_bytes(b"body")
    with nginx.Nginx(tmp_path / name) as server:
        assert direct.open(server.http_url + "/page").read() == b"body"


def test_server_that_does_not_start_says_why(monkeypatch):
    monkeypatch.setattr(nginx, "CONFIGURATION", nginx.CONFIGURATION + "nonsense;\n")
    with pytest.raises(OSError, match='nginx does not start: .* unknown directive "nonsense"'):
        nginx.Nginx()


def test_port_that_is_taken_is_an_error():
    with socket.create_server(("127.0.0.1", 0)) as taken:
        with pytest.raises(OSError, match="Address already in use"):
            nginx.Nginx(http_port=taken.getsockname()[1])
