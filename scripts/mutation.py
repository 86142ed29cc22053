#!/usr/bin/env python3
"""Changes the plug-in in one small place at a time and looks whether a test notices: mutation.py [COUNT|all] [options].

Comparisons, logical operators, constants and early returns of src/plugin/pyx, policy and ipc are changed. COUNT mutants
are drawn, 60 unless given. Everything happens in a copy below build/mutation; what is tested is the project as it
stands, committed or not. Each result is kept there: what was tried before is not tried again, but for survivors that
tests/mutation-survivors.txt does not explain, after a change of the tests. Ends with 0 when at least 90 % of the
mutants were caught; of those that were not, the ones are named that tests/mutation-survivors.txt does not explain.
"""
import argparse
import concurrent.futures
import contextlib
import filecmp
import hashlib
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build/mutation"
COPY, LOG, RESULTS, REACHED = WORK / "project", WORK / "log", WORK / "results", WORK / "reached.json"
SURVIVORS = ROOT / "tests/mutation-survivors.txt"
BUILD = COPY / "build/coverage"
FOLDERS = ("src/plugin/pyx", "src/plugin/policy", "src/plugin/ipc")
SUFFIXES = (".cpp", ".h")
PROGRAMS = ("tests/unit/unit-tests", "tests/steps/manager-steps-tests")
GOAL = 90
# A test that hangs is stopped after so much more than its own time, and so the mutant is caught; the limit of a step of
# the build is only for what nobody foresaw.
TEST_LIMIT_S, SLOW_S, STEP_LIMIT_S, FIRST_TESTS = 20, 10, 1800, 20

TOKEN = re.compile(r"""(?P<skip>//[^\n]*|/\*.*?\*/|^\s*\#[^\n]*|static_assert[^;]*;
                                |"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])')
                     | (?P<number>\b(?:0[xX][0-9a-fA-F']+|\d[\d']*)\b)
                     | (?P<bool>\b(?:true|false)\b)
                     | (?P<operator>(?<=\ )(?:<=|>=|==|!=|<|>|&&|\|\|)(?=\s))
                     | (?P<return>\breturn\b[^;]*;)""", re.VERBOSE | re.MULTILINE | re.DOTALL)
SWAPS = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"), "==": ("!=",), "!=": ("==",),
         "&&": ("||",), "||": ("&&",), "true": ("false",), "false": ("true",)}


def digest(*parts):
    return hashlib.sha256("\0".join(parts).encode()).hexdigest()


def digest_of(folder):
    return digest(*(file.read_text() for file in sorted(folder.rglob("*")) if file.suffix in SUFFIXES))


class Mutant:
    def __init__(self, path, text, begin, end, new):
        self.path, self.new = path, text[:begin] + new + text[end:]
        self.line = text.count("\n", 0, begin) + 1
        column = begin - text.rfind("\n", 0, begin)
        change = " ".join(f"{text[begin:end]} -> {new}".split())
        source = text.splitlines()[self.line - 1].strip()
        self.name = f"{path}:{self.line}:{column}: {change}    [{source}]"
        self.entry = f"{path} | {change} | {source}"
        self.key = digest(self.name, self.new)


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
    files = [file for folder in FOLDERS for file in sorted((ROOT / folder).rglob("*")) if file.suffix in SUFFIXES]
    mutants = [each for file in files for each in mutants_of(str(file.relative_to(ROOT)))]
    drawn = random.Random(seed).sample(mutants, min(count, len(mutants)))
    # Neighbours are caught by the same tests; headers, on which most of the tests depend, come last.
    return sorted(drawn, key=lambda mutant: (mutant.path.endswith(".h"), mutant.path, mutant.line)), len(mutants)


def run(*command, limit=STEP_LIMIT_S, **more):
    """@return the exit status; None when the time was up. Nothing that was started goes on."""
    with open(LOG, "wb") as log:
        process = subprocess.Popen(command, cwd=COPY, stdout=log, stderr=log, stdin=subprocess.DEVNULL,
                                   start_new_session=True, **more)
        try:
            return process.wait(limit)
        except subprocess.TimeoutExpired:
            return None
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()


def build():
    return run("cmake", "--build", "--preset", "coverage", "-j1", "--target", *map(os.path.basename, PROGRAMS))


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
    # What is built is run for seconds: a quick compiler and linker are worth more than quick code.
    if run("cmake", "--preset", "coverage", "-DCMAKE_COMPILE_WARNING_AS_ERROR=OFF", "-DCMAKE_CXX_FLAGS_DEBUG=-O0",
           "-DCMAKE_CXX_FLAGS=-Werror=return-type", "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=gold",
           "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST") != 0 or build() != 0:
        sys.exit(f"mutation.py: the project itself does not build, see {LOG}")


def names_of(program):
    suite = ""
    for line in subprocess.check_output([BUILD / program, "--gtest_list_tests"], text=True).splitlines():
        if line.startswith("  "):
            yield f"{program} {suite}{line.split()[0]}"
        else:
            suite = line.split()[0]


def run_test(test, limit, **environment):
    """Runs a test in a process of its own. What it counts is not needed: it goes with the test's /tmp."""
    program, name = test.split(" ")
    return run(BUILD / program, "--gtest_filter=" + name, limit=limit,
               env={**os.environ, "GCOV_PREFIX": "/tmp/counted", **environment})


def reached_lines():
    """@return the places that were reached since the last look, as "file:line"."""
    counted = list(BUILD.glob("src/**/*.gcda"))
    reports = subprocess.check_output(["gcov", "--json-format", "--stdout", *counted], cwd=BUILD)
    for file in counted:
        file.unlink()
    return sorted({f"{file['file']}:{line['line_number']}" for report in map(json.loads, reports.splitlines())
                   for file in report["files"] if file["file"].startswith(FOLDERS)
                   for line in file["lines"] if line["count"]})


def try_tests(project):
    """@return each test's seconds and the places that it reaches, once for each state of the project. Without a mutant
    all pass. Those that reach the least come first."""
    if REACHED.exists() and (known := json.loads(REACHED.read_text()))["project"] == project:
        return known["tests"]
    tests = {}
    for file in BUILD.glob("src/**/*.gcda"):
        file.unlink()
    for test in [test for program in PROGRAMS for test in names_of(program)]:
        start = time.monotonic()
        if run_test(test, STEP_LIMIT_S, GCOV_PREFIX="") != 0:
            sys.exit(f"mutation.py: {test} fails without a mutant, see {LOG}")
        tests[test] = (time.monotonic() - start, reached_lines())
    tests = dict(sorted(tests.items(), key=lambda item: len(item[1][1])))
    REACHED.write_text(json.dumps({"project": project, "tests": tests}))
    return tests


def places_of(mutant):
    """Where a mutant shows itself: in its line, and where that makes a constant, in all that name it."""
    lines = mutant.new.splitlines()
    constant = re.match(r"constexpr [^=({]*\b(\w+)[ {]", lines[mutant.line - 1])
    shown = [constant and re.search(rf"\b{constant[1]}\b", line) for line in lines]
    return {f"{mutant.path}:{number}" for number, here in enumerate(shown, 1) if here or number == mutant.line}


def first_failure(mutant, tests, order):
    places = places_of(mutant)
    # A header's functions may come from an object that does not count.
    reaching = [test for test in order if places & set(tests[test][1]) and mutant.path.endswith(".cpp")] or order.copy()
    quick = [test for test in reaching if tests[test][0] < SLOW_S]
    slow = [test for test in reaching if tests[test][0] >= SLOW_S]

    def fails(test):
        """One that fails has to do so twice: the machine may have been busy."""
        limit = TEST_LIMIT_S + 3 * tests[test][0]
        status = run_test(test, limit)
        return status is None or status != 0 and run_test(test, limit) != 0

    if caught := next(filter(fails, quick[:FIRST_TESTS]), None):
        return caught
    # What lives by now most often survives. Those that take long wait for a deadline of the product's.
    for rest, jobs in (quick[FIRST_TESTS:], 2), (slow, len(slow) or 1):
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for test, failed in zip(rest, pool.map(fails, rest)):
                if failed:
                    pool.shutdown(cancel_futures=True)
                    return test
    return None


def judge(mutant, tests, order):
    """@return what became of it, and by which test. That one stands at the front of `order` then."""
    file = COPY / mutant.path
    original = file.read_text()
    try:
        file.write_text(mutant.new)
        if build() != 0:
            return "not built", None
        test = first_failure(mutant, tests, order)
    finally:
        file.write_text(original)
    if test is None:
        return "survived", None
    order.remove(test)
    order.insert(0, test)
    return "killed", test


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
    tests_digest = digest_of(COPY / "tests")
    tests = try_tests(tests_digest + digest_of(COPY / "src"))
    known = {}
    if RESULTS.exists():
        known = {each["key"]: each for each in map(json.loads, RESULTS.read_text().splitlines())}
    listed = SURVIVORS.read_text().splitlines()
    orders = {mutant.path: list(tests) for mutant in drawn}
    results = {"killed": [], "survived": [], "not built": []}
    tried, start = 0, time.monotonic()
    for mutant in drawn:
        result = known.get(mutant.key)
        is_open = result and result["result"] == "survived" and mutant.entry not in listed
        if not result or is_open and result["tests"] != tests_digest:
            what, by = judge(mutant, tests, orders[mutant.path])
            result = {"key": mutant.key, "tests": tests_digest, "result": what, "mutant": mutant.name, "by": by}
            tried += 1
            print(f"{what}: {mutant.name}", f"by {by}" if by else "", flush=True)
            with open(RESULTS, "a") as file:
                print(json.dumps(result), file=file)
        results[result["result"]].append(mutant)

    survivors = sorted({mutant.entry for mutant in results["survived"]})
    print("survivors that nobody has judged yet:", *(entry for entry in survivors if entry not in listed), sep="\n  ")
    killed, survived, not_built = map(len, results.values())
    caught = 100 * killed / max(killed + survived, 1)
    print(f"seed {arguments.seed}: {killed + survived} mutants, {killed} killed, {survived} survived, {not_built} not "
          f"built; {caught:.1f} % caught; {tried} tried now in {time.monotonic() - start:.0f} s")
    return 0 if caught >= GOAL else 1


if __name__ == "__main__":
    sys.exit(main())
