"""Peers: programs of Debian's that do a part of the same, set up as their users do, each in a directory of its own."""
import os
import pathlib
import shutil
import socket
import subprocess

from services import Failure, wait_until

PATH = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"


class Peer:
    """A program that serves a Unix socket, and what it promises of what it was given."""
    package = ""
    program = ""
    name = ""
    # What a client that has its answer may count on.
    promises = ""

    def __init__(self, bench):
        self.bench = bench
        path = shutil.which(self.program, path=PATH)
        if path is None:
            raise Missing(f"{self.name}: the package {self.package} is not installed")
        self.path = path
        self.directory = bench.directory(self.name)
        self.socket = pathlib.Path(self.name) / "socket"
        self.sent = 0

    def serve(self, *command):
        with open(self.directory / "output", "w") as output:
            self.process = self.bench.start(*command, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        try:
            wait_until(self.is_ready, self.name, self.process)
        except Failure as failure:
            text = (self.directory / "output").read_text().strip().splitlines()[-3:]
            raise Missing(f"{failure}: {' | '.join(text)}") from failure

    def is_ready(self):
        with socket.socket(socket.AF_UNIX, self.socket_type) as client:
            return client.connect_ex(str(self.socket)) == 0

    socket_type = socket.SOCK_STREAM

    def append_options(self):
        """What a load of records has to be told."""
        return {}

    def check(self):
        """Whether all that was sent is there."""


class Missing(Exception):
    """A peer that cannot be had on this machine."""


class Clamd(Peer):
    package = "clamav-daemon"
    program = "clamd"
    name = "clamd"
    promises = "a read without content (PING); nothing is written"
    SIGNATURE = "44d88612fea8a8f36de82e1278abb02f:68:Bench.Test\n"

    def __init__(self, bench):
        super().__init__(bench)
        (self.directory / "signatures").mkdir()
        (self.directory / "signatures/bench.hdb").write_text(self.SIGNATURE)
        configuration = self.directory / "clamd.conf"
        configuration.write_text(
            f"LocalSocket {self.socket}\nDatabaseDirectory {self.directory}/signatures\nForeground yes\n"
            f"TemporaryDirectory {self.directory}\nLogFile {self.directory}/log\n")
        self.serve(self.path, "--config-file", configuration)

    def options(self):
        """What a load of reads has to be told."""
        file = self.directory / "answer"
        file.write_bytes(b"PONG\0")
        return {"expect": file}


class Redis(Peer):
    package = "redis-server"
    program = "redis-server"
    name = "redis"
    promises = "an append is on the disk when it is answered; no backup; one writer; the list keeps all"

    def __init__(self, bench):
        super().__init__(bench)
        # It goes to its directory before it makes the socket.
        self.serve(self.path, "--port", "0", "--unixsocket", "socket", "--appendonly", "yes", "--appendfsync", "always",
                   "--save", "", "--dir", self.directory, "--daemonize", "no")

    def command(self, line):
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(self.socket))
            client.sendall(line.encode() + b"\r\n")
            return client.makefile("rb").readline().decode().strip()

    def options(self):
        """The answer to a range has to be the last ten, which are asked for once."""
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(self.socket))
            client.sendall(b"LRANGE log -10 -1\r\n")
            stream = client.makefile("rb")
            answer = stream.readline()
            if answer != b"*10\r\n":
                raise Failure(f"redis answers a range with {answer!r}")
            for _ in range(10):
                length = stream.readline()
                answer += length + stream.read(int(length[1:]) + 2)
        file = self.directory / "answer"
        file.write_bytes(answer)
        return {"expect": file}

    def check(self):
        length = self.command("LLEN log")
        if length != f":{self.sent}":
            raise Failure(f"redis has {length} of {self.sent} records")


class Rsyslog(Peer):
    package = "rsyslog"
    program = "rsyslogd"
    name = "rsyslog"
    promises = ("no answer at all, and no word when it is on the disk: measured until the file has it, which is before "
                "its sync, but after the sync of the one before; no backup; one writer")
    socket_type = socket.SOCK_DGRAM

    def __init__(self, bench):
        super().__init__(bench)
        self.file = self.directory / "messages"
        self.file.touch()
        configuration = self.directory / "rsyslog.conf"
        configuration.write_text(
            f'global(workDirectory="{self.directory}")\n'
            'module(load="imuxsock" SysSock.Use="off")\n'
            f'input(type="imuxsock" Socket="{bench.work / self.socket}" RateLimit.Interval="0")\n'
            f'action(type="omfile" file="{self.file}" sync="on")\n')
        self.serve(self.path, "-n", "-f", configuration, "-i", self.directory / "pid")

    def append_options(self):
        return {"file": self.file}

    def check(self):
        with open(self.file, "rb") as file:
            lines = sum(1 for line in file if b" bench: " in line)
        if lines != self.sent:
            raise Failure(f"rsyslog has {lines} of {self.sent} records")


class Journald(Peer):
    """An instance that sees its own /run and /var/log/journal alone."""
    package = "systemd"
    program = "/usr/lib/systemd/systemd-journald"
    name = "journald"
    promises = ("no answer to a message; measured with a request to bring all to the disk, which it answers; no "
                "backup; one writer")
    socket_type = socket.SOCK_DGRAM
    MACHINE = "0123456789abcdef0123456789abcdef"

    def __init__(self, bench):
        super().__init__(bench)
        for name in ("run", "journal"):
            (self.directory / name).mkdir()
        (self.directory / "machine-id").write_text(self.MACHINE + "\n")
        (self.directory / "journald.conf").write_text(
            "[Journal]\nStorage=persistent\nRateLimitIntervalSec=0\nForwardToSyslog=no\nForwardToWall=no\nReadKMsg=no\n"
            "Audit=no\n")
        self.socket = pathlib.Path(self.name) / "run/systemd/journal.bench/socket"
        self.control = pathlib.Path(self.name) / "run/systemd/journal.bench/io.systemd.journal"
        unshare = shutil.which("unshare", path=PATH)
        if unshare is None:
            raise Missing("journald: there is no unshare")
        self.serve(unshare, *(["--map-root-user"] if os.getuid() else []), "--mount", "sh", "-ec", self.SCRIPT, "bench",
                   self.directory, self.path)

    # What it reads and writes of the machine is replaced, for it alone.
    SCRIPT = """
mount --bind "$1/run" /run
mount -t tmpfs tmpfs /var/log
mkdir -p /var/log/journal /run/systemd
mount --bind "$1/journal" /var/log/journal
mount --bind "$1/machine-id" /etc/machine-id
mount -t tmpfs tmpfs /etc/systemd
cp "$1/journald.conf" /etc/systemd/journald@bench.conf
mkdir "/var/log/journal/$(cat /etc/machine-id).bench"
exec "$2" bench
"""

    def is_ready(self):
        return (self.bench.work / self.control).exists() and super().is_ready()

    def append_options(self):
        return {"control": self.control}

    def check(self):
        files = sorted(str(each) for each in (self.directory / "journal").rglob("*.journal*"))
        if not files:
            raise Failure("journald has written no file")
        words = [word for file in files for word in ("--file", file)]
        shown = subprocess.run(["journalctl", "-q", "-o", "cat", *words, "SYSLOG_IDENTIFIER=bench"],
                               capture_output=True, text=True)
        lines = len(shown.stdout.splitlines())
        if lines != self.sent:
            raise Failure(f"journald has {lines} of {self.sent} records {shown.stderr.strip()}")
