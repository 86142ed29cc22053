"""A document as its tests see it: blocks of code, commands with their output, words in a line.

A fence says by its language what becomes of it:

    console   lines that begin with "$ " are commands, what follows is their output: run, and compared
    sh        commands that a test cannot run; each of them stands in elsewhere.txt
    c, cpp, python   a program, or statements of one: compiled and run
    json      parsed
    text      neither a command nor a program

A program, or JSON, that follows a paragraph ending with "as `NAME`:" is put into a file of that name.

In the output "…" stands for some text within a line, and a line of it alone for any number of lines; a time stands
for every time that is written alike. "^C" at its end is the key that ends the command, once the output is there.
"""
import dataclasses
import os
import pathlib
import re

SOURCE = pathlib.Path(os.environ["ZAV_SOURCE"])
LANGUAGES = ("console", "sh", "c", "cpp", "python", "json", "text")
INTERRUPT = "^C"
TIME = re.compile(r"\d{4}-\d\d-\d\d[ T]\d\d:\d\d(:\d\d)?(Z|\+\d\d:\d\d)?|\d\d:\d\d:\d\d|(?<!\d)1[789]\d{8}(?!\d)")


def documents():
    """Every document, by its path from the root of the source."""
    found = [*SOURCE.glob("*.md"), *(SOURCE / "docs").glob("*.md")]
    return sorted(str(path.relative_to(SOURCE)) for path in found)


@dataclasses.dataclass
class Command:
    line: int
    text: str
    output: list[str] = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class Block:
    """What stands between two fences."""
    line: int
    language: str
    lines: list[str]
    # The paragraph before it.
    before: str

    def text(self):
        return "\n".join(self.lines) + "\n"

    def file_name(self):
        found = re.search(r"as `([\w.-]+)`:$", self.before)
        return found and found[1]

    def commands(self):
        """The commands of a console block; a line that begins with "> " goes on with the command above it."""
        commands = []
        for number, line in enumerate(self.lines, self.line + 1):
            if line.startswith("$ "):
                commands.append(Command(number, line[2:]))
            elif line.startswith("> ") and not commands[-1].output:
                commands[-1].text += "\n" + line[2:]
            else:
                commands[-1].output.append(line)
        return commands


class Document:
    def __init__(self, name):
        self.name = name
        self.lines = (SOURCE / name).read_text().splitlines()
        self.blocks = []
        # Lines outside of the blocks, with their numbers.
        self.prose = []
        self._read()

    def _read(self):
        block = None
        paragraph = []
        for number, line in enumerate(self.lines, 1):
            if block is not None:
                if line.strip() == "```":
                    block = None
                else:
                    block.lines.append(line.removeprefix(indentation))
            elif line.lstrip().startswith("```"):
                # In a list it stands to the right.
                indentation, _, language = line.partition("```")
                block = Block(number, language.strip(), [], " ".join(paragraph))
                self.blocks.append(block)
                paragraph = []
            else:
                self.prose.append((number, line))
                # The last paragraph is remembered over the empty line behind it.
                if line.strip():
                    paragraph = [*paragraph, line.strip()] if self.lines[number - 2].strip() else [line.strip()]

    def spans(self):
        """What stands between two backticks of a paragraph, with its line; one may go over a line's end."""
        text = "\n".join(line for _, line in self.prose)
        numbers = [number for number, _ in self.prose]
        for found in re.finditer(r"`([^`]+)`", text):
            yield numbers[text.count("\n", 0, found.start())], " ".join(found[1].split())

    def links(self):
        for number, line in self.prose:
            for found in re.finditer(r"\]\(([^)\s]+)\)", line):
                yield number, found[1]


def _any_time_like(match):
    return re.sub(r"\d", r"\\d", match[0]).replace("+", r"\+")


def _line_pattern(line):
    pattern = ""
    end = 0
    for found in re.finditer(rf"…|{TIME.pattern}", line):
        pattern += re.escape(line[end:found.start()])
        pattern += "[^\n]+?" if found[0] == "…" else _any_time_like(found)
        end = found.end()
    return pattern + re.escape(line[end:])


def pattern_of(lines):
    """What an output has to match as a whole."""
    return re.compile("".join("(?:[^\n]*\n)*?" if line.strip() == "…" else _line_pattern(line.rstrip()) + "\n"
                              for line in lines))


def matches(lines, output):
    """Whether a text is the output that the document shows; blanks at the ends of lines do not count."""
    shown = "".join(line.rstrip() + "\n" for line in output.splitlines())
    return pattern_of(lines).fullmatch(shown) is not None


def elsewhere():
    """The commands that no test of the documents runs: pattern, why, and what does."""
    entries = []
    for record in (SOURCE / "tests/documents/elsewhere.txt").read_text().split("\n\n"):
        fields = dict(line.split(": ", 1) for line in record.splitlines() if line and not line.startswith("#"))
        if fields:
            entries.append(fields)
    return entries
