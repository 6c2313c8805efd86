"""Variables and files around a run: the libraries read a few, the tool none."""

import libcurl
import pytest
from conftest import ANSWERED, ENVIRONMENT, IS_STATIC, Answer
from scripted_server import RESPONSE


def test_netrc_is_not_read(tool, tmp_path, serve):
    (tmp_path / ".netrc").write_text("machine 127.0.0.1 login user password secret\n")
    server = serve(RESPONSE)
    assert tool.request(server.url, env={**ENVIRONMENT, "HOME": str(tmp_path)}) == ANSWERED
    assert server.requests == [server.get()]


# A cipher that no server here has.
OPENSSL_CONF = """
openssl_conf = all
[all]
ssl_conf = ssl
[ssl]
system_default = tls
[tls]
CipherString = DHE-DSS-AES128-SHA
Ciphersuites =
"""


@pytest.mark.skipif(not IS_STATIC and libcurl.openssl_version() < (3, 0, 0), reason="another TLS library")
def test_configuration_of_openssl_is_the_systems_own_matter(tool, nginx, tmp_path):
    (tmp_path / "openssl.cnf").write_text(OPENSSL_CONF)
    answer = tool.request(
        nginx.https_url + "/empty", env={**ENVIRONMENT, "OPENSSL_CONF": str(tmp_path / "openssl.cnf")}
    )
    assert answer == Answer(b"204\n" if IS_STATIC else b"35\n")
