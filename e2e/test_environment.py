"""Variables and files around a run: libcurl reads a few, the tool none."""

from conftest import ANSWERED, ENVIRONMENT
from scripted_server import RESPONSE


def test_netrc_is_not_read(tool, tmp_path, serve):
    (tmp_path / ".netrc").write_text("machine 127.0.0.1 login user password secret\n")
    server = serve(RESPONSE)
    assert tool.request(server.url, env={**ENVIRONMENT, "HOME": str(tmp_path)}) == ANSWERED
    assert server.requests == [server.get()]
