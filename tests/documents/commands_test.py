"""The commands and programs of one document (ZAV_DOCUMENT), in their order, against a real service."""
import dataclasses
import difflib
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

# A service is what the tests of programs around it have.
sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "served"))

from document import INTERRUPT, Document, matches  # noqa: E402
from service import BUILD, PATIENCE_S, SOURCE, main, serving  # noqa: E402
from session import Session  # noqa: E402


@dataclasses.dataclass
class Setting:
    """What a document takes for granted: that a service runs, and that the programs are installed."""
    served: bool = True
    installed: bool = True


# Those that say themselves where the programs are, and how a service is started.
SETTINGS = {
    "README.md": Setting(installed=False),
    "docs/storage.md": Setting(served=False, installed=False),
    "docs/integration.md": Setting(served=False, installed=False),
}

C_FLAGS = ["-Wall", "-Wextra", "-Werror", "-I", SOURCE / "client/include", "-L", BUILD / "client",
           f"-Wl,-rpath,{BUILD}/client"]
C_HEAD = "#include <pyxclient/pyxclient.h>\n#include <stdio.h>\n#include <string.h>\n"
CPP_HEAD = "#include <pyxclient/pyxclient.hpp>\n#include <iostream>\n"


def whole(text, head, main_line):
    """A program; statements alone become the body of one."""
    return text if "main(" in text else f"{head}{main_line} {{\n{text}}}\n"


class Commands(unittest.TestCase):
    def setUp(self):
        self.document = Document(os.environ["ZAV_DOCUMENT"])
        setting = SETTINGS.get(self.document.name, Setting())
        if setting.served:
            self.enterContext(serving())
        self.directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.session = Session(self.directory, setting.installed)
        self.addCleanup(self.session.close)

    def test_print_what_the_document_shows(self):
        self.assertGreater(sum(1 for block in self.document.blocks if block.language not in ("sh", "text")), 0)
        for block in self.document.blocks:
            kind = getattr(self, f"take_{block.language}", None)
            if kind is not None:
                kind(block)
            if block.file_name():
                (self.directory / block.file_name()).write_text(block.text())

    def place(self, line):
        return f"{self.document.name}:{line}"

    def take_console(self, block):
        commands = block.commands()
        for command, following in zip(commands, [*commands[1:], None]):
            output, status = self.session.run(command.text, command.output)
            interrupted = command.output[-1:] == [INTERRUPT]
            self.compare(command, command.output[:-1] if interrupted else command.output, output, status)
            # A failure is no surprise where the document asks for the status.
            if interrupted or (following is not None and following.text.startswith("echo $?")):
                continue
            self.assertEqual(status, 0, f"{self.place(command.line)}: {command.text}: status; it printed {output}")

    def compare(self, command, expected, output, status):
        if matches(expected, output) and isinstance(status, int):
            return
        shown = difflib.unified_diff(expected, output.splitlines(), "in the document", "printed", lineterm="")
        self.fail(f"{self.place(command.line)}: {command.text} (exit status {status})\n" + "\n".join(shown) + "\n")

    def run_program(self, block, *command):
        environment = {**os.environ, "PYTHONPATH": str(SOURCE / "client/python"),
                       "LD_LIBRARY_PATH": str(BUILD / "client")}
        done = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_S, cwd=self.directory,
                              env=environment)
        self.assertEqual((done.returncode, done.stderr), (0, ""), f"{self.place(block.line)}: {done.stdout}")

    def compile_and_run(self, block, compiler, name, text):
        (self.directory / name).write_text(text)
        self.run_program(block, *compiler, name, "-o", "snippet", *C_FLAGS, "-lpyxclient")
        self.run_program(block, "./snippet")

    def take_c(self, block):
        self.compile_and_run(block, ["cc"], "snippet.c", whole(block.text(), C_HEAD, "int main(void)"))

    def take_cpp(self, block):
        text = whole(block.text(), CPP_HEAD, "int main()")
        self.compile_and_run(block, ["c++", "-std=c++20"], "snippet.cpp", text)

    def take_python(self, block):
        (self.directory / "snippet.py").write_text(block.text())
        self.run_program(block, sys.executable, "-B", "snippet.py")

    def take_json(self, block):
        try:
            json.loads(block.text())
        except json.JSONDecodeError as error:
            self.fail(f"{self.place(block.line)}: {error}")


if __name__ == "__main__":
    main()
