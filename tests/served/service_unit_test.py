"""The host's service unit: systemd finds nothing wrong with it, and its command lines do what they are there for."""
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile

import service

UNIT = service.BUILD / "packaging/dpm-host.service"
PLUGIN = service.BUILD / "src/plugin/libzav-pyx-plugin.so"
# Of 100. What is left is that it is root, without a capability, and sees the /tmp of all users.
MOST_EXPOSED = 20


def as_built(unit):
    """The unit with the programs of the build in the place of the installed ones, which need not be there."""
    for installed, built in (("dpm-host", service.BUILD / "host/dpm-host"), ("pyxctl", service.PYXCTL),
                             ("libzav-pyx-plugin.so", PLUGIN)):
        unit, count = re.subn(rf"/\S*/{re.escape(installed)}(?=\s)", str(built), unit)
        assert count == 1, f"{installed} stands {count} times in {UNIT}"
    return unit


def command(unit, key, state):
    """The words of one of its command lines."""
    (line,) = re.findall(rf"^{key}=-?(.*)$", unit, re.MULTILINE)
    return line.replace("%S", state).split()


class TheServiceUnit(service.unittest.TestCase):
    def setUp(self):
        self.directory = self.enterContext(tempfile.TemporaryDirectory())
        self.unit = as_built(UNIT.read_text())
        self.file = f"{self.directory}/dpm-host.service"
        with open(self.file, "w", encoding="utf-8") as file:
            file.write(self.unit)

    def analyze(self, *words):
        done = subprocess.run(["systemd-analyze", *words, self.file], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, timeout=service.PATIENCE_S)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def test_is_sound(self):
        self.assertNotIn("dpm-host", self.analyze("verify", "--man=no", "--recursive-errors=no"))

    def test_leaves_little_to_attack(self):
        self.analyze("security", "--offline=yes", f"--threshold={MOST_EXPOSED}")

    def test_may_write_where_the_plug_in_writes_and_shows_everybody_its_socket(self):
        settings = dict(re.findall(r"^(\w+)=(.*)$", self.unit, re.MULTILINE))
        self.assertEqual(set(settings["ReadWritePaths"].split()), {str(service.RUN.parent), str(service.STORAGE)})
        self.assertEqual(settings["AssertPathExists"], str(service.STORAGE / "policy.json"))
        self.assertNotIn("PrivateTmp", settings)

    def test_starts_a_service_that_answers_and_ends_it(self):
        manager = self.enterContext(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
        manager.bind(f"{self.directory}/notify")
        manager.settimeout(service.PATIENCE_S)
        shutil.rmtree(service.STORAGE, ignore_errors=True)
        service.STORAGE.mkdir(parents=True)
        shutil.copy(service.SOURCE / "host/policy.json", service.STORAGE / "policy.json")

        with service.running(*command(self.unit, "ExecStart", self.directory), stdin=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL,
                             env={**os.environ, "NOTIFY_SOCKET": f"{self.directory}/notify",
                                  "WATCHDOG_USEC": "1000000"}) as host:
            self.assertEqual(manager.recv(4096), b"READY=1")
            self.assertEqual(manager.recv(4096), b"WATCHDOG=1")
            subprocess.run(command(self.unit, "ExecStartPost", self.directory), check=True, timeout=service.PATIENCE_S,
                           stdout=subprocess.DEVNULL)
            service.pyxctl("report", "http://a.example", "--threat", "phishing")
            host.send_signal(signal.SIGTERM)
            self.assertEqual(host.wait(service.PATIENCE_S), 0)
        said = [manager.recv(4096)]
        while said[-1] == b"WATCHDOG=1":
            said.append(manager.recv(4096))
        self.assertEqual(said[-1], b"STOPPING=1")
        self.assertTrue(os.path.exists(f"{self.directory}/dpm-host/status.db"))


if __name__ == "__main__":
    service.main()
