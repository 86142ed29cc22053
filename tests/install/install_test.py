"""Installs the build into empty roots: what is installed is what the lists in files/ say, programs are built against it
and run, and the host, the plug-in, pyxctl and the Python module run from there, with no path to the build given."""
import contextlib
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "served"))
from service import BUILD, PATIENCE_S, RUN, SOURCE, STORAGE, main, running  # noqa: E402

ON_A_DEVICE = ["plugin", "client", "development", "python", "programs"]
FOR_A_DESK = ["host", "platform"]
# Of the caller's environment nothing may help to find what is installed.
HELPERS = {"LD_LIBRARY_PATH", "PYTHONPATH", "PKG_CONFIG_PATH", "CMAKE_PREFIX_PATH", "DESTDIR"}
ENVIRONMENT = {name: value for name, value in os.environ.items() if name not in HELPERS}


def run(*command, status=0, **variables):
    done = subprocess.run(command, capture_output=True, text=True, timeout=PATIENCE_S, cwd="/",
                          env={**ENVIRONMENT, **variables})
    if done.returncode != status:
        raise AssertionError(f"{command} ended with {done.returncode}: {done.stdout}{done.stderr}")
    return done.stdout + done.stderr


def cached(name):
    return re.search(rf"^{name}:\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE)[1]


# What the project itself is built with is there.
ENVIRONMENT["CMAKE_GENERATOR"] = cached("CMAKE_GENERATOR")


def expected(component):
    names = (HERE / "files" / f"{component}.txt").read_text()
    # CMake names one file after the kind of build.
    return set(names.replace("-release.", f"-{cached('CMAKE_BUILD_TYPE').lower()}.").splitlines())


def files(root):
    return {str(path.relative_to(root)) for path in root.rglob("*") if path.is_symlink() or not path.is_dir()}


def install(root, components):
    for component in components:
        run("cmake", "--install", BUILD, "--prefix", root, "--component", component)


class Installed(unittest.TestCase):
    """All components at one prefix."""

    @classmethod
    def setUpClass(cls):
        cls.root = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.prefix = cls.root / "installed"
        cls.work = cls.root / "work"
        install(cls.prefix, ON_A_DEVICE + FOR_A_DESK)

    def environment(self):
        """What a user sets for a library at a prefix of his own."""
        return {"LD_LIBRARY_PATH": str(self.prefix / "lib"),
                "PYTHONPATH": str(self.prefix / "lib/python3/dist-packages")}

    @contextlib.contextmanager
    def service(self):
        """The installed host with the installed plug-in and its default policy."""
        STORAGE.mkdir(parents=True, exist_ok=True)
        (STORAGE / "policy.json").write_bytes((self.prefix / "share/zav-pyx-plugin/policy.json").read_bytes())
        with tempfile.TemporaryDirectory() as state, running(
                self.prefix / "bin/dpm-host", "--library", self.prefix / "lib/dpm/plugins/libzav-pyx-plugin.so",
                "--state-dir", state, "--log", f"{state}/log", "--serve", stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, env=ENVIRONMENT):
            run(self.prefix / "bin/pyxctl", "--timeout", str(PATIENCE_S), "ping", "--wait")
            yield

    def test_the_files_are_those_of_the_lists(self):
        self.assertEqual(files(self.prefix), set().union(*map(expected, ON_A_DEVICE + FOR_A_DESK)))

    def test_nothing_of_it_knows_where_it_was_built_or_installed(self):
        for name in sorted(files(self.prefix)):
            content = (self.prefix / name).read_bytes()
            for path in (SOURCE, BUILD, self.prefix):
                self.assertNotIn(os.fsencode(path), content, f"{name} holds {path}")

    def test_libraries_are_looked_for_beside_the_programs_alone(self):
        found = {}
        for name in sorted(files(self.prefix)):
            path = self.prefix / name
            if path.is_symlink() or not path.read_bytes().startswith(b"\x7fELF"):
                continue
            for kind, value in re.findall(r"\((RPATH|RUNPATH)\).*\[(.*)\]", run("readelf", "-d", path)):
                found[name] = f"{kind} {value}"
        self.assertEqual(found, {"bin/pyxctl": "RUNPATH $ORIGIN/../lib", "bin/dpm-host": "RUNPATH $ORIGIN/../lib"})

    def test_the_modes_let_everybody_read_and_nobody_else_write(self):
        for name in sorted(files(self.prefix)):
            mode = (self.prefix / name).stat().st_mode & 0o7777
            self.assertIn(mode, (0o644, 0o755), name)
            self.assertEqual(mode == 0o755, name.startswith("bin/"), name)

    def test_programs_are_built_against_it_and_run(self):
        cmake_build, from_c = self.work / "cmake", self.work / "consumer-c"
        run("cmake", "-S", HERE / "consumer", "-B", cmake_build, f"-DCMAKE_PREFIX_PATH={self.prefix}")
        run("cmake", "--build", cmake_build)
        flags = run("pkg-config", "--cflags", "--libs", "pyxclient",
                    PKG_CONFIG_PATH=str(self.prefix / "lib/pkgconfig")).split()
        run("cc", "-std=c11", "-Wall", "-Wextra", "-Werror", HERE / "consumer/consumer.c", *flags, "-o", from_c)
        python = "import pyxclient; print([record.url for record in pyxclient.Client().log()], pyxclient.__file__)"
        with self.service():
            self.assertEqual(run(from_c, **self.environment()), "done\n")
            # CMake links a program of the build tree so that it finds its libraries.
            self.assertEqual(run(cmake_build / "consumer"), "http://cpp.example/ malware\n")
            self.assertEqual(run(sys.executable, "-B", "-c", python, **self.environment()),
                             "['http://c.example/', 'http://cpp.example/'] "
                             f"{self.prefix}/lib/python3/dist-packages/pyxclient.py\n")
            self.assertIn("http://c.example/", run(self.prefix / "bin/pyxctl", "log", "-o", "csv"))
            self.assertRegex(run(self.prefix / "bin/pyxctl", "doctor", "--policy",
                                 self.prefix / "share/zav-pyx-plugin/policy.json"), "^ok .*: it keeps its rules\n$")

    def test_the_version_is_that_of_the_header_and_another_major_one_is_refused(self):
        header = (self.prefix / "include/pyxclient/pyxclient.h").read_text()
        major, minor = (int(re.search(rf"PYX_VERSION_{part} (\d+)", header)[1]) for part in ("MAJOR", "MINOR"))
        version = f"{major}.{minor}.0"
        self.assertEqual(run("pkg-config", "--modversion", "pyxclient",
                             PKG_CONFIG_PATH=str(self.prefix / "lib/pkgconfig")), version + "\n")
        for wanted, found in (("", 1), (f"{major}", 1), (version, 1), (f"{major}.{minor + 1}", 0), (f"{major + 1}", 0),
                              (f"{major - 1}.9", 0)):
            with self.subTest(wanted=wanted):
                answer = run("cmake", "-S", HERE / "version", "-B", self.work / f"version-{wanted}",
                             f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DWANTED={wanted}")
                self.assertIn(f"considered: {version}; found: {found}\n", answer)


class Components(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def test_each_holds_what_its_list_says(self):
        for component in ON_A_DEVICE + FOR_A_DESK:
            with self.subTest(component):
                install(self.root / component, [component])
                self.assertEqual(files(self.root / component), expected(component))

    def test_without_a_name_all_are_installed_that_a_device_takes_and_below_destdir(self):
        run("cmake", "--install", BUILD, DESTDIR=str(self.root))
        prefix = cached("CMAKE_INSTALL_PREFIX").lstrip("/")
        self.assertEqual(files(self.root), {f"{prefix}/{name}" for each in ON_A_DEVICE for name in expected(each)})


if __name__ == "__main__":
    main()
