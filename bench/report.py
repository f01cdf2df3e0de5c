"""Makes the table, and the numbers of the plot, from what scripts/bench.sh has measured.

    report.py FOLDER    reads *.json, memory.txt, and peers.txt, updates.txt and boot.txt, as far as they are there;
                        writes links.dat, routes.dat and peers.dat if all of their numbers are
"""
import collections
import itertools
import json
import math
import pathlib
import statistics
import sys

# What is wanted of the library: at most this part of what the other takes.
MOST = {
    ("getIps", "10", "libnl"): 1.5, ("getInterface", "10", "libnl"): 1.5, ("getVlan", "10", "libnl"): 1.5,
    ("getIps", "1000", "libnl"): 1.1, ("getInterface", "1000", "libnl"): 1.1, ("getRoute", "20000", "libnl"): 1.1,
    ("getListOfInterfaces", "10", "libnl"): 1.3, ("getListOfInterfaces", "1000", "libnl"): 1.3,
    ("getListOfInterfaces", "5000", "libnl"): 1.3,
    ("start", "1000 links", "libnl"): 1.1, ("start", "20000 routes", "libnl"): 1.1,
    ("query", "3 links", "go"): 1 / 20, ("query", "3 links", "ndb"): 1 / 300,
    ("query", "1003 links", "go"): 1 / 100, ("query", "1003 links", "ndb"): 1 / 100,
    ("update", "3 links", "ndb"): 1 / 50, ("update", "1003 links", "ndb"): 1 / 50,
    ("update", "1003 links", "go"): 1 / 2,
    ("update", "1 CPU, pause 0 us", "go"): 0.75, ("update", "1 CPU, pause 150 us", "go"): 0.75,
    ("update", "2 CPU, pause 0 us", "go"): 1.75, ("update", "2 CPU, pause 150 us", "go"): 1.75,
    ("boot", "100 veth", "ip"): 1.75, ("boot", "100 vlan", "ip"): 1.75,
}
MOST_MEMORY = 1.05  # resident
MOST_MORE = {("start", "10 links"): 150}  # microseconds, beside libnl
MOST_ALONE = {"closed log statement": 0.002}  # microseconds
QUESTIONS = {"query": "a link with its address", "update": "MTU and address, verified",
             "boot": "from nothing to address and route"}
PEERS = {"go": "Go library", "libnl": "libnl", "ndb": "pyroute2's NDB", "ip": "ip"}

verdicts = []  # for each row of which something is wanted, whether it is so


def line(what, objects, beside, library, other, ratio, wanted):
    print(f"{what:34}{objects:26}{beside:16}{library:>12}{other:>12}{ratio:>9}  {wanted}".rstrip())


def ratio_of(value):
    return f"{value:.3f}" if not 0 < value <= 0.1 else f"1/{1 / value:.0f}"


def duration(value):
    """Of microseconds."""
    number, unit = (1000 * value, "ns") if value < 1 else (value, "us") if value < 1000 else (value / 1000, "ms")
    return f"{number:.3g} {unit}" if number < 100 else f"{number:.0f} {unit}"


def kibibytes(value):
    return f"{value} KiB"


def judged(wanted, fulfilled):
    verdicts.append(fulfilled)
    return wanted if fulfilled else f"{wanted}  MISSED"


def compare(what, objects, beside, library, other, most=None, more=None, text=duration):
    """A row; wanted is at most `most` of the other's, or at most `more` than it."""
    wanted = ""
    if most is not None:
        wanted = judged(f"at most {ratio_of(most)}", library <= most * other and library < math.inf)
    if more is not None:
        wanted = judged(f"at most {text(more)} more", library <= other + more)
    line(what, objects, beside, text(library), text(other), ratio_of(library / other), wanted)


def alone(what, objects, library, most, text=duration):
    line(what, objects, "", text(library), "", "",
         "" if most is None else judged(f"at most {text(most)}", library <= most))


def read_benchmarks(folder):
    """Medians in microseconds: times[what][objects][who]. Of what only computes, the processor's time."""
    times = collections.defaultdict(lambda: collections.defaultdict(dict))
    runs = (json.loads(path.read_text())["benchmarks"] for path in folder.glob("*.json"))
    for run in itertools.chain(*runs):
        if run["aggregate_name"] == "median":
            what, objects, who, *clock = run["run_name"].split("/")
            times[what][objects][who] = run["real_time" if clock else "cpu_time"] / 1000
    return times


def by_first_number(text):
    return int(text.split()[0])


def report_benchmarks(times):
    for what in sorted(times, key=lambda name: (not name.startswith("get"), name)):
        for objects in sorted(times[what], key=by_first_number):
            row = times[what][objects]
            if "libnl" not in row:
                alone(what, "", row["library"], MOST_ALONE.get(what))
                continue
            unit = "" if " " in objects else " routes" if what == "getRoute" else " links"
            compare(what, objects + unit, "libnl", row["library"], row["libnl"], MOST.get((what, objects, "libnl")),
                    MOST_MORE.get((what, objects)))


def rows_of(path):
    return [row.split(";") for row in path.read_text().splitlines()] if path.exists() else []


def report_memory(folder):
    for objects, *measured in rows_of(folder / "memory.txt"):
        kinds = zip(["resident memory of a process", "of it written by the process"], *(one.split() for one in measured))
        for what, library, bare in kinds:
            compare(what, objects, "libnl", int(library), int(bare),
                    MOST_MEMORY if what.startswith("resident") else None, text=kibibytes)


def report_peers(folder):
    """Medians of what was measured by turns: medians[question, objects][who]; infinite if a single run failed."""
    answers = collections.defaultdict(lambda: collections.defaultdict(list))
    for name in ("peers.txt", "updates.txt", "boot.txt"):
        for question, objects, who, answer in rows_of(folder / name):
            answers[question, objects][who].append(float(answer))
    medians = {key: {who: math.inf if math.inf in row[who] else statistics.median(row[who]) for who in row}
               for key, row in answers.items()}
    for (question, objects), row in medians.items():
        if question == "readings":
            alone("readings in 1000 updates", objects, row["library"], 0, text="{:.0f}".format)
            continue
        for peer in (peer for peer in PEERS if peer in row):
            compare(QUESTIONS[question], objects, PEERS[peer], row["library"], row[peer],
                    MOST.get((question, objects, peer)))
    return medians


def write_plot(folder, times, peers):
    def write(name, queries):
        sizes = sorted(times[queries[0]], key=int)
        rows = [[size] + [f"{times[query][size][who]:.4f}" for query in queries for who in ("library", "libnl")]
                for size in sizes]
        (folder / name).write_text("".join(" ".join(row) + "\n" for row in rows))

    write("links.dat", ["getInterface", "getIps", "getListOfInterfaces"])
    write("routes.dat", ["getRoute"])
    rows = [[links] + [str(peers["query", f"{links} links"][peer]) for peer in ("go", "ndb", "ip")]
            for links in ("3", "1003")]
    (folder / "peers.dat").write_text("".join(" ".join(row) + "\n" for row in rows))


def main():
    folder = pathlib.Path(sys.argv[1])
    times = read_benchmarks(folder)
    print("Medians. The ratio is the library's cost over the other's.\n")
    line("what", "on, or beside", "compared with", "library", "other", "ratio", "wanted")
    report_benchmarks(times)
    report_memory(folder)
    peers = report_peers(folder)
    if "getIps" in times and ("query", "3 links") in peers:
        write_plot(folder, times, peers)
    print(f"\n{verdicts.count(False)} of the {len(verdicts)} rows of which something is wanted miss it.")


main()
