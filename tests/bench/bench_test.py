"""The bench: that it runs, that what it measures is right, and that it says so when it is not. Nothing of speed."""
import json
import math
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree

BUILD = pathlib.Path(os.environ["ZAV_BUILD"])
BENCH = pathlib.Path(os.environ["ZAV_SOURCE"]) / "bench"
PATIENCE_S = 60
sys.path.insert(0, str(BENCH))
from goals import GOALS  # noqa: E402, where it is stands above
from rounds import alternate, ratio  # noqa: E402
from services import Bench, Failure, Plugin  # noqa: E402


def numbers(value):
    """Every number of what was JSON."""
    if isinstance(value, dict):
        value = list(value.values())
    if isinstance(value, list):
        return [number for each in value for number in numbers(each)]
    return [value] if isinstance(value, (int, float)) and not isinstance(value, bool) else []


@unittest.skipIf(os.environ.get("DEVICE_ROOT") == "real", "it wants device roots of its own")
class TheBench(unittest.TestCase):
    def test_measures_everything_once(self):
        (BUILD / "bench").mkdir(exist_ok=True)
        with tempfile.TemporaryDirectory(dir=BUILD / "bench") as output:
            done = subprocess.run([sys.executable, "-B", BENCH / "measure.py", "--quick", "--seed", "1", "--build",
                                   BUILD, "--output", output], capture_output=True, text=True, timeout=500)
            self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
            self.assertEqual(sorted(os.listdir(output)), ["growth.svg", "results.json"])
            results = json.loads((pathlib.Path(output) / "results.json").read_text())
            curves = xml.etree.ElementTree.parse(pathlib.Path(output) / "growth.svg").getroot()
        self.assertTrue(all(math.isfinite(each) for each in numbers(results)))
        self.assertEqual(results["about"]["seed"], 1)
        # Where there is no valgrind, the goals that count instructions cannot be told.
        unknown = {goal["figure"] for goal in results["goals"] if goal["measured"] is None}
        self.assertLessEqual(unknown, {"instructions.report.growth"})
        self.assertEqual(len(results["goals"]), len(GOALS))
        # So few rounds say nothing.
        self.assertEqual({goal["met"] for goal in results["goals"]}, {None})
        for goal in GOALS:
            self.assertIn(goal.text, done.stdout)
        self.check_rows(results["rows"])
        self.assertEqual(len([each for each in curves if each.tag.endswith("polyline")]), 7)

    def check_rows(self, rows):
        """All was asked, and each of those that are compared has answered."""
        self.assertEqual({row["group"] for row in rows}, {"read", "report", "range", "log lines", "peers"})
        for row in rows:
            for name, figures in row["of"].items():
                about = f"{row['what']}: {name}"
                self.assertGreater(figures["requests"], 0, about)
                self.assertGreater(figures["per_second"]["median"], 0, about)
                self.assertLessEqual(figures["p50_us"]["median"], figures["p99_us"]["median"], about)
                self.assertLessEqual(figures["p99_us"]["median"], figures["max_us"]["median"], about)
                self.assertGreater(figures["cpu_us"]["median"], 0, about)


class Rounds(unittest.TestCase):
    def test_alternate_and_leave_the_first_one_out(self):
        order = []

        def contestant(name):
            def one():
                order.append(name)
                return {"field": len(order)}
            return one
        results = alternate(2, {"a": contestant("a"), "b": contestant("b")})
        self.assertEqual("".join(order), "abbaab")
        self.assertEqual(results, {"a": [{"field": 4}, {"field": 5}], "b": [{"field": 3}, {"field": 6}]})

    def test_compare_round_by_round(self):
        one, other = ([{"x": x} for x in values] for values in ([2, 4, 60, 8, 10], [1, 2, 3, 4, 5]))
        self.assertEqual(ratio(one, other, "x").median, 2)
        self.assertEqual(ratio(one[:2], other[:2], "x").high, 2)


class FakeService:
    """Answers each connection with what a function of its number and its request gives."""

    def __init__(self, answer):
        self.directory = tempfile.TemporaryDirectory()
        self.path = self.directory.name + "/socket"
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen()
        self.answer = answer
        self.thread = threading.Thread(target=self.serve, daemon=True)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join(PATIENCE_S)
        self.listener.close()
        self.directory.cleanup()

    def serve(self):
        number = 0
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            with client:
                answer = self.answer(number, client)
                number += 1
                if answer:
                    client.sendall(answer)


class Log:
    """A service that keeps what is reported, as the plug-in does, but for what it is told to spoil."""

    def __init__(self, most=10, lose=None, alter=None, add=None, threat=None):
        self.most = most
        self.threat = threat
        self.lose = lose
        self.alter = alter
        self.count = 0
        self.records = {}
        self.add = add

    def answer(self, _, client):
        request = client.recv(1 << 16)
        method, = struct.unpack_from("=i", request, 12)
        return {6: self.report, 16: self.status, 18: self.log}[method](request[16:])

    def report(self, text):
        size, = struct.unpack_from("=I", text)
        url, threat = text[4:4 + size].decode(), text[8 + size:].decode()
        threat = self.threat or threat
        self.count += 1
        if self.count != self.lose:
            self.records[self.count] = {"url": self.alter(url) if self.alter else url, "threat": threat, "timestamp": 1}
        if self.count == self.add:
            self.count += 1
            self.records[self.count] = {"url": "http://nobody.example/", "threat": "phishing", "timestamp": 1}
        while len(self.records) > self.most:
            del self.records[min(self.records)]
        return struct.pack("=i", 0)

    def status(self, _):
        return self.text({"config": {"max_file_size": self.most}, "in_storage": {"count": len(self.records)},
                          "state": {"count": self.count}})

    def log(self, package):
        most, start = struct.unpack_from("=ii", package, 16)
        wanted = [index for index in sorted(self.records, reverse=True) if start < 0 or index <= start][:most]
        return struct.pack("=ii", 0, wanted[-1]) + self.text({str(each): self.records[each] for each in wanted})

    @staticmethod
    def text(value):
        text = json.dumps(value).encode()
        return struct.pack("=I", len(text)) + text


class TheLoad(unittest.TestCase):
    def load(self, service, *words):
        command = [BUILD / "bench/bench-load", "--socket", service.path, *map(str, words)]
        if "--most" not in words:
            command += ["--most", "5"]
        return subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_S)

    def expect(self, directory, answer):
        path = pathlib.Path(directory) / "expected"
        path.write_bytes(answer)
        return "--expect", path

    def state(self, answer, expected=b"yes"):
        def serve(number, client):
            client.recv(64)
            return answer(number)
        with FakeService(serve) as service:
            return self.load(service, "--kind", "state", *self.expect(service.directory.name, expected))

    def test_counts_what_was_answered(self):
        done = self.state(lambda number: b"yes")
        figures = json.loads(done.stdout)
        self.assertEqual((done.returncode, figures["requests"], figures["refused"]), (0, 5, 0), done.stderr)

    def test_counts_refusals_and_comes_again(self):
        done = self.state(lambda number: b"yes" if number % 3 == 2 else None)
        figures = json.loads(done.stdout)
        self.assertEqual((done.returncode, figures["requests"], figures["refused"]), (0, 5, 10), done.stderr)

    def test_fails_the_bench_where_one_client_alone_is_refused(self):
        def serve(number, client):
            client.recv(64)
            return b"yes" if number % 2 == 1 else None
        with FakeService(serve) as service:
            directory = pathlib.Path(service.directory.name)
            bench = Bench(BUILD, BENCH.parent, directory, 1, True)
            self.addCleanup(bench.close)
            plugin = Plugin(bench, "refusing", 10)
            plugin.socket = service.path
            # Whatever process: its processor time is asked for.
            plugin.process = bench.start("sleep", PATIENCE_S)
            options = {"expect": self.expect(directory, b"yes")[1], "most": 2}
            self.assertGreater(bench.load(plugin, "state", clients=2, **options)["refused"], 0)
            with self.assertRaisesRegex(Failure, "alone was refused 2 times"):
                bench.load(plugin, "state", **options)

    def test_fails_for_an_answer_that_is_wrong_or_too_short_or_too_long(self):
        for wrong in (b"yet", b"ye", b"yes!"):
            done = self.state(lambda number: wrong if number == 3 else b"yes")
            self.assertEqual(done.returncode, 1, wrong)
            self.assertIn("a wrong answer", done.stderr)

    def report(self, log, *words):
        with FakeService(log.answer) as service:
            return self.load(service, "--kind", "report", "--read-back", "--run", 3, *words)

    def test_reads_back_what_it_has_reported(self):
        for words in ((), ("--clients", 4), ("--most", 25), ("--clients", 3, "--warm-up", 7)):
            done = self.report(Log(), *words)
            self.assertEqual((done.returncode, done.stderr), (0, ""), words)

    def test_fails_for_a_lost_an_altered_and_an_added_record(self):
        for log, what in ((Log(lose=2), "only 4 are kept"), (Log(lose=23), "record 22 is"),
                          (Log(alter=lambda url: url[:-1] + "!"), "record 5 is"), (Log(threat="other"), "record 5 is"),
                          (Log(add=4), "6 were added")):
            words = ("--most", 25) if log.lose == 23 else ()
            done = self.report(log, *words)
            self.assertEqual(done.returncode, 1, what)
            self.assertIn(what, done.stderr)


class TheFloor(unittest.TestCase):
    def setUp(self):
        self.directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def floor(self, *words):
        process = subprocess.Popen([BUILD / "bench/bench-floor", "--socket", self.directory / "socket", *words])
        self.addCleanup(process.wait, PATIENCE_S)
        self.addCleanup(process.send_signal, signal.SIGTERM)
        end = time.monotonic() + PATIENCE_S
        while True:
            try:
                return self.connect()
            except OSError:
                self.assertLess(time.monotonic(), end, "the floor does not listen")
                time.sleep(0.01)

    def connect(self):
        client = socket.socket(socket.AF_UNIX)
        try:
            client.settimeout(PATIENCE_S)
            client.connect(str(self.directory / "socket"))
        except OSError:
            client.close()
            raise
        return client

    def test_serves_several_at_once_unless_it_is_told_not_to(self):
        answer = self.directory / "answer"
        answer.write_bytes(b"yes")
        request = struct.pack("=iiii", 0, 0, 8, 4)
        for words, second in (((), b"yes"), (("--one-at-a-time",), b"")):
            with (self.subTest(words=words), self.floor(f"--answer=4={answer}", *words) as first,
                  self.connect() as other):
                # The first one, which says nothing, is being served.
                other.sendall(request)
                try:
                    self.assertEqual(other.recv(8), second)
                except ConnectionResetError:
                    self.assertEqual(second, b"")
                first.sendall(request)
                self.assertEqual(first.recv(8), b"yes")
            (self.directory / "socket").unlink()

    def test_gives_the_same_bytes_with_the_plug_ins_calls(self):
        answers = {4: b"state", 16: struct.pack("=I", 4) + b"text"}
        for method, answer in answers.items():
            (self.directory / f"answer{method}").write_bytes(answer)
        files = [f"--answer={method}={self.directory}/answer{method}" for method in answers]
        for words in ((), ("--plugin-calls",), ("--plugin-calls", "--one-at-a-time")):
            self.floor(*files, *words).close()
            for method, answer in answers.items():
                with self.subTest(words=words, method=method), self.connect() as client:
                    client.sendall(struct.pack("=iiii", 0, 0, 8, method))
                    found = b""
                    while piece := client.recv(8):
                        found += piece
                    self.assertEqual(found, answer)
            (self.directory / "socket").unlink()

    def test_has_no_reports_with_the_plug_ins_calls(self):
        done = subprocess.run([BUILD / "bench/bench-floor", "--socket", self.directory / "socket", "--plugin-calls",
                               "--directory", self.directory], capture_output=True, timeout=PATIENCE_S)
        self.assertNotEqual(done.returncode, 0)
        self.assertFalse((self.directory / "socket").exists())


if __name__ == "__main__":
    unittest.main()
