"""A real service for tests of the programs around it: the host with the plug-in, on a device root of their own.

A test module calls main() at its end: it enters the device root, as the test programs in C++ do, and runs its tests there.
Its environment names the build (ZAV_BUILD) and the source (ZAV_SOURCE).
"""
import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

BUILD = pathlib.Path(os.environ["ZAV_BUILD"])
SOURCE = pathlib.Path(os.environ["ZAV_SOURCE"])
PYXCTL = BUILD / "client/pyxctl"
STORAGE = pathlib.Path("/opt/data/dpm/dplugins/zav-pyx-plugin")
RUN = pathlib.Path("/tmp/zav-pyx-plugin")
PATIENCE_S = 60


def wait_until(condition, what):
    """Waits for a condition; the deadline is for a machine that is busy."""
    end = time.monotonic() + PATIENCE_S
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"{what}: not within {PATIENCE_S} s")
        time.sleep(0.02)


def pyxctl(*words, status=0):
    """What pyxctl writes on standard output; its exit status has to be that one."""
    done = subprocess.run([PYXCTL, "--timeout", str(PATIENCE_S), *words], capture_output=True, text=True,
                          timeout=2 * PATIENCE_S, env={**os.environ, "LC_ALL": "C.UTF-8", "TZ": "UTC"})
    if done.returncode != status:
        raise AssertionError(f"pyxctl {words} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout


@contextlib.contextmanager
def running(*command, **options):
    """A program that is ended with the block, and with it what it has started."""
    process = subprocess.Popen(command, start_new_session=True, **options)
    try:
        yield process
    finally:
        # The test may have ended it, and all that it had started.
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGTERM)
        try:
            process.wait(PATIENCE_S)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()


@contextlib.contextmanager
def serving(policy=None, plugin=BUILD / "src/plugin/libzav-pyx-plugin.so", **options):
    """The service, with an empty log and the default policy unless another is given; options are those of its process."""
    shutil.rmtree(STORAGE, ignore_errors=True)
    STORAGE.mkdir(parents=True)
    shutil.copy(policy or SOURCE / "host/policy.json", STORAGE / "policy.json")
    with tempfile.TemporaryDirectory() as state, running(
            BUILD / "host/dpm-host", "--library", plugin, "--state-dir", state, "--log", f"{state}/log", "--serve",
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, **options) as host:
        pyxctl("ping", "--wait")
        yield host


class ServedTest(unittest.TestCase):
    """Each test has a service with an empty log, and a directory that is its working directory."""

    def setUp(self):
        self.enterContext(serving())
        self.directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.enterContext(contextlib.chdir(self.directory))

    def records(self):
        """The url and threat of each record of the log."""
        lines = pyxctl("log", "-o", "csv").splitlines()[1:]
        return [(line.split(",")[5], line.split(",")[4]) for line in lines]


def main():
    if "DEVICE_ROOT" not in os.environ:
        os.execv(BUILD / "host/device-root",
                 ["device-root", "--opt-tmpfs", "--tmp-tmpfs", "--keep", BUILD, "--keep", SOURCE, "--", sys.executable,
                  "-B", *sys.argv])
    try:
        unittest.main()
    finally:
        if os.environ["DEVICE_ROOT"] == "real":
            shutil.rmtree(STORAGE, ignore_errors=True)
            shutil.rmtree(RUN, ignore_errors=True)
