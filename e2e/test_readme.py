"""What the README and the manual page show is what happens, and the documents agree with each other."""

import os
import pathlib
import re
import resource
import sys

import libcurl
import pytest
from conftest import (
    BUILD_DATE,
    ENVIRONMENT,
    IS_SANITIZED,
    IS_STATIC,
    REPOSITORY,
    VERSION,
    Answer,
    impossible_under_translator,
    unless,
)
from nginx import HTTP_PORT, HTTPS_PORT
from scripted_server import reply


def read(path):
    return (REPOSITORY / path).read_text()


README = read("README.md")
RELIABILITY = read("docs/reliability.md")


def unescape(roff):
    for escape, shown in [(r"\(aq", "'"), (r"\-", "-"), (r"\e", "\\"), (r"\ ", " ")]:
        roff = roff.replace(escape, shown)
    return roff


MANUAL = unescape(read("docs/webreq.1"))

each_document = pytest.mark.parametrize("text", [README, MANUAL], ids=["readme", "manual"])


def blocks(language):
    return re.findall(rf"```{language}\n(.*?)```", README, re.DOTALL)


SEPARATE, KEEP_OLD_FILE = blocks("sh")


def manual_examples():
    """The manual page's displays as they are shown."""
    return "".join(re.findall(r"^\.Bd -literal.*\n((?:(?!\.Ed).*\n)*)", MANUAL, re.MULTILINE))


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


@pytest.mark.parametrize("text", ["".join(blocks("console")), manual_examples()], ids=["readme", "manual"])
def test_console_examples(shell, nginx, text):
    for command, printed in console_examples(text):
        command = command.replace(f"http://127.0.0.1:{HTTP_PORT}", nginx.http_url)
        command = command.replace(f"https://127.0.0.1:{HTTPS_PORT}", nginx.https_url)
        assert shell(command) == Answer(printed.encode()), command


@pytest.mark.parametrize("body", ["", "one line", "\n", "ends with line feeds\n\n", ".", "a\n.\nb."], ids=repr)
def test_shell_caller(shell, serve, body):
    caller = SEPARATE + 'printf \'%s|%s|\' "$result" "$body"'
    server = serve(reply(404, body.encode()))
    assert shell(caller, url=server.url) == Answer(f"404|{body}|".encode())


def replace_tool(folder, output):
    """By a script that is killed after this output."""
    (folder / "bin/webreq").unlink()
    (folder / "bin/webreq").write_text(f"#!/bin/sh\nprintf '{output}'; kill -KILL $$\n")
    (folder / "bin/webreq").chmod(0o755)


@pytest.mark.parametrize("part", ["", "2", "200\\n", "200\\nhalf"])
def test_shell_caller_of_a_tool_that_is_killed(shell, tmp_path, part):
    replace_tool(tmp_path, part)
    answer = shell(SEPARATE + 'printf \'%s|%s|\' "$result" "$body" 2>&1', url="x:")
    assert answer.stdout == b".||"


def test_shell_caller_that_keeps_the_old_file(shell, tmp_path, serve, refusing):
    def run(url):
        assert shell(KEEP_OLD_FILE, url=url, file="page") == Answer(b"")
        assert not (tmp_path / "page.new").exists()
        return (tmp_path / "page").read_text()

    server = serve(reply(200, b"one"), reply(404, b"none"), reply(200, b"two"))
    assert [run(url) for url in (server.url, refusing, server.url, server.url)] == ["one", "one", "one", "two"]


def test_shell_caller_of_a_tool_that_is_killed_keeps_the_old_file(shell, tmp_path):
    replace_tool(tmp_path, "200\\n")
    (tmp_path / "page").write_text("former")
    (tmp_path / "page.new").write_text("half")
    assert shell(KEEP_OLD_FILE, url="x:", file="page").stdout == b""
    assert (tmp_path / "page").read_text() == "former" and not (tmp_path / "page.new").exists()


@each_document
def test_two_headers(shell, serve, text):
    server = serve(reply(200))
    command = re.search(r"printf '[^']*X-B[^']*'", text)[0]
    assert shell(f'webreq -web "$url|||$({command})"', url=server.url) == Answer(b"200\n")
    assert server.requests[0].endswith(b"Accept: */*\r\nX-A: 1\r\nX-B: 2\r\n\r\n")


def test_headers_as_the_usage_text_has_them_are_one(tool, serve):
    server = serve(reply(200))
    header = re.search(rb'in the format "(.*)"', tool.run().stdout)[1]
    assert tool.request(server.url.encode() + b"|||" + header) == Answer(b"200\n")
    assert server.requests[0].endswith(b"Accept: */*\r\n" + header + b"\r\n\r\n")


@unless(sys.platform != "linux" or os.sysconf("SC_PAGE_SIZE") != 4096, "Linux allows an argument 32 pages")
@each_document
def test_longest_description(tool, shell, tmp_path, text):
    longest = "|" * int(re.search(r"On Linux a\s+description may have ([\d,]+) bytes", text)[1].replace(",", ""))
    assert tool.request(longest) == Answer(b"-1\n")
    with pytest.raises(OSError, match="Argument list too long"):
        tool.request(longest + "|")
    (tmp_path / "description").write_text(longest + "|")
    answer = shell('webreq -web "$(cat description)"')
    assert (answer.stdout, answer.status) == (b"", 126)


of_the_loader = unless(sys.platform != "linux" or IS_SANITIZED, "about Linux's loader; sanitizers take descriptors")


def limit_descriptors(count):
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (count, count))


@of_the_loader
@impossible_under_translator("it would lack descriptors")
def test_too_few_descriptors(tool, serve):
    """The loader or libcurl lacks some; each run has one more than the run before."""
    server = serve(*[reply(200)] * 12)
    answers = [tool.request(server.url, preexec_fn=limit_descriptors(3 + i)) for i in range(12)]
    first = {Answer(b"27\n")} if IS_STATIC else {answer for answer in answers if answer.status == 127}
    assert answers[0] in first and answers[-1] == Answer(b"200\n")
    assert IS_STATIC or answers[0].stdout == b"" and b"error while loading shared libraries" in answers[0].stderr
    assert set(answers) == {*first, Answer(b"200\n"), *map(Answer, libcurl.answer("too few descriptors"))}


@of_the_loader
@impossible_under_translator("it would lack descriptors")
def test_too_few_descriptors_for_a_file(tool, tmp_path):
    (tmp_path / "page").write_text("body")
    answers = {tool.request(f"file://{tmp_path}/page", preexec_fn=limit_descriptors(3 + i)) for i in range(12)}
    started = {answer for answer in answers if answer.status != 127} - {Answer(b"27\n")}
    assert started == {Answer(b"0\nbody\n")} | ({Answer(b"37\n")} if libcurl.answer("too few descriptors") else set())


def table(text, first_heading):
    """The rows of a table, lists of cells, by their first cells."""
    rows = re.search(rf"^\| {first_heading} \|.*\n\|[-:| ]+\n((?:\|.*\n)+)", text, re.MULTILINE)[1].splitlines()
    cells = [[cell.strip() for cell in row.split("|")[1:-1]] for row in rows]
    return {row[0]: row[1:] for row in cells}


def manual_list(heading):
    """The items of the manual page's list below a heading: texts by tags, both without macros."""
    items = re.search(rf"^\.Ss {heading}\n.*?\.Bl .*?\n(.*?)^\.El", MANUAL, re.DOTALL | re.MULTILINE)[1]
    texts = [re.sub(r"^\.[A-Z][a-z] ", "", item, flags=re.MULTILINE) for item in items.split(".It ")[1:]]
    return {tag.removeprefix("Ar "): " ".join(text.split()) for tag, text in (item.split("\n", 1) for item in texts)}


def test_fields_are_the_same_everywhere(tool):
    of_readme, of_manual = table(README, "field"), manual_list("The fields")
    assert list(of_readme) == list(of_manual)
    assert "|".join(of_readme).encode() in tool.run().stdout
    numbers_of_readme = {name: set(re.findall(r"\d+", " ".join(row))) for name, row in of_readme.items()}
    assert numbers_of_readme == {name: set(re.findall(r"\d+", text)) for name, text in of_manual.items()}
    default = re.search(r"'t', \"(\d+)\"", read("app/request_description.cpp"))[1]
    assert of_readme["TIMEOUT"][-1].startswith(default) and f"it is {default}:" in of_manual["TIMEOUT"]


def test_results_are_the_same_everywhere():
    advice_of_readme = {result: row[-1] for result, row in table(README, "result").items()}
    advice = {
        result: re.search(r"(?:Try again: (.*)\.)?$", text)[1] for result, text in manual_list("The answer").items()
    }
    assert advice_of_readme == {result: text or "" for result, text in advice.items()}
    assert len(advice_of_readme) > 10


def exists(name):
    """Is there a file, a suite of unit tests ("Suite.*") or a check ("scripts/check NAME ...") of this name?"""
    if name.startswith("scripts/check "):
        return all(f"\ncheck_{check}() " in read("scripts/check") for check in name.split()[1:])
    if name.endswith(".*"):
        tests = "".join(
            read(path) for folder in ("app", "net", "text") for path in REPOSITORY.glob(f"{folder}/*_test.cpp")
        )
        return f"\nTEST({name[:-2]}, " in tests
    return any((REPOSITORY / folder / name).is_file() for folder in ("", "e2e", "e2e/heavy", "app", "net", "text"))


def test_reliability_names_tests_that_exist():
    shown_by = " ".join(row[-1] for row in table(RELIABILITY, "what goes wrong").values())
    named = re.findall(r"`(.*?)`", shown_by)
    named += re.findall(r"`([\w/]+\.(?:cpp|py))`", RELIABILITY)
    assert len(named) > 30
    assert [name for name in named if not exists(name)] == []


def anchors(text):
    """The names that a page gives its headings."""
    headings = re.findall(r"^#+ (.*)", text, re.MULTILINE)
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


PAGES = ["README.md", "CONTRIBUTING.md", "SECURITY.md", "docs/reliability.md", "docs/performance.md"]
PAGES += ["macos/README.md", "static/README.md"]


@pytest.mark.parametrize("page", PAGES)
def test_links_lead_somewhere(page):
    for path, anchor in re.findall(r"\]\((?!https?:)([^)#]*)#?([^)]*)\)", read(page)):
        target = pathlib.Path(page).parent / path if path else page
        assert (REPOSITORY / target).exists(), path
        assert not anchor or anchor in anchors(read(target)), anchor


def test_changelog_begins_with_the_version():
    assert read("CHANGELOG.md").startswith(f"# Changelog\n\n## {VERSION}, {BUILD_DATE:%Y-%m-%d}\n")
