"""The Python module against a service that says what a test tells it to."""

import datetime
import json
import os
import socket
import struct
import tempfile
import threading
import unittest

import pyxclient
from pyxclient import Failure

LAST = 2**31 - 1


def words(*numbers):
    return struct.pack(f"={len(numbers)}i", *numbers)


def text(content):
    return words(len(content)) + content


def header(method):
    return words(0, 0, 8, method)


def log_request(method, begin, end, count, start):
    return header(method) + words(0, 0, begin, end, count, start)


def log_answer(records):
    """records: by their indexes, each of a url and a time."""
    members = {str(index): {"url": url, "threat": "t", "timestamp": time} for index, (url, time) in records.items()}
    return words(0, max(records)) + text(json.dumps(members).encode())


class Service:
    """Takes connections, one after the other: each must bring a request, byte for byte, and gets its answer."""

    def __init__(self, *exchanges):
        self.directory = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.directory.name, "socket")
        self.exchanges, self.wrong = exchanges, []
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen()
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        for request, answer in self.exchanges:
            connection, _ = self.listener.accept()
            with connection:
                connection.settimeout(60)
                received = b""
                while len(received) < len(request):
                    part = connection.recv(len(request) - len(received))
                    if not part:
                        break
                    received += part
                if received != request:
                    self.wrong.append((received, request))
                connection.sendall(answer)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.thread.join(60)
        self.listener.close()
        self.directory.cleanup()
        assert not self.thread.is_alive() and not self.wrong, self.wrong


class TheModule(unittest.TestCase):
    def client(self, service, **options):
        return pyxclient.Client(service.path, timeout=60, **options)

    def test_asks_for_the_switches(self):
        with Service((header(4), words(0, 301, 1)), (header(5), words(0, 1301, 0))) as service:
            client = self.client(service)
            self.assertIs(client.is_enabled(), True)
            self.assertIs(client.is_logging(), False)

    def test_reports_texts_and_bytes(self):
        first = header(6) + text("http://ä.example".encode()) + text(b"phishing")
        second = header(6) + text(b"\xff\0") + text(b"")
        third = header(6) + text(b"\xff") + text(b"")
        with Service((first, words(0)), (second, words(0)), (third, words(0))) as service:
            client = self.client(service)
            client.report("http://ä.example", "phishing")
            client.report(b"\xff\0")
            client.report("\udcff")

    def test_raises_why_a_call_failed(self):
        with Service((header(6) + text(b"") + text(b""), words(-1))) as service:
            with self.assertRaises(pyxclient.Error) as raised:
                self.client(service).report("")
        self.assertEqual(raised.exception.failure, Failure.REJECTED)
        self.assertEqual(str(raised.exception), "the service does not log an empty URL")

    def test_tells_every_argument_that_is_out_of_range(self):
        client = pyxclient.Client("/nowhere")
        for call in (
            lambda: pyxclient.Client("x" * 108),
            lambda: pyxclient.Client("a\0b"),
            lambda: pyxclient.Client(timeout=0),
            lambda: pyxclient.Client(timeout=86401),
            lambda: client.count(6, 5),
            lambda: client.log(6, 5),
            lambda: client.log(max_count=-1),
            lambda: client.log(start_index=2**31),
            lambda: client.resume("no cursor"),
        ):
            with self.assertRaises(pyxclient.Error) as raised:
                call()
            self.assertEqual(raised.exception.failure, Failure.OUT_OF_RANGE)
        with self.assertRaises(pyxclient.Error) as raised:
            client.reset()
        self.assertEqual(raised.exception.failure, Failure.NO_SERVICE)
        with self.assertRaises(ValueError):
            client.count(datetime.datetime(2026, 11, 20))

    def test_gives_the_status(self):
        status = {
            "config": {"max_file_size": 10, "max_index": 2000, "max_logging_period": 3600},
            "in_storage": {"count": 2, "a": 1, "ä": 1},
            "state": {"count": 7, "a": 7},
        }
        with Service((header(16), text(json.dumps(status).encode()))) as service:
            found = self.client(service).status()
        stored, reported = pyxclient.Tally(2, {"a": 1, "ä": 1}), pyxclient.Tally(7, {"a": 7})
        self.assertEqual(found, pyxclient.Status(10, datetime.timedelta(hours=1), 2000, stored, reported))

    def test_counts_and_resets(self):
        utc = datetime.timezone.utc
        begin, end = datetime.datetime(1970, 1, 1, 0, 0, 5, tzinfo=utc), datetime.datetime(2100, 1, 1, tzinfo=utc)
        with Service((header(20) + words(0, 0, 5, LAST), words(3)), (header(19), words(0))) as service:
            client = self.client(service)
            self.assertEqual(client.count(begin, end), 3)
            client.reset()

    def test_walks_over_the_records_and_takes_up_again(self):
        first = (log_request(17, 0, LAST, 64, -1), log_answer({0: ("a", 5), 1: ("ä\0", 6)}))
        second = (log_request(17, 0, LAST, 65, 1), log_answer({1: ("ä\0", 6), 2: ("c", 7)}))
        with Service(first, second) as service:
            client = self.client(service)
            log = client.resume()
            self.assertEqual(log.cursor, "")
            records = list(log)
            self.assertEqual([(record.index, record.url, record.threat) for record in records], [(0, "a", "t"), (1, "ä\0", "t")])
            self.assertEqual(records[0].time, datetime.datetime(1970, 1, 1, 0, 0, 5, tzinfo=datetime.timezone.utc))
            cursor = log.cursor
            del log
            resumed = client.resume(cursor)
            self.assertEqual([record.url for record in resumed], ["c"])
            self.assertFalse(resumed.changed)

    def test_tells_that_the_log_changed(self):
        first = (log_request(17, 0, LAST, 64, -1), log_answer({0: ("a", 5)}))
        second = (log_request(17, 0, LAST, 65, 0), log_answer({4: ("e", 9)}))
        with Service(first, second) as service:
            log = self.client(service).resume()
            self.assertEqual(len(list(log)), 1)
            self.assertEqual([record.url for record in log], ["e"])
            self.assertTrue(log.changed)


if __name__ == "__main__":
    unittest.main()
