"""What a run found: as a table, as JSON, and as a picture of how the requests grow with the log."""
import dataclasses
import html
import json
import math

from goals import GOALS
from rounds import Spread, number


def line(text=""):
    print(text, flush=True)


def rows_of(rows):
    group = None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            line(f"\n{group}")
            line(f"  {'':42}{'requests/s':>28}{'p50 µs':>10}{'p99 µs':>10}{'CPU µs':>9}{'refused':>9}  "
                 "ratio of requests/s")
        show_row(row)


def show_row(row):
    about = [row["what"]]
    about += [f"{row['clients']} client{'s' if row['clients'] > 1 else ''}"]
    about += [f"{row[key]:,} {word}" for key, word in (("records", "records"), ("url", "B urls"), ("row", "B stored"),
                                                       ("answer", "B answer")) if key in row]
    line("  " + ", ".join(about))
    for name, figures in row["of"].items():
        against = ", ".join(f"{ratios['per_second']} of {base}" for base, ratios in row["ratios"].get(name, {}).items())
        median = {field: number(figures[field].median) for field in ("p50_us", "p99_us", "cpu_us")}
        line(f"    {name:40}{str(figures['per_second']):>28}{median['p50_us']:>10}{median['p99_us']:>10}"
             f"{median['cpu_us']:>9}{figures['refused']:>9}  {against}")


def goals_of(run):
    """Each goal with what was measured, and whether that meets it; None where that cannot be said."""
    for goal in GOALS:
        found = run.figures.get(goal.figure)
        yield goal, found, None if found is None or run.bench.quick else goal.is_met(found.median)


def show_goals(run):
    line("\ngoals" + (", of shorter logs and too few rounds to say anything" if run.bench.quick else ""))
    for goal, found, met in goals_of(run):
        verdict = {True: "met", False: "NOT MET", None: ""}[met]
        measured = str(found) if found else "not measured"
        line(f"  {goal.text:88}{measured:>24}  {goal.side} {number(goal.bound)} {goal.unit:5} {verdict}")


READS = {
    "read.state.1.calls": "method 4: a floor with the plug-in's calls, against the floor: throughput",
    "read.state.1.throughput-calls": "method 4: the plug-in against the floor with its calls: throughput",
    "read.state.1.p99-calls": "method 4: the same: p99",
    "read.status.1.calls": "method 16: a floor with the plug-in's calls, against the floor: throughput",
    "read.status.1.throughput-calls": "method 16: the plug-in against the floor with its calls: throughput",
    "read.status.1.p99-calls": "method 16: the same: p99",
    "sequential.p99-floor": "clients one after the other: p99 against p50 of the floor",
    "sequential.p99-calls": "clients one after the other: p99 against p50 of the floor with the plug-in's calls"}
REST = {
    "rest.start-ms.new": "factory's call to the first answer, on a new device, ms",
    "rest.start-ms.10": "the same with a log of 10 records, ms", "rest.start-ms.1000": "and of 1,000, ms",
    "rest.anonymous.new": "private anonymous memory that the plug-in adds to a process, empty log, MB",
    "rest.anonymous.10": "the same with 10 records, MB", "rest.anonymous.1000": "and with 1,000, MB",
    "rest.host-anonymous.10": "private anonymous memory of all of dpm-host, 10 records, MB",
    "rest.host-anonymous.1000": "the same with 1,000, MB",
    "rest.resident.new": "resident memory that the plug-in adds, empty log, MB",
    "rest.resident.1000": "the same with 1,000 records, MB",
    "rest.descriptors.1000": "descriptors that the plug-in adds", "rest.threads.1000": "threads that it adds"}


def show(found):
    figures = found.figures
    rows_of(found.rows)
    for title, lines in (("a read by one client, and its own limit", READS), ("at rest", REST)):
        if any(name in figures for name in lines):
            line(f"\n{title}")
        for name, text in lines.items():
            if name in figures:
                line(f"  {text:88}{str(figures[name]):>24}")
    if "instructions" in figures:
        line("\ninstructions of a request, in thousands")
    for each in figures.get("instructions", ()):
        parts = ", ".join(f"{part} {number(count / 1000)}" for part, count
                          in sorted(each["parts"].items(), key=lambda item: -item[1]) if count >= 1000)
        what = f"{each['what']}, {each['records']:,} records"
        line(f"  {what:40}{number(each['total'] / 1000):>10}  {parts}")
    if "promises" in figures:
        line("\nwhat an answer promises")
        for name, promise in figures["promises"].items():
            line(f"  {name:12}{promise}")
    show_goals(found)
    for note in found.notes:
        line(f"note: {note}")


def plain(value):
    """For JSON: spreads as objects, infinite and missing numbers as an error."""
    if isinstance(value, Spread):
        return dataclasses.asdict(value)
    raise TypeError(f"{value!r} is not for JSON")


def write_json(path, found, about):
    goals = [{"goal": goal.text, "figure": goal.figure, "side": goal.side, "bound": goal.bound, "unit": goal.unit,
              "measured": measured, "met": met} for goal, measured, met in goals_of(found)]
    document = {"about": about, "goals": goals, "figures": found.figures, "rows": found.rows, "notes": found.notes}
    path.write_text(json.dumps(document, indent=1, default=plain, allow_nan=False, ensure_ascii=False) + "\n")


WIDTH, HEIGHT, LEFT, RIGHT, TOP, BOTTOM = 860, 480, 80, 210, 50, 60
COLOURS = ("#1b6ca8", "#8a8a8a", "#c2571a", "#2a8c4a", "#8e3b8e", "#b8960c", "#444444")


def write_curves(path, curves, about):
    """Time of a request against the records of the log, both logarithmic; the bars are quartiles."""
    records = [at for at, _ in next(iter(curves.values()))]
    times = [each for points in curves.values() for _, spread in points for each in (spread.low, spread.high)]
    low, high = math.floor(math.log10(min(times))), math.ceil(math.log10(max(times)))

    def x(at):
        return LEFT + (WIDTH - LEFT - RIGHT) * math.log(at / records[0]) / math.log(records[-1] / records[0])

    def y(micros):
        return HEIGHT - BOTTOM - (HEIGHT - TOP - BOTTOM) * (math.log10(micros) - low) / (high - low)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" '
             'font-size="13">', f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
             f'<text x="{LEFT}" y="24" font-size="16">Time of a request against the records in the log</text>',
             f'<text x="{LEFT}" y="{HEIGHT - 14}">records in the log; one client, urls of 100 bytes, '
             f'{html.escape(about)}</text>', f'<text x="{LEFT - 70}" y="{TOP - 10}">µs</text>']
    for power in range(low, high + 1):
        at = y(10 ** power)
        parts.append(f'<path d="M{LEFT} {at:.1f}H{WIDTH - RIGHT}" stroke="#ddd"/><text x="{LEFT - 8}" y="{at + 4:.1f}" '
                     f'text-anchor="end">{10 ** power:,}</text>')
    for each in records:
        parts.append(f'<text x="{x(each):.1f}" y="{HEIGHT - BOTTOM + 20}" text-anchor="middle">{each:,}</text>')
    labels = labels_of(curves, y)
    for (name, points), colour in zip(curves.items(), COLOURS):
        way = " ".join(f"{x(at):.1f},{y(spread.median):.1f}" for at, spread in points)
        bars = "".join(f"M{x(at):.1f} {y(spread.low):.1f}V{y(spread.high):.1f}" for at, spread in points)
        dash = ' stroke-dasharray="6 4"' if "floor" in name else ""
        parts.append(f'<polyline points="{way}" fill="none" stroke="{colour}" stroke-width="2"{dash}/>'
                     f'<path d="{bars}" stroke="{colour}" stroke-width="2"/>'
                     f'<text x="{WIDTH - RIGHT + 10}" y="{labels[name]:.1f}" fill="{colour}">{html.escape(name)}'
                     '</text>')
    path.write_text("\n".join(parts) + "\n</svg>\n")


def labels_of(curves, y):
    """Where the names stand: at the ends of their curves, none on another."""
    places = {}
    last = 0
    for at, name in sorted((y(points[-1][1].median) + 4, name) for name, points in curves.items()):
        last = places[name] = max(at, last + 16)
    return places
