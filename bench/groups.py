"""What is measured, group by group. Each gives rows for the table, and figures by their names."""
import json
import pathlib
import re
import shutil
import subprocess
import time
import zlib

import peers
from rounds import Spread, alternate, ratio, spread, summary
from services import METHODS, Failure, Floor, Plugin, belongings_of, end, memory_of, status_of, switches_of

KINDS = {"state": "method 4", "status": "method 16", "log": "method 17", "log-reverse": "method 18",
         "count": "method 20", "report": "method 6"}
CLIENTS = (1, 4, 16)
RECORDS = (10, 100, 1000)
GROWTH = (10, 30, 100, 300, 1000)
BUDGET_MB = 1 << 20


class Run:
    """The services of a run, each made when it is wanted first, and what the groups have found."""

    def __init__(self, bench):
        self.bench = bench
        self.made = {}
        self.rows = []
        self.figures = {}
        self.notes = []

    def once(self, name, make):
        if name not in self.made:
            self.made[name] = make()
        return self.made[name]

    def plugin(self, records, url_size=100, level="warning"):
        """The plug-in with a full log of such records."""
        name = f"p{records}-{url_size}" + ("" if level == "warning" else "-" + level)

        def make():
            plugin = Plugin(self.bench, name, records, level).start()
            if plugin.records >= 100 and url_size >= 10_000:
                plugin.configure().stop()
                return plugin.seed(url_size).start()
            return plugin.fill(url_size)
        return self.once(name, make)

    def read_floor(self, plugin, kind, most=0, start=-1, one=False, calls=False):
        """A floor that gives the plug-in's own answer, as it is now."""
        answer = plugin.expected(kind, most, start)
        name = f"f{METHODS[kind]}-{zlib.crc32(answer.read_bytes()):x}" + ("-one" if one else "") + ("-calls" * calls)
        return self.once(name, lambda: Floor(self.bench, name, {kind: answer}, one_at_a_time=one, plugin_calls=calls))

    def report_floor(self, plugin, one=False):
        name = f"f{plugin.name}-report" + ("-one" if one else "")
        return self.once(name, lambda: Floor(self.bench, name, row=len(plugin.row().encode()), one_at_a_time=one))

    def row(self, group, what, results, *bases, **about):
        """Takes down what came of rounds. @param bases  what the others are held against."""
        ratios = {name: {base: {field: ratio(results[name], results[base], field)
                                for field in ("per_second", "p50_us", "p99_us", "cpu_us")} for base in bases}
                  for name in results if name not in bases}
        self.rows.append({"group": group, "what": what, **about,
                          "of": {name: summary(each) for name, each in results.items()}, "ratios": ratios})
        return results

    def figure(self, name, value):
        """@param value  a Spread, or a number that was measured once."""
        self.figures[name] = value if isinstance(value, Spread) else spread([value])


def reads(run):
    """The shortest read and the status, by one client and by several."""
    plugin = run.plugin(10)
    rounds, seconds = run.bench.finely(0.5)
    for kind in ("state", "status"):
        expect = plugin.expected(kind)
        for clients in CLIENTS:
            def load(target):
                return lambda: run.bench.load(target, kind, expect=expect, clients=clients, warm_up=5, seconds=seconds)
            floors = {"floor": run.read_floor(plugin, kind),
                      "floor, one at a time": run.read_floor(plugin, kind, one=True),
                      WITH_CALLS: run.read_floor(plugin, kind, one=True, calls=True)}
            results = run.row("read", KINDS[kind], alternate(rounds, {
                **{name: load(floor) for name, floor in floors.items()}, "plug-in": load(plugin)}),
                *floors, clients=clients, records=10)
            for name, against in zip(("", "-one", "-calls"), floors):
                for figure, field in (("throughput", "per_second"), ("p99", "p99_us")):
                    run.figure(f"read.{kind}.{clients}.{figure}{name}",
                               ratio(results["plug-in"], results[against], field))
            run.figure(f"read.{kind}.{clients}.calls", ratio(results[WITH_CALLS], results["floor"], "per_second"))
            if clients == 1 and kind == "state":
                sequential(run, results)


# It serves one at a time, too: what the plug-in takes more than this it takes between its calls.
WITH_CALLS = "floor with the plug-in's calls"


def sequential(run, results):
    run.figure("sequential.refused", sum(each["refused"] for each in results["plug-in"]))
    run.figure("sequential.stalls", sum(each["stalls"] for each in results["plug-in"]))
    for name, of in (("", "plug-in"), ("-floor", "floor"), ("-calls", WITH_CALLS)):
        run.figure("sequential.p99" + name, spread(each["p99_us"] / each["p50_us"] for each in results[of]))


def reports_of(run, plugin, clients, url_size, rounds, seconds, one=False):
    """Rounds of reports: to the plug-in, which are read back each time, and to the floor with rows of that size."""
    def load(target, *words):
        return lambda: run.bench.report(target, *words, clients=clients, warm_up=2, url_size=url_size, seconds=seconds)
    contestants = {"floor": load(run.report_floor(plugin)), "plug-in": load(plugin, "--read-back")}
    bases = ["floor"]
    if one:
        bases.append("floor, one at a time")
        contestants[bases[-1]] = load(run.report_floor(plugin, one=True))
    results = alternate(rounds, contestants)
    for target in (plugin, run.report_floor(plugin)):
        target.check_backup()
    return run.row("report", "method 6", results, *bases, clients=clients, records=plugin.records, url=url_size,
                   row=len(plugin.row().encode()))


def reports(run):
    """Reports into full logs."""
    for records in run.bench.pick(RECORDS):
        results = reports_of(run, run.plugin(records), 1, 100, *run.bench.finely(0.8))
        run.figure(f"report.{records}.throughput", ratio(results["plug-in"], results["floor"], "per_second"))
        run.figure(f"report.{records}.cpu", ratio(results["plug-in"], results["floor"], "cpu_us"))
    for clients in CLIENTS[1:]:
        reports_of(run, run.plugin(10), clients, 100, *run.bench.finely(0.8), one=True)


def long_reports(run):
    """Reports of long urls. A thousand of a megabyte would be no row that SQLite takes."""
    for records, url_size in run.bench.pick(((10, 10_000), (100, 10_000), (1000, 10_000), (10, 1_000_000))):
        reports_of(run, run.plugin(records, url_size), 1, url_size, run.bench.rounds, run.bench.slice_s(1.0))


def ranges(run):
    """Ranges and counts, of all and of the last ten."""
    kinds = (("log", 0, -1), ("log-reverse", 0, -1), ("log-reverse", 10, -1), ("count", 0, -1), ("status", 0, -1))
    for kind, most, start in kinds:
        for records in run.bench.pick(RECORDS):
            range_of(run, run.plugin(records), kind, most, start)
    for clients in CLIENTS[1:]:
        range_of(run, run.plugin(1000), "log-reverse", 10, -1, clients)
        range_of(run, run.plugin(1000), "count", 0, -1, clients)
    last_ten(run)


def range_of(run, plugin, kind, most, start, clients=1):
    expect = plugin.expected(kind, most, start)

    def load(target):
        return lambda: run.bench.load(target, kind, expect=expect, records=most, start=start, clients=clients,
                                      warm_up=2, seconds=run.bench.slice_s(0.25))
    what = KINDS[kind] + (f", last {most}" if most else ", all" if kind.startswith("log") else "")
    run.row("range", what, alternate(run.bench.rounds, {"floor": load(run.read_floor(plugin, kind, most, start)),
                                                        "plug-in": load(plugin)}),
            "floor", clients=clients, records=plugin.records, answer=expect.stat().st_size)


def last_ten(run):
    """The last ten of a long log against the only ten, side by side."""
    rounds, seconds = run.bench.finely(0.5)

    def load(plugin):
        expect = plugin.expected("log-reverse", 10)
        return lambda: run.bench.load(plugin, "log-reverse", expect=expect, records=10, warm_up=5, seconds=seconds)
    results = run.row("range", "method 18, last 10: of 1,000 against the only 10", alternate(
        rounds, {"only 10": load(run.plugin(10)), "of 1,000": load(run.plugin(1000))}), "only 10", clients=1)
    run.figure("range.last.growth", ratio(results["only 10"], results["of 1,000"], "per_second"))


def log_lines(run):
    """What the lines of the debug level add to a report."""
    plugins = {"warnings alone": run.plugin(10), "all lines": run.plugin(10, level="debug")}
    before = plugins["all lines"].log_bytes()
    rounds, seconds = run.bench.finely(0.8)

    def load(plugin):
        return lambda: run.bench.report(plugin, "--read-back", warm_up=2, seconds=seconds)
    results = run.row("log lines", "method 6",
                      alternate(rounds, {name: load(plugin) for name, plugin in plugins.items()}),
                      "warnings alone", clients=1, records=10)
    cost = ratio(results["warnings alone"], results["all lines"], "per_second")
    run.figure("log-lines.cost", Spread(*(100 * (each - 1) for each in (cost.median, cost.low, cost.high))))
    if plugins["all lines"].log_bytes() == before:
        raise Failure("no line was logged at the debug level")


def growth(run):
    """How a request grows with the log."""
    curves = {}
    for records in run.bench.pick(GROWTH):
        plugin = run.plugin(records)
        loads = {"report": ("report", plugin, 0), "report, floor": ("report", run.report_floor(plugin), 0),
                 "method 16 (status)": ("status", plugin, 0), "method 17 (all)": ("log", plugin, 0),
                 "method 18 (last 10)": ("log-reverse", plugin, 10), "method 20 (count)": ("count", plugin, 0),
                 "method 4 (state)": ("state", plugin, 0)}

        def load(kind, target, most):
            # What is expected is asked for anew: the reports of each round change it.
            def one():
                seconds = run.bench.slice_s(0.2)
                if kind == "report":
                    return run.bench.report(target, warm_up=2, seconds=seconds)
                return run.bench.load(target, kind, expect=plugin.expected(kind, most), records=most, warm_up=2,
                                      seconds=seconds)
            return one
        results = alternate(run.bench.rounds, {name: load(*words) for name, words in loads.items()})
        for name, each in results.items():
            curves.setdefault(name, []).append((plugin.records, spread(1e6 / one["per_second"] for one in each)))
    run.figures["growth"] = curves


def rest(run):
    """What it takes when nothing happens."""
    stretch = 1 if run.bench.quick else 30
    plugin = run.plugin(10)
    run.bench.report(plugin, most=5)
    # What the last request leaves to be done is done by then.
    time.sleep(0.3)
    before = switches_of(plugin.process)
    time.sleep(stretch)
    after = switches_of(plugin.process)
    if before.keys() != after.keys():
        raise Failure("threads came or went at rest")
    run.figure("rest.wake-ups", sum(after[task] - before[task] for task in after) * 60 / stretch)
    run.notes.append(f"wake-ups: context switches of all {len(after)} threads of dpm-host in {stretch} s, after some "
                     "requests")

    host_memory(run)
    stripped = run.bench.work / "stripped"
    subprocess.run(["strip", "-o", stripped, run.bench.build / "src/plugin/libzav-pyx-plugin.so"], check=True)
    run.figure("rest.size", stripped.stat().st_size / 1000)


class Probe(Plugin):
    """The plug-in in a host that has next to nothing of its own."""

    def start(self):
        build = self.bench.build
        self.process = self.bench.start(
            build / "host/device-root", "--opt", self.directory / "opt", "--tmp", self.directory / "tmp",
            "--keep", build, "--keep", self.bench.source, "--keep", self.bench.work, "--", build / "bench/bench-probe",
            build / "src/plugin/libzav-pyx-plugin.so", stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.process.stdout.readline()
        return self

    def load(self):
        """Loads the plug-in. @return the milliseconds that it took."""
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        if not line:
            raise Failure("the plug-in did not start in bench-probe")
        return json.loads(line)


def host_memory(run):
    """What a process grows by with the plug-in."""
    logs = {"new": None, "10": run.plugin(10), "1000": run.plugin(1000)}
    found = {name: [] for name in logs}
    for which in range(run.bench.rounds):
        for name, log in logs.items():
            found[name].append(one_start(run, f"probe{which}-{name}", log))
    for name in logs:
        for field in ("start-ms", "anonymous", "resident", "descriptors", "threads"):
            run.figure(f"rest.{field}.{name}", spread(each[field] for each in found[name]))
    for records in (10, 1000):
        whole = memory_of(run.plugin(records).process)["anonymous_kb"]
        run.figure(f"rest.host-anonymous.{records}", whole * 1024 / BUDGET_MB)


def one_start(run, name, log):
    """A start with a copy of the log, or on a new device, and some requests: also those leave something behind."""
    probe = Probe(run.bench, name, log.records if log else 10)
    if log:
        shutil.copy(log.storage / ".data.db", probe.storage)
    probe.start()
    empty = {**memory_of(probe.process), **belongings_of(probe.process)}
    started = probe.load()["answer_ms"]
    run.bench.load(probe, "state", expect=run.plugin(10).expected("state"), most=20)
    if log:
        run.bench.report(probe, "--read-back", most=20, seconds=1e6)
        probe.expected("log")
    # The thread of the last connection outlives it a little.
    time.sleep(0.2)
    full = {**memory_of(probe.process), **belongings_of(probe.process)}
    end(probe.process)
    grown = {each: full[each] - empty[each] for each in full}
    return {"start-ms": started, "anonymous": grown["anonymous_kb"] * 1024 / BUDGET_MB,
            "resident": grown["resident_kb"] * 1024 / BUDGET_MB, "descriptors": grown["descriptors"],
            "threads": grown["threads"]}


def peak(run):
    """The most memory that a report of the longest url takes into a log of ten such."""
    url_size = 1_000_000 if run.bench.quick else 16_000_000
    plugin = run.plugin(10, url_size)
    pathlib.Path(f"/proc/{plugin.process.pid}/clear_refs").write_text("5")
    before = memory_of(plugin.process)["resident_kb"]
    run.bench.report(plugin, most=1, seconds=1e6, url_size=url_size)
    most = int(status_of(plugin.process)["VmHWM"].split()[0]) * 1024
    plugin.expected("log-reverse", 1)
    stored = len(plugin.row().encode())
    run.figure("rest.peak", most / stored)
    run.notes.append(f"peak: {most / 1e6:.0f} MB of resident memory, {before * 1024 / 1e6:.0f} MB before it, for a row "
                     f"of {stored / 1e6:.0f} MB")
    plugin.check_backup()


def instructions(run):
    """Instructions of the process, in user space, for one request: what a run of many takes more than one of none."""
    valgrind = shutil.which("valgrind")
    if valgrind is None:
        run.notes.append("instructions: the package valgrind is not installed")
        return
    run.notes.append("instructions: of the whole process outside the kernel, by valgrind's callgrind")
    totals = {}
    requests = 5 if run.bench.quick else 20
    kinds = ("report",) if run.bench.quick else COUNTED
    for records in (10, 1000):
        log = run.plugin(records)
        away_from_renumbering(run, log)
        none = counted(run, valgrind, log, None, 0)
        for kind in kinds:
            some = counted(run, valgrind, log, kind, requests)
            parts = {part: (some.get(part, 0) - none.get(part, 0)) / requests for part in some}
            totals[kind, records] = sum(parts.values())
            run.figures.setdefault("instructions", []).append(
                {"what": KINDS[kind] + (", last 10" if kind == "log-reverse" else ""), "records": log.records,
                 "total": totals[kind, records], "parts": parts})
    for kind in kinds:
        run.figure(f"instructions.{kind}.growth", totals[kind, 1000] / totals[kind, 10])


def away_from_renumbering(run, log):
    """Once in a thousand reports the log is renumbered: that is not to fall among the few that are counted."""
    while json.loads(log.row())["state"]["last_index"] > 1900:
        run.bench.report(log, most=100, seconds=1e6)


def counted(run, valgrind, log, kind, requests):
    """The instructions of a host that starts with a copy of the log, answers so many requests and ends, by library."""
    bench = run.bench
    bench.runs += 1
    name = f"i{bench.runs}"
    out = bench.work / f"{name}.callgrind"
    plugin = Plugin(bench, name, log.records, prefix=(valgrind, "--tool=callgrind", "--quiet", "--vgdb=no",
                                                      f"--callgrind-out-file={out}"))
    shutil.copy(log.storage / ".data.db", plugin.storage)
    plugin.start()
    # What is done once, at the first request of its kind, is no part of it: every host gets these.
    warm_up = 2
    bench.report(plugin, most=warm_up, seconds=1e6)
    expected = {each: plugin.expected(each, most) for each, most in COUNTED.items() if each != "report"}
    if kind == "report":
        bench.report(plugin, most=requests, seconds=1e6)
    elif kind:
        bench.load(plugin, kind, expect=expected[kind], records=COUNTED[kind], most=requests, seconds=1e6)
    plugin.stop()
    added = json.loads(plugin.row())["state"]["count"] - json.loads(log.row())["state"]["count"]
    if added != warm_up + (requests if kind == "report" else 0):
        raise Failure(f"{name}: {added} records were added")
    return by_library(out)


# Kinds of requests, and the most records that they ask for.
COUNTED = {"state": 0, "status": 0, "count": 0, "log": 0, "log-reverse": 10, "report": 0}
LIBRARIES = (("zav-pyx-plugin", "plug-in"), ("jsoncpp", "jsoncpp"), ("sqlite3", "SQLite"), ("libklay", "stand-in"),
             ("libdlog", "stand-in"), ("libdpm", "stand-in"), ("dpm-host", "host"), ("stdc++", "C++ library"),
             ("libc.so", "C library"))


def by_library(file):
    """The instructions of a callgrind file, added up by who has them."""
    names = {}
    totals = {}
    library = "other"
    inclusive = False
    for line in file.read_text().splitlines():
        if match := re.match(r"(c?ob)=\((\d+)\)(?: (.*))?", line):
            if match[3]:
                names[match[2]] = next((part for word, part in LIBRARIES if word in match[3]), "other")
            if match[1] == "ob":
                library = names[match[2]]
        elif line.startswith("calls="):
            # The line behind it is what the called function took, which stands with that.
            inclusive = True
        elif match := re.match(r"[+*-]?\d* (\d+)$", line):
            if not inclusive:
                totals[library] = totals.get(library, 0) + int(match[1])
            inclusive = False
    return totals


def beside_peers(run):
    """The plug-in beside programs that do a part of the same. None of them does all of it."""
    plugin = run.plugin(10)
    made = {}
    for kind in (peers.Clamd, peers.Redis, peers.Rsyslog, peers.Journald):
        try:
            made[kind.name] = kind(run.bench)
        except peers.Missing as missing:
            run.notes.append(f"left out: {missing}")
    seconds = run.bench.slice_s(0.8)

    def append(peer, kind):
        def one():
            result = run.bench.report(peer, kind=kind, warm_up=2, seconds=seconds, **peer.append_options())
            peer.sent += result["answered"]
            return result
        return one
    appends = {"plug-in": lambda: run.bench.report(plugin, "--read-back", warm_up=2, seconds=seconds),
               "floor": lambda: run.bench.report(run.report_floor(plugin), warm_up=2, seconds=seconds)}
    for name, kind in (("redis", "redis-append"), ("rsyslog", "rsyslog"), ("journald", "journald")):
        if name in made:
            appends[name] = append(made[name], kind)
    run.row("peers", "a record of 100 bytes", alternate(run.bench.rounds, appends), "plug-in", clients=1, records=10)
    for peer in made.values():
        peer.check()
    looks(run, plugin, made, seconds)
    run.figures["promises"] = {
        "plug-in": "a report is on the disk when it is answered, and in the backup; one writer; a log of bounded size",
        "floor": "the same, but nothing is bounded, looked after or repaired",
        **{name: peer.promises for name, peer in made.items()}}


def looks(run, plugin, made, seconds):
    """Reads of the plug-in beside those of peers."""
    def load(target, kind, **options):
        return lambda: run.bench.load(target, kind, warm_up=2, seconds=seconds, **options)
    short = {"plug-in": load(plugin, "state", expect=plugin.expected("state"))}
    if "clamd" in made:
        short["clamd (PING)"] = load(made["clamd"], "clamd-ping", **made["clamd"].options())
    run.row("peers", "the shortest question", alternate(run.bench.rounds, short), "plug-in", clients=1)
    ten = {"plug-in": load(plugin, "log-reverse", expect=plugin.expected("log-reverse", 10), records=10)}
    if "redis" in made:
        ten["redis (LRANGE)"] = load(made["redis"], "redis-range", **made["redis"].options())
    run.row("peers", "the last 10 records", alternate(run.bench.rounds, ten), "plug-in", clients=1, records=10)


GROUPS = {"read": reads, "report": reports, "long": long_reports, "range": ranges, "log-lines": log_lines,
          "growth": growth, "rest": rest, "peak": peak, "instructions": instructions, "peers": beside_peers}
