"""fetch.py URL: the body of the answer on standard output. Exits with status 1 when the request fails."""

import subprocess
import sys


def request(url):
    """Performs a GET. Returns its result, a status code or a failure code, and the body."""
    description = url.replace("|", "%7C")  # a bar would begin the next field
    run = subprocess.run(["webreq", "-web", description], stdout=subprocess.PIPE, check=True)
    result, _, body = run.stdout.partition(b"\n")
    return int(result), body[:-1]


def main(urls):
    if not urls:
        print("usage: fetch URL", file=sys.stderr)
        sys.exit(2)
    result, body = request(urls[0])
    if not 200 <= result <= 299:
        sys.exit(f"fetch: the result is {result}")
    sys.stdout.buffer.write(body)


if __name__ == "__main__":
    main(sys.argv[1:])
