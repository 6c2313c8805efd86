"""What the static executable leaves out that somebody may notice."""

import pytest
from conftest import Answer, only_static
from scripted_server import reply

pytestmark = only_static


@pytest.mark.parametrize(
    "scheme", "dict ftp ftps gopher imap ldap ldaps mqtt pop3 rtsp scp sftp smb smtp telnet tftp ws wss".split()
)
def test_other_schemes_are_unknown(tool, serve, scheme):
    assert tool.request(f"{scheme}://127.0.0.1:1/") == Answer(b"1\n")
    assert tool.request(serve(reply(302, b"", f"Location: {scheme}://127.0.0.1:1/")).url) == Answer(b"1\n")


def test_international_name_is_unknown(tool):
    """Other builds call it malformed (3), as their locale "C" knows no such letters."""
    assert tool.request("http://b\u00fccher.invalid/") == Answer(b"6\n")
