"""fetch.py URL [SECONDS [HEADER ...]]: the body of the answer on standard output. A HEADER is a line, "Name: value".
Exits with status 1 when the request fails or takes longer than SECONDS (30)."""

import math
import re
import subprocess
import sys


def request(url, seconds, headers):
    """Performs a GET. Returns its result, a status code or a failure code, and the body."""
    if re.search(r"[|\r\n]", "".join(headers)):
        raise ValueError("a header line can't hold a bar or a line break")
    url = url.replace("|", "%7C")  # a bar would begin the next field
    time_out = math.ceil(seconds) * 500  # it allows whole seconds, rounded up here
    command = ["webreq", "-web", "{}|||{}||{}".format(url, "\r".join(headers), time_out)]
    # A name server that doesn't answer can delay the result past TIMEOUT.
    run = subprocess.run(command, stdout=subprocess.PIPE, check=True, timeout=seconds)
    result, _, body = run.stdout.partition(b"\n")
    return int(result), body[:-1]


def main(url=None, seconds="30", *headers):
    if url is None:
        print("usage: fetch URL [SECONDS [HEADER ...]]", file=sys.stderr)
        sys.exit(2)
    try:
        result, body = request(url, float(seconds), headers)
    except ValueError as error:
        sys.exit(f"fetch: {error}")
    except subprocess.TimeoutExpired:
        sys.exit(f"fetch: no answer within {seconds} s")
    if not 200 <= result <= 299:
        sys.exit(f"fetch: the result is {result}")
    sys.stdout.buffer.write(body)


if __name__ == "__main__":
    main(*sys.argv[1:])
