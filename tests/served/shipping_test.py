"""The examples that ship the threat log, to a collector on loopback."""
import json
import os
import pathlib
import re
import shutil
import socketserver
import subprocess
import threading

from service import BUILD, SOURCE, ServedTest, main, pyxctl, running, wait_until

SHIPPING = SOURCE / "client/examples/shipping"
# It is no program for everybody's path.
RSYSLOGD = shutil.which("rsyslogd", path=os.environ["PATH"] + ":/usr/sbin")
HOSTILE = 'http://x.example/"\\\x1b[2J\n\u202e'


class Collector:
    """Takes messages of RFC 5424 with their lengths before them."""

    def __enter__(self):
        collector = self
        self.messages = []

        class Handler(socketserver.StreamRequestHandler):
            def handle(self):
                while True:
                    length = b""
                    while (byte := self.rfile.read(1)) not in (b"", b" "):
                        length += byte
                    if not byte:
                        return
                    collector.messages.append(self.rfile.read(int(length)).decode())

        self.server = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.port = self.server.server_address[1]
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        return self

    def __exit__(self, *_):
        self.server.shutdown()
        self.server.server_close()

    def records(self):
        return [json.loads(message[message.index("{"):]) for message in self.messages]

    def await_urls(self, *urls):
        wait_until(lambda: [record["url"] for record in self.records()] == list(urls), f"{urls} at the collector")


class Shipping(ServedTest):
    def setUp(self):
        super().setUp()
        self.collector = self.enterContext(Collector())

    def shipper(self):
        environment = {**os.environ, "PATH": f"{BUILD}/client:{os.environ['PATH']}"}
        return running(SHIPPING / "ship.sh", "127.0.0.1", str(self.collector.port), "cursor", env=environment)

    def test_what_reads_lines_from_standard_input(self):
        pyxctl("report", "http://a.example/", "--threat", "phishing")
        pyxctl("report", HOSTILE)
        with self.shipper():
            self.collector.await_urls("http://a.example/", HOSTILE)
            wait_until(lambda: pathlib.Path("cursor").exists(), "the cursor")
            pyxctl("report", "http://c.example/" + "u" * 10000)
            self.collector.await_urls("http://a.example/", HOSTILE, "http://c.example/" + "u" * 10000)
        self.assertRegex(self.collector.messages[0], r"^<\d+>1 \S+ \S* ?pyxctl ")
        first = self.collector.records()[0]
        self.assertEqual((first["index"], first["threat"], first["schema_version"]), (0, "phishing", 1))

    def configuration(self):
        """The example, with this test's places."""
        text = (SHIPPING / "rsyslog.conf").read_text()
        text = text.replace("/var/lib/pyx-export", str(self.directory)).replace("collector.example", "127.0.0.1")
        text = re.sub(r'port="514"', f'port="{self.collector.port}"', text)
        file = self.directory / "rsyslog.conf"
        file.write_text(f'global(workDirectory="{self.directory}" maxMessageSize="64k")\n{text}')
        return file

    def rsyslog(self):
        return running(RSYSLOGD, "-n", "-f", self.configuration(), "-i", self.directory / "pid")

    def follower(self):
        records = self.enterContext(open("threats.ndjson", "a"))
        return running(BUILD / "client/pyxctl", "follow", "-o", "ndjson", "--interval", "0.2", "--cursor-file", "cursor",
                       stdout=records)

    def test_rsyslog(self):
        checked = subprocess.run([RSYSLOGD, "-N1", "-f", self.configuration()], capture_output=True, text=True)
        self.assertEqual(checked.returncode, 0, checked.stderr)
        pyxctl("report", "http://a.example/", "--threat", "phishing")
        pyxctl("report", HOSTILE, "--threat", "a b/c")
        with self.follower():
            with self.rsyslog():
                self.collector.await_urls("http://a.example/", HOSTILE)
            pyxctl("report", "http://c.example/" + "u" * 10000)
            with self.rsyslog():
                self.collector.await_urls("http://a.example/", HOSTILE, "http://c.example/" + "u" * 10000)
        self.assertRegex(self.collector.messages[0], r"^<\d+>1 20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ \S+ pyxctl - - - {")


if __name__ == "__main__":
    main()
