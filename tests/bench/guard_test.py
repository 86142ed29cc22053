"""What requests cost must not slide: counts of instructions, which no other load of the machine changes, memory, and
processor time against the floor's with a wide margin. What the goals are, and how far from them, tells the bench."""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["ZAV_BUILD"])
BENCH = pathlib.Path(os.environ["ZAV_SOURCE"]) / "bench"
REPORT = "method 6"
STATE = "method 4"
STATUS = "method 16"
LAST_TEN = "method 18, last 10"


def measure(*options):
    (BUILD / "bench").mkdir(exist_ok=True)
    with tempfile.TemporaryDirectory(dir=BUILD / "bench") as output:
        done = subprocess.run([sys.executable, "-B", BENCH / "measure.py", "--seed", "1", "--build", BUILD, "--output",
                               output, *options], capture_output=True, text=True, timeout=500)
        if done.returncode != 0:
            raise AssertionError(done.stdout + done.stderr)
        return json.loads((pathlib.Path(output) / "results.json").read_text())


@unittest.skipIf(os.environ.get("DEVICE_ROOT") == "real", "it wants device roots of its own")
class TheInstructions(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        figures = measure("--only", "instructions")["figures"]["instructions"]
        cls.thousands = {(each["what"], each["records"]): each["total"] / 1000 for each in figures}

    def check(self, kind, records, most):
        self.assertIn((kind, records), self.thousands)
        self.assertLess(self.thousands[kind, records], most)

    def test_of_a_look_are_few(self):
        self.check(STATE, 10, 20)
        self.check(STATE, 1000, 20)
        self.check(STATUS, 10, 30)

    def test_of_a_report_are_few(self):
        self.check(REPORT, 10, 250)

    def test_of_a_report_grow_far_less_than_the_log(self):
        self.check(REPORT, 1000, 10 * self.thousands[REPORT, 10])

    def test_of_the_last_records_do_not_grow_with_the_log(self):
        self.check(LAST_TEN, 1000, 1.5 * self.thousands[LAST_TEN, 10])


@unittest.skipIf(os.environ.get("DEVICE_ROOT") == "real", "it wants device roots of its own")
class TheCost(unittest.TestCase):
    def test_in_memory_of_a_large_report_is_no_more_than_three_times_the_log(self):
        self.assertLess(measure("--only", "peak")["figures"]["rest.peak"]["median"], 3)

    def test_in_processor_time_of_a_read_is_not_far_from_the_floor(self):
        """Other loads disturb some rounds, whichever they fall on. What costs more shows in all of them."""
        rows = measure("--quick", "--rounds", "9", "--only", "read")["rows"]
        alone = [row["ratios"]["plug-in"] for row in rows if row["clients"] == 1]
        self.assertEqual(len(alone), 2)
        for ratios in alone:
            self.assertLess(ratios["floor with the plug-in's calls"]["cpu_us"]["low"], 3)


if __name__ == "__main__":
    unittest.main()
