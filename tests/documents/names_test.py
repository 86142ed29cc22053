"""What the documents name exists: files, links, folders, commands; and they keep to their form."""
import fnmatch
import os
import pathlib
import re
import sys
import unittest

from document import LANGUAGES, SOURCE, Document, documents, elsewhere

# Where the paths of a text may begin: at the root, and where the sources that it names are included from.
BASES = ("", "src/plugin", "platform/include", "client/include", "docs")
WIDTH = 120
PROGRAMS = ("pyxctl", "dpm-host", "device-root")
SCRIPTS = ("./run", "./test", "scripts/", ".ci/", "cmake ", "ctest ", "apt-get ", "SEED=", "build/", "client/")
FILE_NAME = re.compile(r"[\w.-]+\.(md|sh|py|cpp|hpp|h|txt|abi|cmake|json|conf|pml)")
# What a user makes.
NOT_OF_THE_SOURCE = ("threats.html",)


def walk():
    """Every folder of the source, from its root, and the files in it; but for what is built, and what tools leave."""
    for folder, inner, files in os.walk(SOURCE):
        path = pathlib.Path(folder).relative_to(SOURCE)
        inner[:] = [each for each in inner if each == ".ci" or not each.startswith(".") and each != "__pycache__"
                    and str(path / each) != "build"]
        yield path, files


def folders():
    """Those of the fuzzers' inputs stand for what is below them."""
    return {str(path) for path, _ in walk() if path != pathlib.Path() and path.parts[:2] != ("fuzz", "corpus")}


def exists(path):
    """Of a build, what its first part is: the rest may not be built yet."""
    if re.fullmatch(r"build/(release|device|desk)?[\w/.-]*", path):
        return True
    return any(next(SOURCE.joinpath(base).glob(path.rstrip("/")), None) for base in BASES)


class TheDocuments(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.documents = [Document(name) for name in documents()]
        self.elsewhere = elsewhere()
        self.files = {name for _, files in walk() for name in files}

    def each_span(self):
        for document in self.documents:
            for line, span in document.spans():
                yield f"{document.name}:{line}", span

    def missing(self, found):
        self.assertEqual(sorted(set(found)), [])

    def test_name_paths_that_exist(self):
        def is_missing(word):
            if "…" in word or word in NOT_OF_THE_SOURCE:
                return False
            if re.fullmatch(r"(\./)?[\w.*-]+(/[\w.*-]+)+/?", word):
                first = word.removeprefix("./").split("/")[0]
                return any((SOURCE / base / first).exists() for base in BASES) and not exists(word.removeprefix("./"))
            return bool(FILE_NAME.fullmatch(word)) and word not in self.files
        self.missing(f"{place}: {word}" for place, span in self.each_span() for word in span.split()
                     if is_missing(word))

    def test_link_to_what_exists(self):
        self.missing(f"{document.name}:{line}: {link}" for document in self.documents for line, link in document.links()
                     if not (SOURCE / document.name).parent.joinpath(link.split("#")[0]).exists())

    def test_name_every_folder_in_a_table(self):
        tables = [line for document in self.documents if document.name in ("README.md", "docs/architecture.md")
                  for _, line in document.prose if line.startswith("|")]
        named = {span.rstrip("/") for line in tables for span in re.findall(r"`([^`]+)`", line.split("|")[1])}
        self.missing(folders() - named)

    def test_keep_to_their_width_but_for_tables(self):
        self.missing(f"{document.name}:{number}: {len(line)} columns" for document in self.documents
                     for number, line in enumerate(document.lines, 1) if len(line) > WIDTH and not line.startswith("|"))

    def test_say_what_becomes_of_each_block(self):
        self.missing(f"{document.name}:{block.line}: {block.language or 'no language'}" for document in self.documents
                     for block in document.blocks if block.language not in LANGUAGES)

    def test_have_a_test_for_each(self):
        """The blocks of those that another test takes up, or nobody, are no commands."""
        tested = os.environ["ZAV_TESTED_DOCUMENTS"].split(",")
        self.missing(set(tested) - {document.name for document in self.documents})
        self.missing(f"{document.name}:{block.line}" for document in self.documents if document.name not in tested
                     for block in document.blocks if block.language not in ("text", "sh"))

    def commands(self, language):
        for document in self.documents:
            for block in document.blocks:
                if block.language == language == "console":
                    self.assertTrue(block.lines[0].startswith("$ "), f"{document.name}:{block.line}")
                    yield from ((f"{document.name}:{each.line}", each.text) for each in block.commands())
                elif block.language == language:
                    text = block.text().replace("\\\n", " ")
                    yield from ((f"{document.name}:{block.line}", " ".join(line.split("#")[0].split()))
                                for line in text.splitlines() if line.split("#")[0].strip())

    def is_elsewhere(self, command):
        entries = [entry for entry in self.elsewhere if fnmatch.fnmatchcase(command, entry["command"])]
        for entry in entries:
            entry["used"] = True
        return bool(entries)

    def test_run_their_commands_or_say_what_does(self):
        run = [" ".join(text.split()) for _, text in self.commands("console")]
        unknown = [f"{place}: {text}" for place, text in self.commands("sh") if not self.is_elsewhere(text)]
        for place, span in self.each_span():
            is_command = span.startswith(SCRIPTS) and not exists(span) or span.startswith(PROGRAMS) and " " in span
            # It may be a part of one that is run.
            if is_command and not any(span in text for text in run) and not self.is_elsewhere(span):
                unknown.append(f"{place}: {span}")
        self.missing(unknown)
        self.missing(f"no document has it: {entry['command']}" for entry in self.elsewhere if "used" not in entry)

    def test_say_of_what_is_run_elsewhere_where(self):
        for entry in self.elsewhere:
            self.assertEqual(set(entry), {"command", "why", "run by"}, entry)
            for script in re.findall(r"(?:scripts|\.ci)/[\w.-]+", entry["command"]):
                self.assertTrue(os.access(SOURCE / script, os.X_OK), script)
            self.missing(path for path in entry["run by"].split(", ") if not exists(path))


if __name__ == "__main__":
    sys.exit(unittest.main())
