"""What bash, zsh and fish complete of a command line of pyxctl."""
import os
import pathlib
import subprocess
import unittest

COMPLETIONS = pathlib.Path(__file__).resolve().parents[2] / "client/completions"
ENVIRONMENT = {**os.environ, "LC_ALL": "C.UTF-8"}

BASH = """source "$1/pyxctl.bash"; shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)); _pyxctl; printf '%s\\n' "${COMPREPLY[@]}" """
# What zsh's own completion would show is printed.
ZSH = """fpath=("$1" $fpath); shift
autoload -Uz _pyxctl
_describe() { print -rl -- "${(@P)2}" }
_files() { print -r -- "(a file)" }
words=("$@") CURRENT=$#; _pyxctl"""
FISH = """source $argv[1]/pyxctl.fish; complete -C "$argv[2]" """


def output(*command):
    done = subprocess.run(command, env=ENVIRONMENT, capture_output=True, text=True, timeout=60, check=True)
    return done.stdout.splitlines()


def bash(*words):
    return output("bash", "--norc", "-c", BASH, "bash", COMPLETIONS, "pyxctl", *words)


def zsh(*words):
    return output("zsh", "-f", "-c", ZSH, "zsh", COMPLETIONS, "pyxctl", *words)


def fish(*words):
    return output("fish", "--no-config", "-c", FISH, COMPLETIONS, " ".join(("pyxctl", *words)))


class Completions(unittest.TestCase):
    def test_a_verb(self):
        self.assertEqual(bash("lo"), ["logging", "log"])
        self.assertEqual(zsh("lo"), ["logging:Show whether threats are logged", "log:Show the records of the log"])
        self.assertEqual(sorted(fish("lo")),
                         ["log\tShow the records of the log", "logging\tShow whether threats are logged"])

    def test_an_option_whose_meaning_has_quotes_and_colons(self):
        meaning = "What came at that time or later: '2026-11-20 14:00', yesterday, 1h, @SECONDS"
        self.assertEqual(bash("log", "--si"), ["--since"])
        self.assertEqual(zsh("log", "--si"), [f"--since:{meaning}"])
        self.assertEqual(fish("log", "--si"), [f"--since\t{meaning}"])

    def test_the_value_of_an_option(self):
        for shell in bash, fish:
            self.assertEqual(sorted(each.strip() for each in shell("log", "-o", "")), ["csv", "human", "json", "ndjson"])
        self.assertEqual(zsh("log", "-o", "j"), ["json:"])

    def test_a_file_where_nothing_is_known(self):
        self.assertEqual(bash("--socket", ""), [""])
        self.assertEqual(zsh("--socket", ""), ["(a file)"])
        files = fish("--socket", str(COMPLETIONS) + "/pyxctl.b")
        self.assertEqual(files, [f"{COMPLETIONS}/pyxctl.bash"])


if __name__ == "__main__":
    unittest.main()
