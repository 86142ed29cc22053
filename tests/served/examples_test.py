"""The examples in C, C++, Python and the shell, against a real service."""
import os
import subprocess
import sys

from service import BUILD, PATIENCE_S, SOURCE, ServedTest, main, pyxctl, running, wait_until

EXAMPLES = BUILD / "client/examples"
SCRIPTS = SOURCE / "client/examples"
PYTHON_ENVIRONMENT = {**os.environ, "PYTHONPATH": str(SOURCE / "client/python"),
                      "LD_LIBRARY_PATH": str(BUILD / "client")}


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_S, **options)


class Examples(ServedTest):
    def test_report_in_c(self):
        done = run(EXAMPLES / "report", "http://c.example/", "phishing")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "logged\n", ""))
        self.assertEqual(run(EXAMPLES / "report", "http://d.example/").stdout, "logged\n")
        self.assertEqual(self.records(), [("http://c.example/", "phishing"), ("http://d.example/", "undefined")])

    def test_report_in_c_that_the_service_refuses(self):
        done = run(EXAMPLES / "report", "")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertRegex(done.stderr, "^not logged: the service does not log an empty URL")

    def test_threats_in_cpp(self):
        run(EXAMPLES / "threats", "http://a.example/", "malware")
        run(EXAMPLES / "threats", "http://b.example/", "phishing")
        done = run(EXAMPLES / "threats", "http://c.example/", "malware")
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "2 malware\n1 phishing\n", ""))

    def test_report_in_the_shell(self):
        done = run("sh", SCRIPTS / "report.sh", "http://shell.example/", "phishing",
                   env={**os.environ, "PATH": f"{BUILD}/client:{os.environ['PATH']}"})
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "logged\n", ""))
        self.assertEqual(self.records(), [("http://shell.example/", "phishing")])

    def test_watch_in_python(self):
        def lines():
            return (self.directory / "out").read_text().splitlines()

        with open("out", "w") as out, running(sys.executable, "-B", SCRIPTS / "watch.py", "http://a.example/", "phishing",
                                              stdout=out, env=PYTHON_ENVIRONMENT):
            wait_until(lambda: len(lines()) == 1, "the first record")
            pyxctl("report", "\x1b[2J")
            wait_until(lambda: len(lines()) == 2, "the second record")
            wait_until(lambda: "pyx1:1:" in (self.directory / "watch.cursor").read_text(), "the cursor")
        self.assertRegex(lines()[0], r"^20\S+ phishing 'http://a.example/'$")
        self.assertRegex(lines()[1], r"^20\S+ undefined '\\x1b\[2J'$")
        pyxctl("report", "http://c.example/")
        with open("out", "w") as out, running(sys.executable, "-B", SCRIPTS / "watch.py", stdout=out,
                                              env=PYTHON_ENVIRONMENT):
            wait_until(lambda: len(lines()) == 1, "the record that came between")
        self.assertRegex(lines()[0], "'http://c.example/'$")


if __name__ == "__main__":
    main()
