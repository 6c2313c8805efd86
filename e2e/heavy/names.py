"""Small worlds, in which the static executable and the one on glibc find the same addresses and ask DNS for the same
names.

"scripts/check static" runs it. Each world is made from its number, by which pytest's -k finds it again: "[17]". WORLDS
says how many there are. What static/README.md lists as different is in none of them.
"""

import os
import pprint
import random
import time

import dns.flags
import dns.message
import name_server
import own_network
import pytest
from conftest import ENVIRONMENT, REPOSITORY, WEBREQ, Answer, Tool, only_static

MODEL = REPOSITORY / "build/release/webreq"

LONG = "n" * 60 + "." + "m" * 8  # with one byte more 70 bytes
HOSTS = ["host", "host.test", "a.b.c.test", LONG + "a", "ho_st", "x--y.test", "in-hosts", "a~b"]
HOSTS += ["l" * 63 + ".test", "l" * 64 + ".test", ".".join(["l" * 58] * 4), "a.b.c.d.e.f.g.h.i.j.k.l.m.n.o.p.test"]
DOMAINS = ["one", "two.test", "three", "four.", "svc.cluster.local", "d" * 30, "d" * 64, "."]
BLOCKS = ["127.0.0.4", "127.0.0.5", "127.0.0.6", "127.0.0.7"]  # glibc leaves their order alone
ADDRESSES = [["0.0.0.0", "::1"], [*BLOCKS, "::1"], [*BLOCKS, "2001:db8::1"]]
NO_ADDRESSES = ["127.1", "0x7f000001", "127.0.0.256", "nonsense", "::1%lo", "127.0.0.01", "[::1]", "#127.0.0.1"]
RECORDS = [[], ["A 127.0.0.1"], ["AAAA ::1"], ["A 127.0.0.4", "AAAA ::1"], ["A 127.0.0.6", "AAAA 2001:db8::1"]]
RECORDS += [["A 127.0.0.6", "A 127.0.0.4"], ["A 0.0.0.0"], ["CNAME alias."], ["CNAME nowhere."]]
TROUBLES = ["REFUSED", "REFUSED", "NOTIMP", "drop", "SERVFAIL", "FORMERR", "late", "truncated"]
SERVICES = ["files dns", "files dns", "dns files", "files", "dns", "files myhostname resolve [!UNAVAIL=return] dns"]
SERVICES += ["mymachines resolve [!UNAVAIL=return] files myhostname dns", "files mdns4_minimal [NOTFOUND=return] dns"]
OPTIONS = ["debug", "edns0", "single-request", "single-request-reopen", "trust-ad", "unknown:3", "timeout:3"]


def make_number(pick):
    """Of the shapes that inet_aton takes, and of some that it doesn't."""
    parts = pick.choices([0, 1, 9, 127, 255, 256, 65536, 2130706433, 2**32], k=pick.choice([1, 2, 3, 4, 4, 5]))
    return ".".join(pick.choice(["{}", "{}", "0{:o}", "{:#x}", "{}x"]).format(part) for part in parts)


def make_line(pick, host, addresses):
    other = pick.choice(["other", host + ".example", host[:-1] + "z", "x" + host, "x" * 5000])
    names = pick.sample([host, host.upper(), other, "shared"], pick.choice([1, 2, 3]))
    address = pick.choice(addresses if pick.random() < 0.8 else NO_ADDRESSES)
    comment = pick.choice(["", "", " ", "#" + host, " # " + host])
    return pick.choice([" ", "\t", " \t "]).join([address, *names]) + comment


def make_services(pick):
    form = pick.choice(
        ["hosts: {}\n", "hosts:{}\n", "  hosts:\t{}\n", "#hosts: dns\nhosts: {}\n", "hosts:\nhosts: {}\n"]
    )
    return pick.choice(["passwd: files\n", None, *[form.format(services) for services in SERVICES] * 2])


def make_resolv_conf(pick, domains):
    servers = pick.choice([["127.0.0.1"], ["127.0.0.1", "127.0.0.2"], ["127.0.0.3", "127.0.0.1"], ["127.0.0.3"], []])
    lines = [f"nameserver {server}" for server in servers]
    lines += ["search " + " ".join(domains)] if domains else []
    options = pick.sample(OPTIONS, pick.choice([0, 0, 1, 2]))
    options += pick.choice([[], [], ["ndots:0"], ["ndots:1"], ["ndots:2"], ["ndots:5"], ["ndots:15"]])
    lines += ["options " + " ".join([*options, "timeout:1", f"attempts:{pick.choice([1, 1, 2])}"])]
    pick.shuffle(lines)
    return pick.choice(["", "# comment\n; another\n"]) + "\n".join([*lines, *pick.choice([[], [""]])])


def make_trouble(pick, resolv_conf):
    """With the kinds of questions that it is about: some name servers refuse AAAA alone."""
    trouble = pick.choice(TROUBLES[4 if "127.0.0.3" in resolv_conf else 0 :])
    return trouble, ["A", "AAAA"][trouble == "REFUSED" and pick.random() < 0.5 :]


def make_world(number):
    pick = random.Random(number)
    host, dot = (pick.choice(HOSTS), pick.choice([""] * 6 + ["."])) if pick.random() < 0.85 else (make_number(pick), "")
    domains = pick.sample(DOMAINS, pick.choice([0, 0, 1, 2, 3, 7]))
    names = [f"{host}.".lower(), *(f"{host}.{domain}".lower().rstrip(".") + "." for domain in domains), "alias."]
    addresses = pick.choice(ADDRESSES)
    lines = [make_line(pick, host, addresses) for _ in range(pick.choice([0, 0, 1, 2, 3]))]
    written = pick.choice([host, host, host, host.upper(), host.title()]) + dot
    resolv_conf = pick.choice([None] + [make_resolv_conf(pick, domains)] * 20)
    return {
        "URL": f"http://{written}/" + pick.choice([""] * 9 + ["http://alias/"]),
        "hosts": pick.choice(["\n", "\n", "\r\n"]).join(["127.0.0.1 in-hosts", *lines, ""]),
        "lines before": pick.choice([0] * 50 + [200_000]),
        "nsswitch.conf": make_services(pick),
        "resolv.conf": resolv_conf,
        "DNS": {name: pick.choice(RECORDS) for name in names if pick.random() < 0.6} | {"alias.": ["A 127.0.0.5"]},
        "troubles": {name: make_trouble(pick, resolv_conf or "") for name in names if pick.random() < 0.2},
    }


def name_server_of(world):
    def answer(query, transport):
        name, kind = query.question[0].name.to_text().lower(), name_server.kind(query)
        trouble, kinds = world["troubles"].get(name, ("none", []))
        trouble = trouble if kind in kinds else "none"
        if trouble == "drop":
            return None
        if trouble == "late":
            time.sleep(0.2)
        if trouble == "truncated" and transport == "UDP":
            response = dns.message.make_response(query, recursion_available=True)
            response.flags |= dns.flags.TC
            return response
        return (name_server.failing(trouble) if trouble.isupper() else name_server.zone(world["DNS"]))(query, transport)

    return answer


@pytest.fixture(name="place", scope="module")
def make_place(tmp_path_factory):
    folder = tmp_path_factory.mktemp("etc")
    with own_network.start(folder) as (enter, sockets):
        yield folder, enter, sockets


def write_files(folder, world):
    for path in folder.iterdir():
        path.unlink()
    (folder / "host.conf").write_text("multi on\n")
    before = "".join(f"0.0.0.0 blocked{i}.example\n" for i in range(world["lines before"]))
    for name, text in (("hosts", before + world["hosts"]), *((n, world[n]) for n in ("nsswitch.conf", "resolv.conf"))):
        if text is not None:
            (folder / name).write_text(text, newline="")


def look_up(place, tool, world):
    """Returns the answer, and what was asked of DNS, by name."""
    _, enter, sockets = place
    network = name_server.Network(*[name_server_of(world)] * 2)
    with network.serve(sockets):
        answer = Tool().run_command([*enter, tool, "-web", f"{world['URL']}|||||30000"], env=ENVIRONMENT)
    assert answer == Answer(answer.stdout) != Answer(b"")
    asked = [entry.split()[0] for entry in network.asked]
    return answer, asked


@only_static
@pytest.mark.skipif(not own_network.is_possible(), reason=own_network.REASON)
@pytest.mark.parametrize("number", range(int(os.environ.get("WORLDS", 1000))))
def test_world(place, number):
    world = make_world(number)
    write_files(place[0], world)
    for _ in range(3):  # where a busy machine connects late, libcurl tries the other kind of address
        expected, found = (look_up(place, tool, world) for tool in (MODEL, WEBREQ))
        if any(trouble == "drop" for trouble, _ in world["troubles"].values()):
            expected, found = expected[0], found[0]
        if found == expected:
            return
    assert found == expected, f"world {number}:\n{pprint.pformat(world, width=110)}"
