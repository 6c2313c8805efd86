"""3,000 runs, 64 at once. Run it by "scripts/check load"."""

import concurrent.futures

from conftest import Answer


def test_every_answer_is_exact(tool, nginx):
    def is_exact(number):
        answer = tool.request(f"{nginx.http_url}/echo|run={number}||X-Demo: {number}|agent {number}|30000")
        expected = f"HTTP/1.1 GET /echo?run={number}\nUser-Agent: agent {number}\nX-Demo: {number}\n\n"
        return answer == Answer(b"200\n" + expected.encode())

    with concurrent.futures.ThreadPoolExecutor(64) as pool:
        assert list(pool.map(is_exact, range(3_000))).count(True) == 3_000
