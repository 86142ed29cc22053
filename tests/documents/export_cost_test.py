"""The script that measures what an export costs."""
import os
import pathlib
import re
import subprocess
import sys
import unittest

BUILD = pathlib.Path(os.environ["ZAV_BUILD"])
SCRIPT = pathlib.Path(os.environ["ZAV_SOURCE"]) / "scripts/export-cost.py"
RECORDS = 20


def run(*arguments):
    return subprocess.run([sys.executable, "-B", SCRIPT, *arguments], capture_output=True, text=True, timeout=120)


class TheCostOfAnExport(unittest.TestCase):
    def test_is_measured(self):
        if os.environ.get("DEVICE_ROOT") == "real":
            self.skipTest("it wants a device root of its own")
        done = run(str(RECORDS), "--rounds", "2", "--build", str(BUILD))
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        rows = [re.split(r" {2,}", line) for line in done.stdout.splitlines()[2:]]
        self.assertEqual([row[0] for row in rows], ["export of all", "export of 10 new", "export of nothing new",
                                                    "a second of follow", "one report"])
        figures = {row[0]: [float(each) for each in row[1:]] for row in rows}
        for client, service, written, requests, output in figures.values():
            self.assertGreater(client, 0)
            self.assertGreater(service, 0)
            self.assertGreater(requests, 0)
        # A record is some hundred bytes long, and a report writes a database of some pages several times over.
        self.assertGreater(figures["export of all"][4], 100 * RECORDS)
        self.assertGreater(figures["export of 10 new"][4], 1000)
        self.assertEqual(figures["export of nothing new"][4], 0)
        self.assertEqual(figures["export of all"][2], 0)
        self.assertGreater(figures["one report"][2], 8192)

    def test_is_refused_for_what_is_no_log(self):
        done = run("5")
        self.assertEqual(done.returncode, 2)
        self.assertIn("so many records are not kept: 5", done.stderr)


if __name__ == "__main__":
    unittest.main()
