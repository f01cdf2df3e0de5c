"""Two questions of scripts/bench.sh (see Ask.cpp), asked of pyroute2's NDB, which mirrors the kernel in a database."""
import statistics
import sys
import time

from pyroute2 import NDB


def measure(step):
    """Repeats the step for a second, and prints the median of its times. Now and then NDB shows an MTU as it was before
    the update, for longer than a second: that step does not count."""
    times = []
    begin = time.perf_counter()
    i = 0
    while time.perf_counter() < begin + 1:
        start = time.perf_counter()
        if step(i):
            times.append((time.perf_counter() - start) * 1e6)
        i += 1
    print(f"{statistics.median(times):.2f}")


def wait_for(ndb, names):
    """NDB goes on reading the kernel after its start."""
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline:
        try:
            if all(ask(ndb, name)[1] for name in names):
                return
        except KeyError:
            time.sleep(0.1)


def ask(ndb, name):
    link = ndb.interfaces[name]
    addresses = [f"{record.address}/{record.prefixlen}" for record in link.ipaddr.summary()]
    return link, [text for text in addresses if ":" not in text]


def update(ndb, name, mtu, text):
    link, old = ask(ndb, name)
    link.set("mtu", mtu)
    for address in old:
        link.del_ip(address)
    link.add_ip(text)
    link.commit()
    found, addresses = ask(ndb, name)
    return found["mtu"] == mtu and addresses == [text]


def main():
    question, *names = sys.argv[1:]
    with NDB(log="off") as ndb:
        if question == "update":
            wait_for(ndb, ["p"])
            measure(lambda i: update(ndb, "p", 1400 + i % 2, f"10.20{i % 2}.0.1/24"))
        else:
            wait_for(ndb, names)
            measure(lambda i: len(ask(ndb, names[i % len(names)])[1]) == 1)


main()
