"""Makes the table of ratios, and the numbers of the plot, from what scripts/bench.sh has measured.

    report.py FOLDER    reads *.json, memory.txt and peers.txt in it, writes links.dat, routes.dat and peers.dat
"""
import collections
import itertools
import json
import pathlib
import statistics
import sys

# The ratios that the library promises: to libnl at most, over the peers at least.
MOST = {
    ("getIps", "10"): 1.5, ("getInterface", "10"): 1.5, ("getVlan", "10"): 1.5,
    ("getIps", "1000"): 1.1, ("getInterface", "1000"): 1.1, ("getRoute", "20000"): 1.1,
    ("getListOfInterfaces", "10"): 1.3, ("getListOfInterfaces", "1000"): 1.3, ("getListOfInterfaces", "5000"): 1.3,
    ("start", "10 links"): 1.1, ("start", "1000 links"): 1.1, ("start", "20000 routes"): 1.1,
}
MOST_MEMORY = 1.05  # resident
MOST_NANOSECONDS = {"closed log statement": 2}
LEAST = {
    ("query", "3", "go"): 20, ("query", "3", "ndb"): 300, ("query", "1003", "go"): 100, ("query", "1003", "ndb"): 100,
    ("update", "3", "go"): 1, ("update", "1003", "go"): 2, ("update", "3", "ndb"): 50, ("update", "1003", "ndb"): 50,
}
QUESTIONS = {"query": "a link with its address", "update": "MTU and address, verified"}
PEERS = {"go": "Go library", "ndb": "pyroute2's NDB", "ip": "ip"}


def line(what, objects, beside, library, other, ratio, wanted):
    print(f"{what:34}{objects:26}{beside:16}{library:>12}{other:>12}{ratio:>9}  {wanted}")


def duration(value):
    """Of microseconds."""
    number, unit = (1000 * value, "ns") if value < 1 else (value, "us") if value < 1000 else (value / 1000, "ms")
    return f"{number:.3g} {unit}" if number < 100 else f"{number:.0f} {unit}"


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
            library = row["library"]
            if "libnl" not in row:
                limit = MOST_NANOSECONDS.get(what)
                line(what, f"{objects} links" if objects != "1" else "", "", duration(library), "", "",
                     f"at most {limit} ns" if limit else "")
                continue
            limit = MOST.get((what, objects))
            unit = "" if " " in objects else " routes" if what == "getRoute" else " links"
            line(what, objects + unit, "libnl", duration(library), duration(row["libnl"]),
                 f"{library / row['libnl']:.2f}", f"at most {limit}" if limit else "")


def report_memory(folder):
    for row in (folder / "memory.txt").read_text().splitlines():
        objects, *measured = row.split(";")
        kinds = zip(["resident memory of a process", "of it written by the process"], *(one.split() for one in measured))
        for what, library, bare in kinds:
            line(what, objects, "libnl", library + " KiB", bare + " KiB", f"{int(library) / int(bare):.2f}",
                 f"at most {MOST_MEMORY}" if what.startswith("resident") else "")


def report_peers(folder):
    times = collections.defaultdict(lambda: collections.defaultdict(list))
    for row in (folder / "peers.txt").read_text().splitlines():
        links, peer, question, time = row.split()
        times[question, links][peer].append(float(time))
    times = {key: {peer: statistics.median(row[peer]) for peer in row} for key, row in times.items()}
    for (question, links), row in times.items():
        for peer, name in PEERS.items():
            limit = LEAST.get((question, links, peer))
            line(QUESTIONS[question], links + " links", name, duration(row["library"]), duration(row[peer]),
                 f"{row[peer] / row['library']:.1f}", f"at least {limit}" if limit else "")
    return times


def write_plot(folder, times, peers):
    def write(name, queries):
        sizes = sorted(times[queries[0]], key=int)
        rows = [[size] + [f"{times[query][size][who]:.4f}" for query in queries for who in ("library", "libnl")]
                for size in sizes]
        (folder / name).write_text("".join(" ".join(row) + "\n" for row in rows))

    write("links.dat", ["getInterface", "getIps", "getListOfInterfaces"])
    write("routes.dat", ["getRoute"])
    rows = [[links] + [str(peers["query", links][peer]) for peer in PEERS] for links in ("3", "1003")]
    (folder / "peers.dat").write_text("".join(" ".join(row) + "\n" for row in rows))


def main():
    folder = pathlib.Path(sys.argv[1])
    times = read_benchmarks(folder)
    print("Medians. The ratio is the library's cost over libnl's, and the peers' cost over the library's.\n")
    line("what", "beside a kernel with", "compared with", "library", "other", "ratio", "wanted")
    report_benchmarks(times)
    report_memory(folder)
    write_plot(folder, times, report_peers(folder))


main()
