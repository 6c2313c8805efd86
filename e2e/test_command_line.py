"""Which argument is the request, how its fields are read, and what a command line without one gets."""

import pytest
from conftest import BUILD_DATE, ENVIRONMENT, VERSION, Answer
from scripted_server import reply

# CMakeLists.txt's digits; the tool's source has its own.
BANNER = f"webreq v{VERSION} ({BUILD_DATE:%Y%m%d}) / reqkit 4.1.6\n\n".encode()
USAGE = b"""
-web URL|PARAM|CMD|HEADER|AGENT|TIMEOUT|OUTFILE \t executes a web request with the given parameters
\tURL is the full server URL to access, prefixed with either "http://" or "https://"
\tPARAMS is the param string to be sent to the server in the standard URL encoded form like this "param1=abc&param2=def"
\tCMD is to be set to "p" for POST or "g" for GET operation, default is "g"
\tHEADER is a list of header fields to set for the request in the format "header1: val1\\r\\nheader2; val2"
\tAGENT is the user agent, default is "Mozilla/5.0"
\tTIMEOUT is the timeout in milliseconds, default is 20000
\tOUTFILE is the output file for the response, default is empty (meaning output to console)
\tOnly URL parameter is mandatory, for all others the default values apply
\tReturned value is HTTP return code on one line, followed by the complete response (only if OUTFILE is empty)
"""


@pytest.mark.parametrize(
    "arguments",
    [(), ("web",), ("-WEB", "http://127.0.0.1/"), ("- web", "x"), ("", ""), ("-we", "b")],
    ids=repr,
)
def test_without_a_marker_banner_and_usage(tool, arguments):
    assert tool.run(*arguments) == Answer(BANNER + USAGE, status=255)


@pytest.mark.parametrize("arguments", [("-web",), ("something", "--webby")], ids=repr)
def test_marker_as_last_argument_usage_without_banner(tool, arguments):
    assert tool.run(*arguments) == Answer(USAGE, status=255)


def test_marker_in_the_program_path_does_not_count(tool):
    arguments = ["/bin/x-web", "http://127.0.0.1/"]
    assert tool.run_command(arguments, executable=tool.path) == Answer(BANNER + USAGE, status=255)


@pytest.mark.parametrize("marker", ["-web", "--web", "x-web", "x-webby", "-web-web", "a -web b"])
def test_anything_that_contains_the_marker_is_one(tool, serve, marker):
    server = serve(reply(200, b"body"))
    assert tool.run(marker, server.url) == Answer(b"200\nbody\n")
    assert server.requests == [server.get()]


def test_arguments_before_the_marker_and_after_the_description_are_ignored(tool, serve):
    server = serve(reply(200, b"body"))
    before, after = ["-WEB", "", "http://127.0.0.1:1/"] * 33, ["-web", server.url + "/2"] * 50
    assert tool.run(*before, "-web", server.url + "/1", *after) == Answer(b"200\nbody\n")
    assert server.requests == [server.get(b"/1")]


def test_marker_behind_the_marker_is_the_description(tool, serve):
    proxy = serve(reply(200, b"body"))  # no name server is asked for a host "-web"
    assert tool.run("-web", "-web", "ignored", env={**ENVIRONMENT, "http_proxy": proxy.url}) == Answer(b"200\nbody\n")
    assert proxy.requests[0].startswith(b"GET http://-web/ HTTP/1.1\r\n")


@pytest.mark.parametrize("description", ["", " | |x", "\t", "|", "|q=1|p|||2000|out.txt", " \t||||||new.txt"])
def test_without_a_url_no_request_and_no_file(tool, tmp_path, description):
    (tmp_path / "out.txt").write_bytes(b"untouched")
    assert tool.request(description) == Answer(b"-1\n")
    assert {path.name: path.read_bytes() for path in tmp_path.iterdir()} == {"out.txt": b"untouched"}


@pytest.mark.parametrize(
    "fields, target",
    [
        ("", "/p"),
        ("|a=1", "/p?a=1"),
        ("|a=1|g", "/p?a=1"),
        ("|a=1|x", "/p?a=1"),
        ("|a=1|post", "/p?p"),
        ("|a=1|POST", "/p?p"),
        ("|a=1| p ", "/p?p"),
        ("||POST", "/p?p"),
        ("%7C|a=%7C", "/p%7C?a=%7C"),
        ("?a=1|b=2", "/p?a=1?b=2"),
        ("|-", "/p"),
        ("|--", "/p?--"),
        ("| - ", "/p"),
        ("| a=1&b=%20c\t", "/p?a=1&b=%20c"),
        ("|||||||extra|more", "/p"),
    ],
)
def test_parameters_and_method_make_the_request_line(tool, serve, fields, target):
    server = serve(reply(200))
    assert tool.request(server.url + "/p" + fields) == Answer(b"200\n")
    assert server.requests == [server.get(target.encode())]


def test_agent_is_sent_as_it_stands(tool, serve):
    server = serve(reply(200))
    assert tool.request(server.url + "/||||Mozilla/5.0 (X;\\s\u00e9)") == Answer(b"200\n")
    assert server.requests == [server.get(lines=b"User-Agent: Mozilla/5.0 (X;\\s\xc3\xa9)\r\nAccept: */*\r\n")]
