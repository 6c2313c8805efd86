"""What the README and the manual page show is what happens."""

import os
import re

import pytest
from conftest import ENVIRONMENT, REPOSITORY, Answer
from scripted_server import reply

README = (REPOSITORY / "README.md").read_text()


def block(language):
    return re.search(rf"```{language}\n(.*?)```", README, re.DOTALL)[1]


def manual_examples():
    """The manual page's displays as they are shown."""
    source = (REPOSITORY / "docs/webreq.1").read_text()
    displays = "".join(re.findall(r"^\.Bd -literal.*\n((?:(?!\.Ed).*\n)*)", source, re.MULTILINE))
    for escape, shown in [(r"\(aq", "'"), (r"\-", "-"), (r"\e", "\\")]:
        displays = displays.replace(escape, shown)
    return displays


def console_examples(text):
    """Pairs of a command line and what it prints."""
    examples = re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", text, re.MULTILINE)
    assert len(examples) > 5
    return examples


@pytest.fixture
def shell(tool, tmp_path):
    """Runs a line of shell that finds the tool as "webreq"."""
    (tmp_path / "bin").mkdir()
    (tmp_path / "bin/webreq").symlink_to(tool.path)
    environment = {**ENVIRONMENT, "PATH": f"{tmp_path}/bin:{os.environ['PATH']}"}
    return lambda line, **variables: tool.run_command(["sh", "-c", line], env={**environment, **variables})


@pytest.mark.parametrize("text", [block("console"), manual_examples()], ids=["readme", "manual"])
def test_console_examples(shell, nginx, text):
    for command, printed in console_examples(text):
        for shown, real in [("http://127.0.0.1:8080", nginx.http_url), ("https://127.0.0.1:8443", nginx.https_url)]:
            command = command.replace(shown, real)
        assert shell(command) == Answer(printed.encode()), command


@pytest.mark.parametrize("body", ["", "one line", "\n", "ends with line feeds\n\n", ".", "a\n.\nb."], ids=repr)
def test_shell_caller(shell, serve, body):
    caller = block("sh") + 'printf \'%s|%s|\' "$result" "$body"'
    server = serve(reply(404, body.encode()))
    assert shell(caller, url=server.url) == Answer(f"404|{body}|".encode())
