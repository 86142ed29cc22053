"""A shell that a document's commands are given to, one after the other, as a person would type them."""
import contextlib
import os
import pathlib
import select
import signal
import subprocess
import time

from document import INTERRUPT, matches
from service import BUILD, PATIENCE_S, SOURCE

# Stands in no output.
END = "end-of-the-command"


def lay_out(directory):
    """The source as a clone that was built: its files by links, so that what a command writes stays in `directory`."""
    for path in SOURCE.iterdir():
        if path.name not in ("build", ".git"):
            (directory / path.name).symlink_to(path)
    (directory / "build").mkdir()
    (directory / "build/release").symlink_to(BUILD)


class Session:
    """One shell, with what its commands leave behind: variables, files, and programs in the background."""

    def __init__(self, directory, installed):
        lay_out(directory)
        self.directory = directory
        path = f"{BUILD}/client:{BUILD}/host:" if installed else ""
        environment = {"PATH": path + os.environ["PATH"], "HOME": str(directory), "TZ": "UTC", "LC_ALL": "C.UTF-8",
                       "PYTHONDONTWRITEBYTECODE": "1", "DEVICE_ROOT": os.environ["DEVICE_ROOT"]}
        self.script = pathlib.Path(directory, ".command")
        self.shell = subprocess.Popen(["bash", "--noprofile", "--norc"], cwd=directory, env=environment,
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                      start_new_session=True)
        # As at a prompt, each command is a process group of its own, which a key can interrupt, and the shell goes on.
        self._type("set -m; trap : INT\n")

    def _jobs(self):
        """The processes that the shell has started, and those that they have."""
        jobs = set()
        for each in os.listdir("/proc"):
            with contextlib.suppress(ProcessLookupError, ValueError):
                if os.getsid(int(each)) == self.shell.pid != int(each):
                    jobs.add(int(each))
        return jobs

    @staticmethod
    def _signal(jobs, number):
        for job in jobs:
            with contextlib.suppress(ProcessLookupError):
                os.kill(job, number)

    def close(self):
        """Ends what a document has left running, too."""
        self.shell.kill()
        self.shell.wait()
        self.shell.stdin.close()
        self.shell.stdout.close()
        end = time.monotonic() + PATIENCE_S / 6
        while jobs := self._jobs():
            self._signal(jobs, signal.SIGTERM if time.monotonic() < end else signal.SIGKILL)
            time.sleep(0.02)

    def _type(self, text):
        self.shell.stdin.write(text.encode())
        self.shell.stdin.flush()

    def run(self, command, expected):
        """Runs a command. @return its output and its exit status; both end early where it hangs."""
        self.script.write_text(command + "\n")
        background = self._jobs()
        # On a line of its own, what marks the end is reached also after an interrupt.
        self._type(f"(exit ${{status-0}}); . {self.script} </dev/null\nstatus=$?; printf '\\n{END} %s\\n' $status\n")
        until = expected[:-1] if expected[-1:] == [INTERRUPT] else None
        output = ""
        end = time.monotonic() + PATIENCE_S
        while f"\n{END} " not in output or not output.endswith("\n"):
            if time.monotonic() > end:
                return output, "none: it does not end"
            if select.select([self.shell.stdout], [], [], 0.1)[0]:
                piece = os.read(self.shell.stdout.fileno(), 65536)
                if not piece:
                    return output, "none: the shell has ended"
                output += piece.decode(errors="replace")
            if until is not None and matches(until, output):
                self._signal(self._jobs() - background, signal.SIGINT)
                until = None
        output, _, status = output.rpartition(f"\n{END} ")
        return output, int(status)
