#!/usr/bin/env python3
"""Measures the plug-in against the least that could do the same, and beside programs that do a part of it. bench/run
calls this, with everything built."""
import argparse
import os
import pathlib
import platform
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import groups
import show
from services import Bench, Failure

SOURCE = pathlib.Path(__file__).resolve().parent.parent


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, prog="bench/run")
    parser.add_argument("--quick", action="store_true",
                        help="a few short rounds: whether the bench works, and no figures")
    parser.add_argument("--only", action="append", choices=list(groups.GROUPS), metavar="GROUP", default=[],
                        help=f"these groups alone: {', '.join(groups.GROUPS)}")
    parser.add_argument("--rounds", type=int,
                        help="of how many rounds the medians are (7; four times as many, each shorter, where there is "
                             "a goal)")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1, 1 << 31),
                        help="what the reported texts are made of (another one each time)")
    parser.add_argument("--build", type=pathlib.Path, default=SOURCE / "build/release",
                        help="the build to measure (build/release)")
    parser.add_argument("--output", type=pathlib.Path, default=SOURCE / "build/bench",
                        help="where results.json and growth.svg go, and the work is done: on a real disk (build/bench)")
    chosen = parser.parse_args()
    if chosen.rounds is not None and chosen.rounds < 1:
        parser.error("there has to be a round")
    chosen.build = chosen.build.resolve()
    chosen.output = chosen.output.resolve()
    return chosen


def processor():
    for row in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if row.startswith("model name"):
            return row.split(":", 1)[1].strip()
    return platform.machine()


def output_of(*command):
    done = subprocess.run(command, capture_output=True, text=True)
    return done.stdout.strip() if done.returncode == 0 else ""


def about(chosen, bench):
    """What the figures are of."""
    return {
        "seed": chosen.seed, "rounds": bench.rounds, "quick": bench.quick, "groups": chosen.only or list(groups.GROUPS),
        "time": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
        "commit": output_of("git", "-C", str(SOURCE), "describe", "--always", "--dirty"),
        "processor": processor(), "processors": os.cpu_count(), "kernel": platform.release(),
        "file system": output_of("findmnt", "-n", "-o", "FSTYPE", "-T", str(bench.work)), "load": os.getloadavg()}


def measure(chosen, bench):
    found = groups.Run(bench)
    facts = about(chosen, bench)
    show.line(", ".join(f"{key} {value}" for key, value in facts.items()))
    if facts["file system"] in ("tmpfs", "ramfs"):
        found.notes.append("the work was done in memory, not on a disk: no figure of a report says anything")
    if max(facts["load"][:2]) > 0.5:
        found.notes.append("the machine was busy with other things when this began")
    for name in chosen.only or groups.GROUPS:
        began = time.monotonic()
        groups.GROUPS[name](found)
        show.line(f"{name}: {time.monotonic() - began:.0f} s")
    for plugin in found.made.values():
        if isinstance(plugin, groups.Plugin) and plugin.warnings():
            raise Failure(f"{plugin.name} logged: {plugin.warnings()[0]}")
    facts["load at the end"] = os.getloadavg()
    show.show(found)
    show.write_json(chosen.output / "results.json", found, facts)
    if "growth" in found.figures:
        machine = f"{facts['processor']}, {facts['file system']}"
        show.write_curves(chosen.output / "growth.svg", found.figures["growth"], machine)
    show.line(f"\nAll of it is in {chosen.output}/results.json.")


def main():
    chosen = arguments()
    # So that what was started is ended.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("bench: ended by a signal"))
    device_root = chosen.build / "host/device-root"
    if not device_root.exists():
        sys.exit(f"bench: there is no build in {chosen.build}; bench/run makes one")
    if subprocess.run([device_root, "--check"]).returncode != 0:
        sys.exit("bench: it runs several services side by side, each on a device root of its own")
    chosen.output.mkdir(parents=True, exist_ok=True)
    work = pathlib.Path(tempfile.mkdtemp(prefix="work-", dir=chosen.output))
    os.chdir(work)
    bench = Bench(chosen.build, SOURCE, work, chosen.seed, chosen.quick)
    bench.rounds = chosen.rounds or bench.rounds
    # The disk may have an installation and a build still before it.
    os.sync()
    try:
        measure(chosen, bench)
    except Failure as failure:
        sys.exit(f"bench: {failure} (seed {chosen.seed})")
    finally:
        bench.close()
        os.chdir(SOURCE)
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
