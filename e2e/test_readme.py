"""What the README and the manual page show is what happens, and the changelog is about this version."""

import os
import re

import pytest
from conftest import BUILD_DATE, ENVIRONMENT, REPOSITORY, VERSION, Answer
from nginx import HTTP_PORT, HTTPS_PORT
from scripted_server import reply


def read(path):
    return (REPOSITORY / path).read_text()


README = read("README.md")


def blocks(language):
    return "".join(re.findall(rf"```{language}\n(.*?)```", README, re.DOTALL))


def manual_examples():
    """The manual page's displays as they are shown."""
    source = read("docs/webreq.1")
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


@pytest.mark.parametrize("text", [blocks("console"), manual_examples()], ids=["readme", "manual"])
def test_console_examples(shell, nginx, text):
    for command, printed in console_examples(text):
        command = command.replace(f"http://127.0.0.1:{HTTP_PORT}", nginx.http_url)
        command = command.replace(f"https://127.0.0.1:{HTTPS_PORT}", nginx.https_url)
        assert shell(command) == Answer(printed.encode()), command


@pytest.mark.parametrize("body", ["", "one line", "\n", "ends with line feeds\n\n", ".", "a\n.\nb."], ids=repr)
def test_shell_caller(shell, serve, body):
    caller = blocks("sh") + 'printf \'%s|%s|\' "$result" "$body"'
    server = serve(reply(404, body.encode()))
    assert shell(caller, url=server.url) == Answer(f"404|{body}|".encode())


def test_changelog_begins_with_the_version():
    assert read("CHANGELOG.md").startswith(f"# Changelog\n\n## {VERSION}, {BUILD_DATE:%Y-%m-%d}\n")
