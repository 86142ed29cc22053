"""What is measured: the plug-in in its host, on a device root of its own, and the floor; and the load on them."""
import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import time

STORAGE = "data/dpm/dplugins/zav-pyx-plugin"
PATIENCE_S = 120
HEADER = struct.Struct("=iiii")
TAG = 8
METHODS = {"state": 4, "report": 6, "status": 16, "log": 17, "log-reverse": 18, "count": 20}
LONGEST = 2**31 - 1
WEEK_S = 604800


class Failure(Exception):
    """What must not be: a wrong answer, a lost record, a program that does not work."""


class Bench:
    """What all of one run share: where the programs are, and where they work."""

    def __init__(self, build, source, work, seed, quick):
        self.build = build
        self.source = source
        self.work = work
        self.seed = seed
        self.quick = quick
        self.rounds = 1 if quick else 7
        # Short logs in place of long ones: to fill those takes most of the time.
        self.sizes = {30: 12, 100: 20, 300: 30, 1000: 40} if quick else {}
        self.runs = 0
        self.stack = contextlib.ExitStack()
        self.services = {}
        self.clients = 0

    def records(self, count):
        return self.sizes.get(count, count)

    def pick(self, series):
        """Of a series of sizes, all; or its ends, to see whether it works."""
        return (series[0], series[-1]) if self.quick else series

    def slice_s(self, seconds):
        return 0.08 if self.quick else seconds

    def finely(self, seconds):
        """More rounds in the same time, for what has a goal: a disturbance of the machine that
        lasts meets all that are compared. @return the rounds, and the seconds of each."""
        parts = 1 if self.quick else 4
        return parts * self.rounds, self.slice_s(seconds / parts)

    def directory(self, name):
        path = self.work / name
        path.mkdir(parents=True)
        return path

    def start(self, *command, **options):
        """A program that is ended with the bench. It works in the bench's own directory: names of sockets are short."""
        process = subprocess.Popen([str(each) for each in command], cwd=self.work, text=True, **options)
        self.stack.callback(end, process)
        return process

    def load(self, target, kind, *words, **options):
        """Runs a load on a target. @return its figures, and the target's processor time for a request."""
        command = [self.build / "bench/bench-load", "--socket", target.socket, "--kind", kind, *words]
        for name, value in options.items():
            command += ["--" + name.replace("_", "-"), str(value)]
        before = processor_seconds(target.process)
        done = subprocess.run([str(each) for each in command], cwd=self.work, capture_output=True, text=True,
                              timeout=10 * PATIENCE_S)
        if done.returncode != 0:
            raise Failure(f"{target.name}: {kind}: {done.stderr.strip() or done.returncode}")
        spent = processor_seconds(target.process) - before
        result = json.loads(done.stdout)
        if result["refused"] and isinstance(target, Plugin) and options.get("clients", 1) == 1:
            raise Failure(f"{target.name}: {kind}: a client that came alone was refused {result['refused']} times")
        result["cpu_us"] = spent * 1e6 / result["answered"]
        result["stalls"] = int(result["max_us"] >= 100_000)
        return result

    def report(self, target, *words, kind="report", **options):
        """The same with reports, which get texts that no report before had."""
        self.runs += 1
        return self.load(target, kind, *words, seed=self.seed, run=self.runs, **options)

    def close(self):
        self.stack.close()


def end(process):
    """Ends a program that the bench started, by its id."""
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
    for stream in (process.stdin, process.stdout):
        if stream:
            stream.close()
    try:
        process.wait(PATIENCE_S)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def processor_seconds(process):
    """All that a running process has used; the kernel has a clock for each."""
    return time.clock_gettime((~process.pid << 3) | 2)


def wait_until(condition, what, process):
    deadline = time.monotonic() + PATIENCE_S
    while not condition():
        if process.poll() is not None:
            raise Failure(f"{what}: it ended with {process.returncode}")
        if time.monotonic() > deadline:
            raise Failure(f"{what}: not within {PATIENCE_S} s")
        time.sleep(0.01)


def ask(path, request):
    """One request by another hand than the load's. @return the answer, to the end of the connection."""
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(PATIENCE_S)
        client.connect(str(path))
        client.sendall(request)
        answer = b""
        while piece := client.recv(1 << 20):
            answer += piece
        return answer


def request_of(kind, most=0, start=-1):
    header = HEADER.pack(0, 0, TAG, METHODS[kind])
    if kind in ("log", "log-reverse"):
        return header + struct.pack("=iiiiii", 0, 0, 0, 0, most, start)
    return header + struct.pack("=iiii", 0, 0, 0, LONGEST) if kind == "count" else header


def answers(path):
    try:
        return len(ask(path, request_of("state"))) > 0
    except OSError:
        return False


class Plugin:
    """The plug-in in dpm-host, with a log of so many records."""

    def __init__(self, bench, name, records, level="warning", prefix=()):
        self.bench = bench
        self.name = name
        self.records = bench.records(records)
        self.level = level
        self.prefix = prefix
        self.directory = bench.directory(name)
        self.storage = self.directory / "opt" / STORAGE
        self.storage.mkdir(parents=True)
        (self.directory / "tmp").mkdir()
        shutil.copy(bench.source / "host/policy.json", self.storage)
        self.socket = pathlib.Path(name) / "tmp/zav-pyx-plugin/.socket"
        self.process = None

    def start(self):
        build = self.bench.build
        self.process = self.bench.start(
            build / "host/device-root", "--opt", self.directory / "opt", "--tmp", self.directory / "tmp",
            "--keep", build, "--keep", self.bench.source, "--keep", self.bench.work, "--", *self.prefix,
            build / "host/dpm-host", "--library", build / "src/plugin/libzav-pyx-plugin.so",
            "--state-dir", self.directory / "state", "--log", self.directory / "log", "--log-level", self.level,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        wait_until(lambda: answers(self.socket), self.name, self.process)
        return self

    def stop(self):
        end(self.process)
        if self.process.returncode != 0:
            raise Failure(f"{self.name} ended with {self.process.returncode}")

    def command(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        if "success" not in answer:
            raise Failure(f"{self.name}: {line}: {answer}")

    def configure(self):
        self.command(f'exec UpdateConfig {{"Storage":{{"config":{{"max_file_size":{self.records},'
                     f'"max_logging_period":{WEEK_S}}}}}}}')
        return self

    def fill(self, url_size=100):
        """Fills the log by reports, and reads it back."""
        self.configure()
        self.bench.report(self, "--read-back", most=self.records, seconds=1e6, url_size=url_size)
        return self

    def seed(self, url_size):
        """Writes a full log to where a stopped plug-in left its database: by reports it would take too long."""
        now = int(time.time())
        storage = {"config": {"max_file_size": self.records, "max_index": 2000, "max_logging_period": WEEK_S},
                   "state": {"count": self.records, "last_index": self.records - 1, "phishing": self.records}}
        for index in range(self.records):
            url = f"http://c0.r0.example/{index}/".ljust(url_size, "x")
            storage[str(index)] = {"url": url, "threat": "phishing", "timestamp": now}
        with contextlib.closing(sqlite3.connect(self.storage / ".data.db")) as database, database:
            database.execute("INSERT INTO PYXPlugin(name, value) VALUES('Storage', ?)",
                             [json.dumps(storage, sort_keys=True, separators=(",", ":")) + "\n"])
        return self

    def row(self):
        """The text of the row that holds the log."""
        with contextlib.closing(sqlite3.connect(f"file:{self.storage}/.data.db?mode=ro", uri=True)) as database:
            return database.execute("SELECT value FROM PYXPlugin WHERE name = 'Storage'").fetchone()[0]

    def check_backup(self):
        """While nothing is written: the copy is the file, and the row is the log that the service answers with."""
        compare_with_backup(self, self.storage)
        stored = {index: record for index, record in json.loads(self.row()).items() if index.isdigit()}
        if len(stored) != self.records:
            raise Failure(f"{self.name}: {len(stored)} records are stored, not {self.records}")

    def log_bytes(self):
        return (self.directory / "log").stat().st_size

    def warnings(self):
        """Lines of its log: what is filtered to warnings has to be empty."""
        return (self.directory / "log").read_text().splitlines() if self.level == "warning" else []

    def expected(self, kind, most=0, start=-1):
        """Asks once, and looks whether the answer is right. @return the file that holds it."""
        answer = ask(self.socket_path(), request_of(kind, most, start))
        check = {"state": self.is_state, "status": self.is_status, "count": self.is_count}.get(kind, self.is_range)
        if not check(answer, *((most or self.records,) if check == self.is_range else ())):
            raise Failure(f"{self.name}: a wrong answer to {kind}: {answer[:200]!r}")
        file = self.directory / f"answer-{kind}-{most}-{start}"
        file.write_bytes(answer)
        return file

    def socket_path(self):
        return self.socket

    @staticmethod
    def is_state(answer):
        return len(answer) == 12 and struct.unpack("=iii", answer)[1:] == (301, 1)

    def is_count(self, answer):
        return answer == struct.pack("=i", self.records)

    def is_status(self, answer):
        text = text_at(answer, 0)
        status = json.loads(text)
        tally = dict(status["in_storage"])
        return (tally.pop("count") == sum(tally.values()) == self.records and status["state"]["count"] >= self.records
                and status["config"]["max_file_size"] == self.records)

    def is_range(self, answer, most):
        result, last = struct.unpack_from("=ii", answer)
        records = json.loads(text_at(answer, 8))
        return (result == 0 and str(last) in records and len(records) == min(most, self.records)
                and all(re.match(r"http://c\d+\.r\d+\.example/\d+/", each["url"]) for each in records.values()))


def text_at(answer, offset):
    size, = struct.unpack_from("=I", answer, offset)
    text = answer[offset + 4:]
    if len(text) != size:
        raise Failure(f"a text of {len(text)} bytes said to be {size} long")
    return text


def compare_with_backup(service, directory):
    """While nothing is written."""
    database, backup = directory / ".data.db", directory / ".data.db.bak"
    if not backup.exists() or database.read_bytes() != backup.read_bytes():
        raise Failure(f"{service.name}: the backup is not the database")


class Floor:
    """The least that could do the same."""

    def __init__(self, bench, name, answers_of=None, row=0, one_at_a_time=False, plugin_calls=False):
        self.bench = bench
        self.name = name
        self.row_size = row
        self.directory = bench.directory(name)
        self.socket = pathlib.Path(name) / "socket"
        words = [f"--answer={METHODS[kind]}={file}" for kind, file in (answers_of or {}).items()]
        if row:
            words += ["--directory", self.directory, "--row", row]
        if one_at_a_time:
            words.append("--one-at-a-time")
        if plugin_calls:
            words.append("--plugin-calls")
        self.process = bench.start(bench.build / "bench/bench-floor", "--socket", self.socket, *words)
        wait_until((bench.work / self.socket).exists, name, self.process)
        self.settle()

    def settle(self):
        """The socket's file is there before it listens."""
        def takes_clients():
            with socket.socket(socket.AF_UNIX) as client:
                return client.connect_ex(str(self.socket)) == 0
        wait_until(takes_clients, self.name, self.process)

    def check_backup(self):
        """While nothing is written: the row holds a report, in the database and in the copy."""
        compare_with_backup(self, self.directory)
        with contextlib.closing(sqlite3.connect(f"file:{self.directory}/.data.db?mode=ro", uri=True)) as database:
            row, = database.execute("SELECT value FROM PYXPlugin WHERE name = 'Storage'").fetchone()
        if len(row) != self.row_size or not re.match(r"http://c\d+\.r\d+\.example/\d+/", row):
            raise Failure(f"{self.name}: a wrong row of {len(row)} bytes")


def status_of(process):
    """What the kernel tells of a process."""
    return dict(line.split(":", 1) for line in pathlib.Path(f"/proc/{process.pid}/status").read_text().splitlines())


def memory_of(process):
    """Of a process, KB: resident, and private anonymous."""
    lines = pathlib.Path(f"/proc/{process.pid}/smaps_rollup").read_text().splitlines()[1:]
    sizes = {name: int(size.split()[0]) for name, size in (line.split(":", 1) for line in lines)}
    return {"resident_kb": sizes["Rss"], "anonymous_kb": sizes["Anonymous"], "private_kb": sizes["Private_Dirty"]}


def switches_of(process):
    """How often the threads of a process have been put on a processor: each, by its id."""
    counts = {}
    for task in pathlib.Path(f"/proc/{process.pid}/task").iterdir():
        status = dict(line.split(":", 1) for line in (task / "status").read_text().splitlines())
        counts[task.name] = int(status["voluntary_ctxt_switches"]) + int(status["nonvoluntary_ctxt_switches"])
    return counts


def belongings_of(process):
    return {"descriptors": len(os.listdir(f"/proc/{process.pid}/fd")), "threads": int(status_of(process)["Threads"])}
