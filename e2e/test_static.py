"""What the static executable leaves out that somebody may notice, and that it needs no other file."""

import os
import shutil
import subprocess

import pytest
from conftest import EXECUTABLE, REPOSITORY, Answer, impossible_under_translator, only_static
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


@impossible_under_translator("it is not in the root folder")
@pytest.mark.parametrize("scheme", ["http", "https"])
def test_ordinary_user_in_a_root_folder_without_any_other_file(tool, tmp_path, nginx, scheme):
    tmp_path.chmod(0o755)
    shutil.copy(EXECUTABLE, tmp_path)
    is_root = os.geteuid() == 0
    enter = ["chroot", "--userspec=65534:65534"] if is_root else ["unshare", "--map-current-user", "--root"]
    if subprocess.run([*enter, "/", "true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("no user namespace can be made here")
    url = {"http": nginx.http_url, "https": nginx.https_url}[scheme] + "/page.html"
    page = (REPOSITORY / "server/site/page.html").read_bytes()
    assert tool.run_command([*enter, tmp_path, "/webreq", "-web", url]) == Answer(b"200\n" + page + b"\n")
    assert os.listdir(tmp_path) == ["webreq"]
