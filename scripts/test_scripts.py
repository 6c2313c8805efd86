"""The scripts, run in a copy of the checkout: what they refuse, what they say when something can't be had, what they
leave alone. scripts/check scripts runs this file."""

import os
import pathlib
import re
import shutil
import signal
import subprocess

import own_network
import pytest

REPOSITORY = pathlib.Path(__file__).parent.parent
PAGE = REPOSITORY / "server/site/page.html"


@pytest.fixture
def checkout(tmp_path):
    """A copy with nothing built."""
    copy = tmp_path / "checkout"
    copy.mkdir()
    files = subprocess.run(
        ["git", "ls-files", "-coz", "--exclude-standard"], cwd=REPOSITORY, stdout=subprocess.PIPE, check=True
    )
    subprocess.run(["xargs", "-0", "cp", "--parents", "-t", copy], cwd=REPOSITORY, input=files.stdout, check=True)
    return copy


def run(folder, *command, **variables):
    """Status and all that a command says, run in `folder`, with further environment variables."""
    environment = {**os.environ, **variables}
    environment.pop("CI", None)
    done = subprocess.run(
        command, cwd=folder, env=environment, stdout=-1, stderr=subprocess.STDOUT, text=True, check=False
    )
    return done.returncode, done.stdout


def replacing(folder, **programs):
    """A PATH on which shell scripts stand before the programs of their names."""
    folder.mkdir()
    for name, script in programs.items():
        (folder / name).write_text(f"#!/bin/sh\n{script}\n")
        (folder / name).chmod(0o755)
    return f"{folder}:{os.environ['PATH']}"


@pytest.fixture
def no_registry(tmp_path):
    return replacing(tmp_path / "bin", cargo="echo error: no route to the registry >&2; exit 1")


def break_sums(file):
    text, count = re.subn(r"[0-9a-f]{64}", "0" * 64, file.read_text())
    assert count > 0
    file.write_text(text)


@pytest.mark.parametrize(["pins", "name"], [("sources.txt", "c-ares-1.34.9"), ("requirements.txt", "tools")])
def test_wrong_sum_is_refused(checkout, pins, name):
    break_sums(checkout / "deps" / pins)
    status, said = run(checkout, "deps/fetch", name)
    if status == 77 and "MATCH" not in said:
        pytest.skip(said)
    assert status == 1 and ("not the one in deps/sources.txt" in said or "DO NOT MATCH THE HASHES" in said)
    assert not any((checkout / "build" / folder).exists() for folder in (f"sources/{name}", "tools/requirements.txt"))


def test_check_that_cannot_be_made_is_named(checkout, no_registry):
    status, said = run(checkout, "scripts/check", "libcurls", PATH=no_registry)
    assert status == 0 and "no route to the registry" in said
    assert said.endswith("\ncheck: libcurls skipped\n")


def test_with_ci_set_a_check_that_cannot_be_made_is_an_error(checkout, no_registry):
    status, said = run(checkout, "env", "CI=true", "scripts/check", "libcurls", "manual", PATH=no_registry)
    assert status == 1 and "no route to the registry" in said and "check: manual" not in said


def test_unknown_check_names_all_and_ci_runs_them(checkout):
    status, said = run(checkout, "scripts/check", "nonsense")
    names = re.search("nonsense, but (.*)", said)[1].split()
    in_ci = re.search(r"check: \[test, ([^]]*)\]", (REPOSITORY / ".github/workflows/ci.yml").read_text())[1]
    assert status == 2 and sorted(names) == sorted(in_ci.replace(",", "").split())


def test_package_that_cannot_be_made_is_named_and_keeps_the_old_one(checkout, no_registry):
    old = checkout / "build/packages/webreq-static_4.1.46-1_amd64.deb"
    old.parent.mkdir(parents=True)
    old.write_text("old")
    status, said = run(checkout, "scripts/package", "webreq-static", PATH=no_registry)
    assert status == 77 and re.search(r"webreq-static, because .*no route to the registry", said)
    assert old.name in (old.parent / "SHA256SUMS").read_text() and old.exists()


def test_setup_without_network_says_what_failed(checkout, tmp_path):
    path = replacing(
        tmp_path / "bin", **{"apt-get": "echo no network >&2; exit 100", "dpkg-query": "exit 1", "sudo": 'exec "$@"'}
    )
    status, said = run(checkout, "scripts/setup", "serve", PATH=path)
    assert status == 1
    assert re.fullmatch("setup: apt could not install nginx-light openssl python3; .*", said.splitlines()[-1])


def test_file_of_tests_that_is_not_listed_is_refused(checkout):
    (checkout / "e2e/test_new.py").touch()
    (checkout / "text/new_test.cpp").touch()
    status, said = run(checkout, "cmake", "--preset", "release")
    assert status == 1 and "e2e/test_new.py;text/new_test.cpp" in said


def test_configuring_names_all_that_the_tests_lack(checkout):
    ignored = os.environ["PATH"].replace(":", ";") + ";/usr/sbin;/sbin"
    found = [
        f"-DCMAKE_{name}={shutil.which(path)}" for name, path in (("MAKE_PROGRAM", "ninja"), ("CXX_COMPILER", "c++"))
    ]
    without = [f"-DCMAKE_IGNORE_PATH={ignored}", "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"]
    status, said = run(checkout, "cmake", "--preset", "release", *found, *without)
    modules = [f"Python's {name}" for name in ("xdist", "h2", "dns", "cryptography")]
    expected = ", ".join(["pytest", "nginx", "openssl", "faketime", "strace", *modules, "GoogleTest"])
    assert status == 1 and expected in " ".join(said.split())


def test_package_is_labelled_with_the_machine_that_it_is_for(checkout):
    other = [*["-D", "CMAKE_SYSTEM_NAME=Linux"], *["-D", "CMAKE_SYSTEM_PROCESSOR=aarch64"]]
    status, said = run(checkout, "cmake", "-B", "build/other", *other)
    assert status == 0, said
    configuration = (checkout / "build/other/CPackConfig.cmake").read_text()
    assert re.findall("ACKAGE_ARCHITECTURE (.*)", configuration) == ['"arm64")', '"aarch64")']


def test_demo_takes_an_output_file_from_where_it_is_called(tmp_path):
    description = f"file://{PAGE}||||||page.html"
    status, said = run(tmp_path, REPOSITORY / "scripts/demo", description)
    assert status == 0 and said.endswith("\n0\n")
    assert (tmp_path / "page.html").read_bytes() == PAGE.read_bytes()


def test_demo_without_a_temporary_folder_leaves_the_checkout(checkout):
    assert run(checkout, "scripts/demo", "--beside-server", TMPDIR="/nonexistent")[0] == 1
    assert (checkout / "scripts/demo").exists()


@pytest.mark.skipif(not own_network.is_possible(), reason=own_network.REASON)
def test_serve_answers_where_it_says():
    serve, tool = REPOSITORY / "scripts/serve", REPOSITORY / "build/release/webreq"
    with own_network.start("/etc") as (enter, _):
        with subprocess.Popen([*enter, serve], stdout=subprocess.PIPE, text=True) as server:
            try:
                said = server.stdout.readline()
                for url in re.fullmatch(r"(http://\S+:8080) and (https://\S+:8443) are served .*\n", said).groups():
                    request = [*enter, tool, "-web", url + "/page.html"]
                    answer = subprocess.run(request, stdout=subprocess.PIPE, check=True).stdout
                    assert answer == b"200\n" + PAGE.read_bytes() + b"\n"
            finally:
                server.send_signal(signal.SIGTERM)
    assert server.returncode == 130
