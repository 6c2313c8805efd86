"""System calls that fail where the tool writes: what can be written is written whole, the rest is skipped in silence.

strace makes the calls fail, those on one file only: standard output or the output file.
"""

import os
import resource
import shutil
import time

import pytest
from conftest import ENVIRONMENT, MEMORY, Answer, impossible_on_macos
from scripted_server import reply

BODY = b"a body\0with NUL"
WHOLE = b"200\n" + BODY + b"\n"

OPEN = "?open,openat"  # musl calls open where the processor has it

UNDER_STRACE = {**ENVIRONMENT, "ASAN_OPTIONS": "detect_leaks=0"}  # the leak check can't run there

pytestmark = [
    impossible_on_macos("no strace"),
    pytest.mark.skipif(not shutil.which("strace"), reason="no strace here"),
]


@pytest.fixture
def inject(tool, tmp_path, serve):
    """Runs a request whose standard output is the file "stdout", with faults in calls on `path`."""
    url = serve(reply(200, BODY)).url

    def run(path, fault, output_file=""):
        command = ["strace", "-f", "-qq", "-o", tmp_path / "trace", "-P", path, f"--inject={fault}"]
        with open(tmp_path / "stdout", "wb") as stdout:
            answer = tool.run_command(
                [*command, tool.path, "-web", f"{url}||||||{output_file}"], stdout=stdout, env=UNDER_STRACE
            )
        assert answer == Answer(None)
        assert "(INJECTED)" in (tmp_path / "trace").read_text()
        return (tmp_path / "stdout").read_bytes()

    return run


@pytest.mark.parametrize("error", ["EINTR", "EAGAIN"])
@pytest.mark.parametrize("write", [1, 2, 3, "1..3000"])
def test_interrupted_standard_output_is_whole(inject, tmp_path, error, write):
    assert inject(tmp_path / "stdout", f"write:error={error}:when={write}") == WHOLE


@pytest.mark.parametrize("fault", ["error=ENOSPC", "error=EIO", "retval=0"])
@pytest.mark.parametrize("write, left", [(1, BODY + b"\n"), (2, b"200\n"), (3, b"200\n" + BODY)])
def test_standard_output_that_cannot_be_written_is_skipped(inject, tmp_path, fault, write, left):
    assert inject(tmp_path / "stdout", f"write:{fault}:when={write}") == left


@pytest.mark.parametrize("error", ["ENOSPC", "EIO", "EACCES", "EMFILE"])
def test_output_file_that_cannot_be_opened(inject, tmp_path, error):
    assert inject(tmp_path / "out", f"{OPEN}:error={error}", output_file=tmp_path / "out") == b"200\n"
    assert not (tmp_path / "out").exists()


@pytest.mark.parametrize("fault", ["error=ENOSPC", "error=EIO", "retval=0"])
def test_output_file_that_cannot_be_written(inject, tmp_path, fault):
    (tmp_path / "out").write_bytes(b"x" * 1000)
    assert inject(tmp_path / "out", f"write:{fault}", output_file=tmp_path / "out") == b"200\n"
    assert (tmp_path / "out").read_bytes() == b""


@pytest.mark.parametrize(
    "fault",
    [
        f"{OPEN}:error=EINTR:when=1..3000",
        "write:error=EINTR:when=1..3000",
        "write:error=EAGAIN:when=1..3000",
        "close:error=EIO",
        "close:error=EINTR",
        "close:error=ENOSPC",
    ],
)
def test_output_file_is_whole_after(inject, tmp_path, fault):
    (tmp_path / "out").write_bytes(b"x" * 1000)
    assert inject(tmp_path / "out", fault, output_file=tmp_path / "out") == b"200\n"
    assert (tmp_path / "out").read_bytes() == BODY


def test_lost_result_line_does_not_cost_the_output_file(inject, tmp_path):
    assert inject(tmp_path / "stdout", "write:error=EIO", output_file=tmp_path / "out") == b""
    assert (tmp_path / "out").read_bytes() == BODY


def test_full_pipe_is_awaited_not_polled(tool, tmp_path, serve):
    """The reader of a non-blocking pipe takes its time: the tool may make a few calls meanwhile, not thousands."""
    body = b"x" * 200_000
    url = serve(reply(200, body)).url
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    command = ["strace", "-qq", "-o", tmp_path / "trace", "-e", "trace=write,poll,ppoll", tool.path, "-web", url]
    with open(reader, "rb") as pipe, tool.start(command, stdout=writer, env=UNDER_STRACE) as process:
        os.close(writer)
        time.sleep(0.5)  # enough for thousands of calls
        assert pipe.read() == b"200\n" + body + b"\n"
        assert process.wait() == 0
    trace = (tmp_path / "trace").read_text()
    assert "poll(" in trace  # or ppoll, which is the only one on arm64
    assert len(trace.splitlines()) < 500


def test_pipe_that_is_full_for_longer_than_any_poll(tool, tmp_path, serve):
    """3,000 polls return while it is full; it is read only then."""
    body = b"x" * 200_000
    os.mkfifo(tmp_path / "pipe")
    (tmp_path / "trace").touch()
    reader, writer = (os.open(tmp_path / "pipe", how | os.O_NONBLOCK) for how in (os.O_RDONLY, os.O_WRONLY))
    os.set_blocking(reader, True)
    strace = ["strace", "-qq", "-o", tmp_path / "trace", "-P", tmp_path / "pipe"]
    command = [*strace, "--inject=/^p?poll$:retval=0:when=1..3000", tool.path, "-web", serve(reply(200, body)).url]
    with open(reader, "rb") as pipe, tool.start(command, stdout=writer, env=UNDER_STRACE) as process:
        os.close(writer)
        while process.poll() is None and (tmp_path / "trace").read_text().count("(INJECTED)") < 3000:
            time.sleep(0.1)
        assert pipe.read() == b"200\n" + body + b"\n"
        assert process.wait() == 0


@pytest.mark.skipif(MEMORY < 6 << 30, reason="takes 3 GiB of memory")
def test_no_write_is_larger_than_every_system_takes(tool, tmp_path):
    """macOS refuses to write more than 2 GiB less one byte at once."""
    with open(tmp_path / "large", "wb") as large:
        large.truncate((1 << 30) + 1)
    strace = ["strace", "-f", "--seccomp-bpf", "-qq", "-o", tmp_path / "trace", "-P", "/dev/null", "-e", "trace=write"]
    command = [*strace, tool.path, "-web", f"file://{tmp_path}/large|||||100000|/dev/null"]
    assert tool.run_command(command, env=UNDER_STRACE) == Answer(b"0\n")
    sizes = [line.rsplit(" ", 1)[1] for line in (tmp_path / "trace").read_text().splitlines()]
    assert sizes == [str(1 << 30), "1"]


@pytest.mark.parametrize("descriptor", [0, 1, 2])
def test_closed_descriptor_without_a_dev_null(tool, tmp_path, serve, descriptor):
    server = serve(reply(200, BODY))
    closing = ["sh", "-c", f'exec "$@" {descriptor}>&-', "sh"]
    strace = ["strace", "-qq", "-o", tmp_path / "trace", "-P", "/dev/null", f"--inject={OPEN}:error=ENOENT"]
    command = [*strace, *closing, tool.path, "-web", f"{server.url}||||||out"]
    assert tool.run_command(command, env=UNDER_STRACE) == Answer(b"" if descriptor == 1 else b"200\n")
    assert "(INJECTED)" in (tmp_path / "trace").read_text()
    assert (tmp_path / "out").read_bytes() == BODY
    assert server.requests == [server.get()]


def test_limit_on_the_size_of_files(tool, tmp_path, serve):
    server = serve(reply(200, b"x" * 100_000))

    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (65_536, 65_536))

    assert tool.request(f"{server.url}||||||out", preexec_fn=limit) == Answer(b"200\n")
    assert (tmp_path / "out").read_bytes() == b"x" * 65_536
