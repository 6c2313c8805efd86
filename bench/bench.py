"""Measures the tool beside curl, wget and busybox's wget, against nginx on loopback, all in one run.

scripts/bench builds the tool and calls this. The last answer that each command gave while it was timed is compared with
the right one.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import shlex
import shutil
import statistics
import subprocess
import sys
import tempfile

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPOSITORY / "server"))
sys.dont_write_bytecode = True

from nginx import Nginx  # noqa: E402

KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
SIZES = {"1 KiB": KIB, "32 KiB": 32 * KIB, "1 MiB": MIB, "32 MiB": 32 * MIB}
AT_ONCE = 64

parser = argparse.ArgumentParser(allow_abbrev=False)
parser.add_argument("--smoke", action="store_true", help="measure little, write nothing")
SMOKE = parser.parse_args().smoke
ROUNDS, RUNS, WARM_UPS = (1, 10, 0) if SMOKE else (40, 10, 1)
if not SMOKE:
    SIZES["1 GiB"] = GIB

RELEASE = REPOSITORY / "build/release/webreq"
STATIC = REPOSITORY / "build/static/webreq"
TOOLS = {"release": 1.1, "static": 0.85}  # and the most that 32 MiB over TLS may take of curl's time


class Row:
    """A command, the answer that it is to give, and the seconds that its runs took."""

    def __init__(self, name, command, answer, file=None):
        self.name, self.command, self.answer, self.file = name, command, answer, file
        self.times = []

    def measure(self, folder, runs):
        """Has hyperfine time some runs, without a shell between, and checks what the last of them answered."""
        output, report = folder / "output", folder / "report"
        if self.file:
            self.file[1].unlink(missing_ok=True)  # so that no other row's body is taken for this one's
        hyperfine = ["hyperfine", "-N", "-w", str(WARM_UPS), "-r", str(runs), "--style", "none"]
        subprocess.run(
            [*hyperfine, "--output", output, "--export-json", report, self.command],
            check=True,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        self.times += json.loads(report.read_text())["results"][0]["times"]
        if output.read_bytes() != self.answer or (self.file and not same_bytes(*self.file)):
            sys.exit(f"bench: wrong answer of {self.name}: {self.command[:200]}")

    @property
    def median(self):
        return statistics.median(self.times)


def same_bytes(left, right):
    return subprocess.run(["cmp", "-s", left, right], check=False).returncode == 0


def measure(rows, folder, rounds=ROUNDS, runs=RUNS):
    """In turn, there and back, so that whatever else the machine does, or a neighbour leaves behind, meets all of them:
    a virtual machine's memory, for one, is slow at first when it has been free for some seconds."""
    for number in range(rounds):
        for row in reversed(rows) if number % 2 else rows:
            row.measure(folder, runs)
    return {row.name: row for row in rows}


def webreq(tool, url, fields=""):
    return f"{shlex.quote(str(tool))} -web '{url}{fields}'"


def small_rows(url, page):
    """One small answer on standard output."""
    answer = b"200\n" + page + b"\n"
    rows = [
        Row("release", webreq(RELEASE, url), answer),
        Row("static", webreq(STATIC, url), answer),
        Row("curl", f"curl -sk {url}", page),
        Row("wget", f"wget -q --no-check-certificate -O - {url}", page),
    ]
    if url.startswith("http:"):
        rows.append(Row("busybox", f"busybox wget -q -O - {url}", page))
    return rows


def file_rows(url, out, body=None):
    """A body in a file, which is compared with `body` unless that is None."""
    file = body and (body, out)
    return [
        Row("release", webreq(RELEASE, url, f"|||||100000|{out}"), b"200\n", file),
        Row("static", webreq(STATIC, url, f"|||||100000|{out}"), b"200\n", file),
        Row("curl", f"curl -sk -o {out} {url}", b"", file),
        Row("wget", f"wget -q --no-check-certificate -O {out} {url}", b"", file),
    ]


def peak_memory(row):
    """Bytes, of one run."""
    with subprocess.Popen(shlex.split(row.command), stdout=subprocess.DEVNULL) as process:
        return os.wait4(process.pid, 0)[2].ru_maxrss * KIB


def rows_at_once(url, page, runs):
    """`runs` runs, 64 of them at a time, started by xargs; their lines mingle, and are sorted."""
    commands = {"static": (webreq(STATIC, url), b"200\n" + page + b"\n"), "curl": (f"curl -s {url}", page)}
    start = f"seq {runs} | xargs -P {AT_ONCE} -I % {{}} | LC_ALL=C sort"
    return [
        Row(name, "sh -c " + shlex.quote(start.format(command)), b"".join(sorted((answer * runs).splitlines(True))))
        for name, (command, answer) in commands.items()
    ]


def table(head, rows):
    lines = [head, ["---"] + ["---:"] * (len(head) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def line(name, rows):
    curl = rows["curl"].median
    return [name, *(f"{milliseconds(r.median)} ({r.median / curl:.2f})" for r in rows.values())]


def milliseconds(seconds):
    return f"{seconds * 1e3:.2f}" if seconds < 1 else f"{seconds * 1e3:.0f}"


class Report:
    """What was measured, as Markdown, as a drawing and as bars met or missed."""

    def __init__(self):
        self.sections = []
        self.bars = []

    def add(self, title, text):
        print(f"\n{title}\n\n{text}", flush=True)
        self.sections.append(f"### {title}\n\n{text}\n")

    def bar(self, name, value, limit):
        self.bars.append([name, f"{value:.2f}", f"at most {limit:.2f}", "met" if value <= limit else "missed"])


def small_answers(report, server, folder):
    page = (server.root / "page.html").read_bytes()
    series = {}
    for scheme, base, limit in (("HTTP", server.http_url, 0.12), ("HTTPS", server.https_url, 0.21)):
        rows = series[scheme] = measure(small_rows(base + "/page.html", page), folder)
        report.bar(f"release, {scheme}, of curl", rows["release"].median / rows["curl"].median, 1.0)
        report.bar(f"static, {scheme}, of curl", rows["static"].median / rows["curl"].median, limit)
    lines = [line(scheme, rows) for scheme, rows in series.items()]
    report.add("A small answer, ms (of curl)", table(["", *series["HTTP"]], lines))
    report.bar("static, HTTP, of busybox", series["HTTP"]["static"].median / series["HTTP"]["busybox"].median, 1.0)
    return series


def is_slow(small):
    """What a few runs on a busy machine can tell: the tool's shortest takes more than three times as long as curl's."""
    return any(min(rows[tool].times) > 3 * min(rows["curl"].times) for rows in small.values() for tool in TOOLS)


def fill(path, size):
    with open(path, "wb") as file:
        for offset in range(0, size, MIB):
            file.write(os.urandom(min(MIB, size - offset)))


def bodies(report, server, folder):
    series, lines = {}, []
    for name, size in SIZES.items():
        body = server.root / str(size)
        fill(body, size)
        rounds, runs = (1, 1) if SMOKE else (5, 1) if size == GIB else (10, 5)
        for scheme, base in (("HTTP", server.http_url), ("HTTPS", server.https_url)):
            if scheme == "HTTPS" and size < 32 * MIB:
                continue
            url = f"{base}/{size}"
            rows = measure(file_rows(url, folder / "body", body), folder, rounds, runs)
            series[scheme, size] = rows
            lines.append(line(f"{name}, {scheme}", rows))
            if (name, scheme) == ("32 MiB", "HTTPS"):
                unwritten = measure(file_rows(url, "/dev/null"), folder, rounds, runs)
                lines.append(line("the same into /dev/null", unwritten))
                for tool, limit in TOOLS.items():
                    share = unwritten[tool].median / unwritten["curl"].median
                    report.bar(f"{tool}, 32 MiB over TLS into /dev/null, of curl", share, limit)
        if size == GIB:
            for tool in TOOLS:
                share = peak_memory(series["HTTP", size][tool]) / size
                report.bar(f"{tool}, 1 GiB, peak memory of the body", share, 1.06)
        body.unlink()
    report.add("A body into a file, ms (of curl)", table(["", *rows], lines))
    return {size: rows for (scheme, size), rows in series.items() if scheme == "HTTP"}


def at_once(report, server, folder):
    page = (server.root / "page.html").read_bytes()
    runs = 16 if SMOKE else 32 * AT_ONCE  # so many that the first and the last ones weigh little
    rows = measure(rows_at_once(server.http_url + "/page.html", page, runs), folder, 1 if SMOKE else 3, 1)
    report.bar(f"static, {AT_ONCE} at once, of curl", rows["static"].median / rows["curl"].median, 1 / 7)


PLOT = """
set terminal svg size 900,360 font "sans-serif,12" background "white"
set output "{output}"
set multiplot layout 1,2
set style fill solid 0.8 noborder
set grid ytics lc "#dddddd"
set border 3; set tics nomirror out
set style data histogram; set style histogram clustered gap 1
set yrange [0:*]; set ylabel "ms"; set title "A small answer"; set key top left
plot "{small}" using 2:xtic(1) title "HTTP" lc "#4477aa", "" using 3 title "HTTPS" lc "#ee6677"
set style data linespoints; set logscale xy; set yrange [*:*]; set format x "%.0b %BB"
set logscale x 2; set title "A body into a file"; set xtics 32
plot for [i=2:5] "{bodies}" using 1:i title columnheader(i) pt 7 ps 0.5 lw 1.5
"""


def draw(output, folder, small, sizes):
    """With gnuplot."""
    lines = []
    for name in small["HTTP"]:
        cells = [f"{rows[name].median * 1e3:.3f}" if name in rows else "0" for rows in small.values()]
        lines.append(" ".join([name, *cells]))
    (folder / "small").write_text("\n".join(lines))
    lines = ["size " + " ".join(next(iter(sizes.values())))]
    lines += [f"{size} " + " ".join(f"{r.median * 1e3:.3f}" for r in rows.values()) for size, rows in sizes.items()]
    (folder / "bodies").write_text("\n".join(lines))
    plot = PLOT.format(output=output, small=folder / "small", bodies=folder / "bodies")
    subprocess.run(["gnuplot"], input=plot, text=True, check=True)


def machine():
    def version(words, *command):
        said = subprocess.run(command, capture_output=True, text=True, check=True).stdout
        return " ".join(said.split()[:words])

    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    name = platform.freedesktop_os_release()["PRETTY_NAME"]
    return (
        f"Measured by `scripts/bench` on {datetime.date.today()}: {name}, Linux {platform.release().split('-')[0]}, "
        f"{os.cpu_count()} cores ({model.group(1).strip() if model else platform.machine()}), "
        f"{version(2, 'curl', '--version')}, {version(3, 'wget', '--version')}, {version(2, 'busybox')}; medians."
    )


def write(report):
    path = REPOSITORY / "docs/performance.md"
    begin, end = "<!-- scripts/bench writes from here -->\n", "<!-- to here -->\n"
    before, _, after = re.split(f"(?s)({begin}.*{end})", path.read_text())
    path.write_text(before + begin + "\n" + machine() + "\n\n" + "\n".join(report.sections) + "\n" + end + after)


def main():
    os.environ["no_proxy"] = "*"
    report = Report()
    with tempfile.TemporaryDirectory(dir="/dev/shm", prefix="webreq-bench-") as name:
        folder = pathlib.Path(name)
        folder.chmod(0o755)
        root = folder / "site"
        shutil.copytree(REPOSITORY / "server/site", root)
        with Nginx(root) as server:
            small = small_answers(report, server, folder)
            sizes = bodies(report, server, folder)
            at_once(report, server, folder)
        report.add("Bars", table(["", "measured", "bar", ""], report.bars))
        if SMOKE:
            return "bench: a run takes more than three times as long as curl's" if is_slow(small) else 0
        draw(REPOSITORY / "docs/performance.svg", folder, small, sizes)
        write(report)
    return any(bar[-1] == "missed" for bar in report.bars)


if __name__ == "__main__":
    sys.exit(main())
