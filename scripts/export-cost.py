#!/usr/bin/env python3
"""What it costs a device to hand its log over: processor time, bytes and requests of `pyxctl export` with a full log,
and of the reports that fill it. The service stands on a device root of its own."""
import argparse
import contextlib
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
STORAGE = pathlib.Path("/opt/data/dpm/dplugins/zav-pyx-plugin")
WATCH_S = 3
NEW = 10
MOST_RECORDS = 1000
PATIENCE_S = 60


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("records", nargs="?", type=int, default=MOST_RECORDS,
                        help=f"how many the log keeps, {NEW} to {MOST_RECORDS} ({MOST_RECORDS})")
    parser.add_argument("--rounds", type=int, default=20, help="of how many rounds the means are (20)")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="the build (build/release)")
    chosen = parser.parse_args()
    if not NEW <= chosen.records <= MOST_RECORDS:
        parser.error(f"so many records are not kept: {chosen.records}")
    chosen.build = chosen.build.resolve()
    return chosen


def processor_seconds(process):
    """All that a running process has used; the kernel has a clock for each."""
    return time.clock_gettime((~process.pid << 3) | 2)


def children_seconds():
    """All that the programs have used that this one has waited for."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def written_bytes(process):
    """What a process has written to files."""
    lines = pathlib.Path(f"/proc/{process.pid}/io").read_text().splitlines()
    return int(next(line.split()[1] for line in lines if line.startswith("wchar:")))


class Service:
    """The host with the plug-in, and what is done with it."""

    def __init__(self, build, directory, level):
        self.pyxctl = build / "client/pyxctl"
        self.log = directory / f"log-{level}"
        self.host = subprocess.Popen(
            [build / "host/dpm-host", "--library", build / "src/plugin/libzav-pyx-plugin.so", "--state-dir",
             directory / "state", "--log", self.log, "--log-level", level, "--serve"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.run("ping", "--wait")

    def command(self, line):
        self.host.stdin.write(line + "\n")
        self.host.stdin.flush()
        answer = self.host.stdout.readline()
        if "success" not in answer:
            raise RuntimeError(f"{line}: {answer}")

    def run(self, *words):
        """@return what pyxctl wrote."""
        command = [self.pyxctl, "--timeout", str(PATIENCE_S), *words]
        return subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout

    def requests(self):
        return self.log.read_text().count(" method : ")

    def close(self):
        self.host.send_signal(signal.SIGTERM)
        self.host.communicate(timeout=PATIENCE_S)


class Log:
    """A full log, and what is done with it in each round."""

    def __init__(self, service, directory):
        self.service = service
        self.cursor = directory / "cursor"
        self.reported = 0

    def report(self, count):
        for _ in range(count):
            self.reported += 1
            threat = ("phishing", "malware", "tracker")[self.reported % 3]
            url = f"https://host-{self.reported % 97}.example/path/{self.reported:06}"
            self.service.run("report", url, "--threat", threat)
        return b""

    def export_all(self):
        return self.service.run("export")

    def export_new(self):
        return self.service.run("export", "--cursor-file", str(self.cursor))


def measure(name, log, rounds, work, prepare=lambda: None):
    """Rounds of one kind of work: what they took on the average."""
    clients = service = written = size = requests = 0
    for _ in range(rounds):
        prepare()
        host = log.service.host
        before = children_seconds(), processor_seconds(host), written_bytes(host), log.service.requests()
        output = work()
        clients += children_seconds() - before[0]
        service += processor_seconds(host) - before[1]
        written += written_bytes(host) - before[2]
        requests += log.service.requests() - before[3]
        size += len(output)
    return name, *(total / rounds for total in (clients, service, written, requests, size))


def watch(log):
    """What a second of `pyxctl follow` takes where nothing happens, its start left out."""
    follower = subprocess.Popen([log.service.pyxctl, "follow", "-o", "ndjson", "--cursor-file", log.cursor],
                                stdout=subprocess.DEVNULL)

    def spent():
        return processor_seconds(follower), processor_seconds(log.service.host), 0, log.service.requests(), 0

    time.sleep(1)
    before = spent()
    time.sleep(WATCH_S)
    after = spent()
    follower.send_signal(signal.SIGINT)
    follower.wait(PATIENCE_S)
    return "a second of follow", *((last - first) / WATCH_S for first, last in zip(before, after))


def kinds(log, rounds):
    log.export_new()
    return (
        measure("export of all", log, rounds, log.export_all),
        measure(f"export of {NEW} new", log, rounds, log.export_new, lambda: log.report(NEW)),
        measure("export of nothing new", log, rounds, log.export_new),
        watch(log),
        measure("one report", log, rounds, lambda: log.report(1)),
    )


def fill(build, records, directory):
    """Leaves a full log behind."""
    with contextlib.closing(Service(build, directory, "info")) as service:
        service.command(f'exec UpdateConfig {{"Storage":{{"config":{{"max_file_size":{records},'
                        f'"max_logging_period":604800}}}}}}')
        Log(service, directory).report(records)


def figures(chosen, directory, level):
    with contextlib.closing(Service(chosen.build, directory, level)) as service:
        log = Log(service, directory)
        log.reported = chosen.records
        return kinds(log, chosen.rounds)


def show(chosen, timed, counted):
    print(f"A log of {chosen.records} records; means of {chosen.rounds} rounds; what was written and put out in bytes.")
    print(f"{'':24}{'pyxctl CPU ms':>15}{'service CPU ms':>16}{'service wrote':>15}{'requests':>10}{'output':>9}")
    for (name, client, service, written, _, size), (*_, requests, _) in zip(timed, counted):
        print(f"{name:24}{client * 1000:15.2f}{service * 1000:16.2f}{written:15.0f}{requests:10.1f}{size:9.0f}")


def main():
    chosen = arguments()
    if "DEVICE_ROOT" not in os.environ:
        program = chosen.build / "host/device-root"
        if not program.exists():
            sys.exit(f"export-cost: there is no build in {chosen.build}; ./run makes one")
        os.execv(program, ["device-root", "--opt-tmpfs", "--tmp-tmpfs", "--keep", chosen.build, "--keep", ROOT, "--",
                           sys.executable, "-B", *sys.argv])
    STORAGE.mkdir(parents=True)
    shutil.copy(ROOT / "host/policy.json", STORAGE)
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        fill(chosen.build, chosen.records, directory)
        timed = figures(chosen, directory, "info")
        # Requests are counted by their lines in a fuller log, which takes time of its own.
        counted = figures(chosen, directory, "debug")
        show(chosen, timed, counted)


if __name__ == "__main__":
    main()
