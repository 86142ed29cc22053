"""A service that answers what a page is made of from a list of records, for as long as a test wants it."""

import json
import os
import socket
import struct
import tempfile
import threading

LAST = 2**31 - 1


def words(*numbers):
    return struct.pack(f"={len(numbers)}i", *numbers)


def text(content):
    return words(len(content)) + content


def json_text(content):
    """A JSON string of bytes that need not be UTF-8: what JSON does not allow is escaped, every other byte stays."""
    escaped = bytearray(b'"')
    for byte in content:
        if byte < 0x20 or byte in b'"\\':
            escaped += b"\\u%04x" % byte
        else:
            escaped.append(byte)
    return bytes(escaped + b'"')


def tally(records):
    counts = {}
    for _, threat, _ in records:
        counts[threat] = counts.get(threat, 0) + 1
    members = [json_text(threat) + b":%d" % count for threat, count in counts.items()]
    return b"{" + b",".join(members + [b'"count":%d' % len(records)]) + b"}"


class PageService:
    """records: of a url and a threat, both bytes, and a time; the oldest first. Use it in a with statement."""

    def __init__(self, records, enabled=True, logging=True, max_records=1000):
        self.records, self.failures = records, []
        config = {"max_file_size": max_records, "max_index": 2000, "max_logging_period": 604800}
        self.config = json.dumps(config).encode()
        self.switches = {4: words(0, 301, int(enabled)), 5: words(0, 1301, int(logging))}
        self.directory = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.directory.name, "socket")
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen()
        self.thread = threading.Thread(target=self.serve)

    def serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            with connection:
                connection.settimeout(60)
                try:
                    connection.sendall(self.answer(connection))
                except OSError as error:
                    self.failures.append(error)

    def answer(self, connection):
        method = struct.unpack("=4i", connection.recv(16, socket.MSG_WAITALL))[3]
        if method in self.switches:
            return self.switches[method]
        if method == 16:
            counts = tally(self.records)
            return text(b'{"config":' + self.config + b',"in_storage":' + counts + b',"state":' + counts + b"}")
        if method == 18:
            return self.newest(*struct.unpack("=6i", connection.recv(24, socket.MSG_WAITALL))[4:])
        raise OSError(f"no method {method}")

    def newest(self, count, start):
        first = len(self.records) - 1 if start < 0 else min(start, len(self.records) - 1)
        indexes = range(first, max(-1, first - (count or LAST)), -1)
        members = [
            b'"%d":{"threat":%s,"timestamp":%d,"url":%s}' % (index, json_text(threat), time, json_text(url))
            for index, (url, threat, time) in ((index, self.records[index]) for index in indexes)
        ]
        return words(0, indexes[-1]) + text(b"{" + b",".join(members) + b"}") if members else words(-1)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join(60)
        self.listener.close()
        self.directory.cleanup()
        assert not self.thread.is_alive() and not self.failures, self.failures
