"""OUTFILE: what it gets, and that nothing else exists afterwards, whatever goes wrong."""

import os

import own_network
import pytest
from conftest import ENVIRONMENT, Answer
from scripted_server import OK, reply

BODY = b"a body\0with NUL"
FORMER = b"former contents, longer than the body"


@pytest.fixture
def url(serve):
    return serve(reply(200, BODY)).url


def test_file_receives_the_exact_body(tool, tmp_path, url):
    assert tool.request(f"{url}||||||out.txt") == Answer(b"200\n")
    assert (tmp_path / "out.txt").read_bytes() == BODY


def test_absolute_path_with_blanks_inside(tool, tmp_path, url):
    assert tool.request(f"{url}|||||| {tmp_path}/my  out \t") == Answer(b"200\n")
    assert (tmp_path / "my  out").read_bytes() == BODY


@pytest.mark.parametrize("umask, mode", [(0o000, 0o666), (0o027, 0o640), (0o222, 0o444), (0o777, 0o000)])
def test_new_file_has_the_mode_that_the_mask_leaves(tool, tmp_path, url, umask, mode):
    environment = {**ENVIRONMENT, "LLVM_PROFILE_FILE": os.devnull}  # a profile would get that mode, too
    assert tool.request(f"{url}||||||out.txt", umask=umask, env=environment) == Answer(b"200\n")
    assert (tmp_path / "out.txt").stat().st_mode & 0o777 == mode
    (tmp_path / "out.txt").chmod(0o400)
    assert (tmp_path / "out.txt").read_bytes() == BODY


@pytest.mark.parametrize("before", [None, FORMER])
def test_empty_response_leaves_an_empty_file(tool, tmp_path, serve, before):
    if before:
        (tmp_path / "out.txt").write_bytes(before)
    assert tool.request(f"{serve(reply(204)).url}||||||out.txt") == Answer(b"204\n")
    assert (tmp_path / "out.txt").read_bytes() == b""


def test_failed_request_truncates_the_file_too(tool, tmp_path, refusing):
    for url, result in (("http://", b"3\n"), (refusing, b"7\n")):
        (tmp_path / "out.txt").write_bytes(FORMER)
        assert tool.request(f"{url}||||||out.txt") == Answer(result)
        assert (tmp_path / "out.txt").read_bytes() == b""


def test_partial_body_of_a_failed_request_is_delivered(tool, tmp_path, serve):
    server = serve(OK + b"Content-Length: 10\r\n\r\nhalf")
    assert tool.request(f"{server.url}||||||out.txt") == Answer(b"18\n")
    assert (tmp_path / "out.txt").read_bytes() == b"half"


def test_standard_output_as_the_file_gets_the_body_without_a_line_feed(tool, url):
    assert tool.request(f"{url}||||||/dev/stdout") == Answer(b"200\n" + BODY)


def test_result_line_comes_before_the_file_is_touched(tool, tmp_path, url):
    """The output file is a FIFO, which the tool can't open before this test reads from it."""
    os.mkfifo(tmp_path / "fifo")
    with tool.start([tool.path, "-web", f"{url}||||||fifo"]) as process:
        assert process.stdout.readline() == b"200\n"
        assert tool.run_command(["cat", "fifo"]) == Answer(BODY)
        assert (*process.communicate(), process.returncode) == Answer(b"")
    assert list(tmp_path.iterdir()) == [tmp_path / "fifo"] and (tmp_path / "fifo").is_fifo()


FOLDER = object()


def make(folder, entries):
    """Makes files (bytes), links (text) and folders by their paths; a pair has a mode, too."""
    pairs = {folder / path: entry if isinstance(entry, tuple) else (entry, None) for path, entry in entries.items()}
    for path, (what, _) in pairs.items():
        if what is FOLDER:
            path.mkdir()
        elif isinstance(what, bytes):
            path.write_bytes(what)
        else:
            path.symlink_to(what)
    for path, (_, mode) in pairs.items():
        if mode is not None:
            path.chmod(mode)


def describe(path):
    if path.is_symlink():
        return os.readlink(path)
    return FOLDER if path.is_dir() else path.read_bytes()


# OUTFILE, what is there before, and what is there afterwards.
SITUATIONS = {
    "nothing": ("out", {}, {"out": BODY}),
    "longer file": ("out", {"out": FORMER}, {"out": BODY}),
    "link": ("out", {"file": FORMER, "out": "file"}, {"file": BODY, "out": "file"}),
    "link to nothing": ("out", {"out": "file"}, {"out": "file", "file": BODY}),
    "link to itself": ("out", {"out": "out"}, {"out": "out"}),
    "link to a folder": ("out", {"a": FOLDER, "out": "a"}, {"a": FOLDER, "out": "a"}),
    "folder": ("out", {"out": FOLDER}, {"out": FOLDER}),
    "the run's own folder": (".", {}, {}),
    "no folder": ("missing/out", {}, {}),
    "no folder, and none wanted": ("out/", {}, {}),
    "file in the place of a folder": ("file/out", {"file": FORMER}, {"file": FORMER}),
    "name of 300 bytes": ("x" * 300, {}, {}),
    "file without permission": ("out", {"out": (FORMER, 0o444)}, {"out": FORMER}),
    "folder without permission": ("a/out", {"a": (FOLDER, 0o555)}, {"a": FOLDER}),
    "file in such a folder": ("a/out", {"a": (FOLDER, 0o555), "a/out": FORMER}, {"a": FOLDER, "a/out": BODY}),
}

# Without privileges root needs permission, too.
UNPRIVILEGED = ["setpriv", "--bounding-set", "-all"] if os.geteuid() == 0 else []


@pytest.mark.parametrize("path, before, afterwards", SITUATIONS.values(), ids=SITUATIONS)
def test_nothing_else_exists_afterwards(tool, tmp_path, url, path, before, afterwards):
    make(tmp_path, before)
    assert tool.run_command([*UNPRIVILEGED, tool.path, "-web", f"{url}||||||{path}"]) == Answer(b"200\n")
    assert {str(path.relative_to(tmp_path)): describe(path) for path in tmp_path.rglob("*")} == afterwards


def test_file_with_two_names_is_the_same_file_afterwards(tool, tmp_path, url):
    (tmp_path / "out").write_bytes(FORMER)
    os.link(tmp_path / "out", tmp_path / "other name")
    assert tool.request(f"{url}||||||out") == Answer(b"200\n")
    assert (tmp_path / "other name").read_bytes() == BODY


def test_file_that_the_url_names(tool, tmp_path):
    (tmp_path / "file").write_bytes(BODY)
    assert tool.request(f"file://{tmp_path}/file||||||file") == Answer(b"0\n")
    assert (tmp_path / "file").read_bytes() == BODY


@pytest.mark.skipif(not own_network.is_possible(), reason=own_network.REASON)
def test_full_disk(tool, tmp_path):
    """It has room for 64 KiB of a longer body."""
    body = bytes(range(256)) * 1000
    (tmp_path / "body").write_bytes(body)
    (tmp_path / "disk").mkdir()
    mount = "mount -t tmpfs -o size=64k none disk && echo former >disk/out"
    script = f'{mount} && "$0" -web "file://$PWD/body||||||disk/out" && ls -A disk && cp disk/out .'
    assert tool.run_command([*own_network.NEW, "sh", "-c", script, tool.path]) == Answer(b"0\nout\n")
    assert (tmp_path / "out").read_bytes() == body[: 64 << 10]
