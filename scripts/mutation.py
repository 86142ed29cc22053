#!/usr/bin/env python3
"""Changes the plug-in in one small place at a time and looks whether a test notices: mutation.py [COUNT|all] [options].

Comparisons, logical operators, constants and early returns of src/plugin/pyx, policy and ipc are changed. COUNT mutants
(60 unless given) are drawn evenly from the three folders. Everything happens in a copy below build/mutation; what is
tested is the project as it stands, committed or not. Ends with 0 when at least 90 % of the mutants were caught.
"""
import argparse
import contextlib
import filecmp
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPY = ROOT / "build/mutation/project"
LOG, RESULTS = ROOT / "build/mutation/log", ROOT / "build/mutation/results.xml"
FOLDERS = ("src/plugin/pyx", "src/plugin/policy", "src/plugin/ipc")
TARGETS = ("unit-tests", "manager-steps-tests")
ALL_TESTS = "^(" + "|".join(TARGETS) + r")\."
GOAL = 90
# A test that takes longer than this without a mutant waits for a deadline of the product's; no mutant is worth that.
# One that hangs is stopped after its limit, and so caught; the limit of a whole step is only for what nobody foresaw.
SLOW_S, TEST_LIMIT_S, STEP_LIMIT_S = 5, 20, 1800

TOKEN = re.compile(r"""(?P<skip>//[^\n]*|/\*.*?\*/|^\s*\#[^\n]*|static_assert[^;]*;
                                |"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])')
                     | (?P<number>\b(?:0[xX][0-9a-fA-F']+|\d[\d']*)\b)
                     | (?P<bool>\b(?:true|false)\b)
                     | (?P<operator>(?<=\ )(?:<=|>=|==|!=|<|>|&&|\|\|)(?=\s))
                     | (?P<return>\breturn\b[^;]*;)""", re.VERBOSE | re.MULTILINE | re.DOTALL)
SWAPS = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"), "==": ("!=",), "!=": ("==",),
         "&&": ("||",), "||": ("&&",), "true": ("false",), "false": ("true",)}


class Mutant:
    def __init__(self, path, text, begin, end, new):
        self.path, self.new = path, text[:begin] + new + text[end:]
        line = text.count("\n", 0, begin) + 1
        column = begin - text.rfind("\n", 0, begin)
        change = " ".join(f"{text[begin:end]} -> {new}".split())
        self.name = f"{path}:{line}:{column}: {change}    [{text.splitlines()[line - 1].strip()}]"


def numbers(literal):
    literal = literal.replace("'", "")
    value = int(literal, 8 if re.fullmatch(r"0[0-7]+", literal) else 0)
    return [str(each) for each in dict.fromkeys((value + 1, value - 1, 0)) if each != value]


def returns(text, begin, end):
    """What may stand in place of a return: nothing where more of its function follows (it stands behind an if, or ends
    an inner block), and the opposite of a truth that no other mutant of its line turns around."""
    before = text[text.rfind("\n", 0, begin) + 1:begin]
    if before.strip():
        early = re.search(r"\)\s*$|\belse\s*$", before)
    else:
        early = len(before) >= 4 and re.match(r"\n\s+}(?![;,)])", text[end:])
    signatures = re.findall(r"^[A-Za-z].*\{$", text[:begin], re.MULTILINE)
    value = text[begin + len("return"):end - 1]
    truth = signatures and signatures[-1].startswith("bool ") and not re.search(r"\b(true|false)\b| [=!<>]=? ", value)
    return ["{}"] * bool(early) + [f"return !({value.strip()});"] * bool(truth)


def mutants_of(path):
    text = (ROOT / path).read_text()
    place = 0
    while match := TOKEN.search(text, place):
        kind, begin, end = match.lastgroup, match.start(), match.end()
        # What a return gives back holds tokens of its own.
        place = begin + len("return") if kind == "return" else end
        if kind == "number":
            changes = numbers(match[0])
        elif kind == "return":
            changes = returns(text, begin, end)
        else:
            changes = SWAPS.get(match[0], ())
        for new in changes:
            yield Mutant(path, text, begin, end, new)


def draw(count, seed):
    """The mutants of each folder in a random order, and of these so many, the folders taking turns."""
    rng = random.Random(seed)
    piles = []
    for folder in FOLDERS:
        files = sorted(ROOT.glob(folder + "/**/*.cpp")) + sorted(ROOT.glob(folder + "/**/*.h"))
        piles.append([each for file in files for each in mutants_of(str(file.relative_to(ROOT)))])
        rng.shuffle(piles[-1])
    total = sum(map(len, piles))
    drawn = []
    while any(piles) and len(drawn) < count:
        drawn += [pile.pop() for pile in piles if pile]
    # Each file is built as seldom as possible; headers, on which most of the tests depend, come last.
    return sorted(drawn[:int(min(count, total))], key=lambda mutant: (mutant.path.endswith(".h"), mutant.path)), total


def run(*command):
    """@return the exit status; None when the time was up. Nothing that was started goes on."""
    with open(LOG, "wb") as log:
        process = subprocess.Popen(command, cwd=COPY, stdout=log, stderr=log, stdin=subprocess.DEVNULL,
                                   start_new_session=True)
        try:
            return process.wait(STEP_LIMIT_S)
        except subprocess.TimeoutExpired:
            return None
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()


def build():
    return run("cmake", "--build", "--preset", "release", "-j1", "--target", *TARGETS)


def copy_changed(source, target):
    if not os.path.exists(target) or not filecmp.cmp(source, target, shallow=False):
        shutil.copy(source, target)


def make_copy():
    shutil.copytree(ROOT, COPY, ignore=shutil.ignore_patterns("build", ".git"), copy_function=copy_changed,
                    dirs_exist_ok=True)
    # What the project has no more would still be built.
    for file in (COPY / "tests").rglob("*.cpp"):
        if not (ROOT / file.relative_to(COPY)).exists():
            file.unlink()
    # A mutant may well leave something unused: a warning is no catch. One that ends without its result is no program.
    if run("cmake", "--preset", "release", "-DCMAKE_COMPILE_WARNING_AS_ERROR=OFF",
           "-DCMAKE_CXX_FLAGS=-Werror=return-type") != 0 or build() != 0:
        sys.exit(f"mutation.py: the project itself does not build, see {LOG}")


def test(*arguments, jobs=1):
    """@return the status of the tests' run, and what became of each."""
    RESULTS.unlink(missing_ok=True)
    status = run("ctest", "--preset", "release", f"-j{jobs}", "--output-junit", str(RESULTS), *arguments)
    return status, list(xml.etree.ElementTree.parse(RESULTS).iter("testcase")) if RESULTS.exists() else []


def slow_tests():
    """The unit tests that take long without a mutant; all of them have to pass."""
    status, cases = test("-R", ALL_TESTS, jobs=2)
    if status != 0:
        sys.exit(f"mutation.py: the tests fail without a mutant, see {LOG}")
    return [case.get("name").split("  #")[0] for case in cases if float(case.get("time")) >= SLOW_S]


def suites_of(path):
    """The tests that are named after a source file: those of <Name>*Test.cpp."""
    files = ROOT.glob(f"tests/*/{pathlib.Path(path).stem}*Test.cpp")
    return set(re.findall(r"^TEST(?:_F|_P)?\((\w+),", "".join(file.read_text() for file in files), re.MULTILINE))


def judge(mutant, slow):
    """@return what became of it and how. The tests of its own class come first, then the others."""
    if build() != 0:
        return "not built", ""
    near = "[./](" + "|".join(suites_of(mutant.path)) + r")\."
    left_out = "^(" + "|".join(map(re.escape, slow)) + ")( |$)"
    for tests in ("-R", near, "-E", left_out), ("-R", ALL_TESTS, "-E", left_out + "|" + near):
        status, cases = test(*tests, "--no-tests=ignore", "--stop-on-failure", "--timeout", str(TEST_LIMIT_S))
        if status is None:
            return "killed", "by its time"
        if status != 0:
            failed = [case.get("name") for case in cases if case.get("status") == "fail"]
            return "killed", "by " + (failed or sys.exit(f"mutation.py: no test ran, see {LOG}"))[0]
    return "survived", ""


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("count", nargs="?", default="60", help="how many mutants, or all")
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--list", action="store_true", help="only show the mutants")
    arguments = parser.parse_args()
    drawn, total = draw(float("inf") if arguments.count == "all" else int(arguments.count), arguments.seed)
    print(f"seed {arguments.seed}: {len(drawn)} of {total} mutants", flush=True)
    if arguments.list:
        print(*(mutant.name for mutant in drawn), sep="\n")
        return 0

    make_copy()
    slow = slow_tests()
    results = {"killed": [], "survived": [], "not built": []}
    start = time.monotonic()
    for mutant in drawn:
        file = COPY / mutant.path
        original = file.read_text()
        try:
            file.write_text(mutant.new)
            result, how = judge(mutant, slow)
        finally:
            file.write_text(original)
        results[result].append(mutant)
        print(f"{result}: {mutant.name} {how}", flush=True)

    print("survivors:", *(mutant.name for mutant in results["survived"]), sep="\n  ")
    killed, survived, not_built = map(len, results.values())
    caught = 100 * killed / max(killed + survived, 1)
    print(f"seed {arguments.seed}: {killed + survived} mutants, {killed} killed, {survived} survived, "
          f"{not_built} not built; {caught:.1f} % caught in {time.monotonic() - start:.0f} s")
    return 0 if caught >= GOAL else 1


if __name__ == "__main__":
    sys.exit(main())
