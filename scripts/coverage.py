#!/usr/bin/env python3
"""Prints the coverage of a gcovr report and holds it to its goal: coverage.py REPORT EXCEPTIONS.

Every line and 95 % of the branches are to be reached; what is not has to stand in the file of exceptions, with a
reason. Fails when something is missing there, or stands there and is reached or gone.

Of the branches that gcov counts, some belong to no condition of the source: the two ways out of a call that may throw,
and those of the clean-up after an exception, which never runs unless there was one. They are left out: a branch to an
exception with the branch beside it, and a pair of which neither was taken on a line that ran. (What leads to such a
pair is a branch as well; where that is one of the source, it counts as not taken.)
"""
import collections
import json
import pathlib
import re
import sys

BRANCH_GOAL = 95.0
ENTRY = re.compile(r"(?P<file>\S+) \| (?:(?P<least>\d+)-)?(?P<most>\d+) (?P<kind>line|branch)(?:e?s)? \| (?P<text>.+)")


def branches_of(line):
    """The branches of a line that the source has."""
    kept = []
    for branch in line["branches"]:
        if not branch["throw"]:
            kept.append(branch["count"])
        elif kept:
            kept.pop()
    if line["count"] == 0 or len(kept) % 2:
        return kept
    return [count for pair in zip(kept[::2], kept[1::2]) if any(pair) for count in pair]


def measure(report):
    """@return by kind how many there are, and by file, kind and text of the line how many were not reached."""
    total, missed = collections.Counter(), collections.Counter()
    for file in json.loads(pathlib.Path(report).read_text())["files"]:
        source = pathlib.Path(file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            text = source[line["line_number"] - 1].strip()
            for kind, counts in (("line", [line["count"]]), ("branch", branches_of(line))):
                total[kind] += len(counts)
                missed[file["file"], kind, text] += counts.count(0)
    return total, +missed


def read_exceptions(path):
    """@return by file, kind and text the least and the most that may not be reached; and what is wrong with them."""
    allowed, wrong = {}, []
    for paragraph in pathlib.Path(path).read_text().split("\n\n"):
        lines = paragraph.strip().splitlines()
        entries = [line for line in lines if not line.startswith("#")]
        if entries and not lines[0].startswith("#"):
            wrong.append(f"without a reason: {entries[0]}")
        for entry in entries:
            match = ENTRY.fullmatch(entry)
            if not match:
                wrong.append(f"not understood: {entry}")
                continue
            least, most = int(match["least"] or match["most"]), int(match["most"])
            allowed[match["file"], match["kind"], match["text"]] = (least, most)
    return allowed, wrong


def compare(missed, allowed):
    for key in sorted(missed.keys() | allowed.keys()):
        file, kind, text = key
        least, most = allowed.get(key, (0, 0))
        if missed[key] > most:
            yield f"not reached, {missed[key]} {kind}: {file}: {text}"
        elif missed[key] < least:
            yield f"said to be out of reach, and reached or gone, {least} {kind}: {file}: {text}"


def main(report, exceptions):
    total, missed = measure(report)
    allowed, wrong = read_exceptions(exceptions)
    wrong += compare(missed, allowed)
    lost = collections.Counter()
    for (_, kind, _), count in missed.items():
        lost[kind] += count
    branches = 100 * (total["branch"] - lost["branch"]) / max(total["branch"], 1)
    if branches < BRANCH_GOAL:
        wrong.append(f"below the goal of {BRANCH_GOAL} % of the branches")
    print(*wrong, sep="\n", end="\n" if wrong else "")
    print(f"src/plugin: {total['line'] - lost['line']} of {total['line']} lines, "
          f"{total['branch'] - lost['branch']} of {total['branch']} branches ({branches:.1f} %) were reached; "
          f"{lost['line']} lines and {lost['branch']} branches were not; "
          f"{len(allowed)} places are explained in {exceptions}")
    return 1 if wrong or total["line"] == 0 else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
