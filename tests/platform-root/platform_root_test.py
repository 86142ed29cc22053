"""The plug-in, built with ZAV_PLATFORM_ROOT against a second copy of the platform, which stands elsewhere."""
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

import service

CMAKE = os.environ["ZAV_CMAKE"]
MARKER = b"the second platform"


def run(*command):
    """What a program writes; it has to succeed."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=240)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}: {done.stdout}")
    return done.stdout


def configure(build, root):
    """Configures the project; what came of it."""
    return subprocess.run([CMAKE, "-S", service.SOURCE, "-B", build, "-G", os.environ["ZAV_GENERATOR"],
                           "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON",
                           f"-DZAV_PLATFORM_ROOT:PATH={root}"],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120)


def dynamic_section(library):
    """Its entries: pairs of a type and a value."""
    return re.findall(r"\((\w+)\) .*\[(.*)\]", run("readelf", "--dynamic", "--wide", library))


def put_marker(header):
    """Whatever is compiled with the header holds the marker from then on."""
    header.write_text(f'{header.read_text()}\n[[gnu::used]] static const char marker[] = "{MARKER.decode()}";\n')


class APlatformElsewhere(unittest.TestCase):
    """The copy and the build stay as they are for all tests; what a test changes, it changes in a copy of its own."""

    @classmethod
    def setUpClass(cls):
        cls.directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory())).resolve()
        cls.root = cls.directory / "platform"
        cls.build = cls.directory / "build"
        cls.library = cls.build / "src/plugin/libzav-pyx-plugin.so"
        run(CMAKE, "--install", service.BUILD, "--component", "platform", "--prefix", cls.root)
        cls.libraries, = {path.parent for path in cls.root.rglob("libdpm.so")}
        put_marker(cls.root / "include/dpm/DPluginPolicy.h")
        configured = configure(cls.build, cls.root)
        if configured.returncode != 0:
            raise AssertionError(configured.stdout)
        run(CMAKE, "--build", cls.build, "--parallel", "2", "--target", "zav-pyx-plugin")

    def another_root(self):
        """A copy of the copy, and a build directory that is to be configured only."""
        directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory())).resolve()
        return shutil.copytree(self.root, directory / "other"), directory / "build"

    def test_alone_is_compiled_with(self):
        commands = [entry["command"] for entry in json.loads((self.build / "compile_commands.json").read_text())
                    if "/src/plugin/" in entry["file"]]
        self.assertGreater(len(commands), 10)
        for command in commands:
            self.assertNotIn(f"{service.SOURCE}/platform", command)
            self.assertNotIn(str(service.BUILD), command)
        self.assertTrue(any(f" {self.root}/include " in command for command in commands), commands)
        self.assertIn(MARKER, self.library.read_bytes())

    def test_alone_is_linked_with(self):
        entries = dynamic_section(self.library)
        needed = {value for kind, value in entries if kind == "NEEDED"}
        self.assertLessEqual({"libdpm.so", "libklay.so", "libdlog.so"}, needed)
        paths = [value.rstrip(":") for kind, value in entries if kind in ("RPATH", "RUNPATH")]
        self.assertEqual(paths, [str(self.libraries)])
        self.assertNotIn(f"{service.SOURCE}/platform", (self.build / "build.ninja").read_text())

    def test_carries_the_plug_in(self):
        environment = {**os.environ, "LD_LIBRARY_PATH": str(self.libraries)}
        with service.serving(plugin=self.library, env=environment) as host:
            service.pyxctl("report", "http://a.example/x", "--threat", "phishing")
            self.assertIn('"url":"http://a.example/x"', service.pyxctl("log", "-o", "json").replace(" ", ""))
            maps = pathlib.Path(f"/proc/{host.pid}/maps").read_text()
        mapped = set(re.findall(r"/\S*/lib(?:dpm|klay|dlog|zav-pyx-plugin)\.so", maps))
        self.assertEqual(mapped, {str(self.library), f"{self.libraries}/libdpm.so", f"{self.libraries}/libklay.so",
                                  f"{self.libraries}/libdlog.so"})

    def test_is_found_in_the_root_of_a_file_system(self):
        root, build = self.another_root()
        (root / "usr").mkdir()
        (root / "include").rename(root / "usr/include")
        where = root / "usr/lib64"
        (root / self.libraries.relative_to(self.root)).rename(where)
        configured = configure(build, root)
        self.assertEqual(configured.returncode, 0, configured.stdout)
        rules = (build / "build.ninja").read_text()
        for path in (f"{root}/usr/include", f"{where}/libdpm.so", f"{where}/libklay.so", f"{where}/libdlog.so"):
            self.assertIn(path, rules)

    def test_takes_the_place_of_the_one_before(self):
        root, build = self.another_root()
        self.assertEqual(configure(build, self.root).returncode, 0)
        self.assertEqual(configure(build, root).returncode, 0)
        rules = (build / "build.ninja").read_text()
        self.assertIn(f"{root}/include", rules)
        self.assertNotIn(str(self.root), rules)

    def test_leaves_no_path_where_a_library_has_no_soname(self):
        root, _ = self.another_root()
        dlog = self.libraries / "libdlog.so"
        code = root / "dlog.c"
        code.write_text("int __dlog_print(int buffer, int priority, const char* tag, ...) { return 0; }\n")
        before = shutil.copy2(dlog, root / "before.so")
        self.addCleanup(shutil.copy2, before, dlog)
        run(os.environ["CC"], "-shared", "-fPIC", "-o", dlog, code)
        self.assertNotIn("SONAME", dict(dynamic_section(dlog)))
        run(CMAKE, "--build", self.build, "--target", "zav-pyx-plugin")
        self.assertIn(("NEEDED", "libdlog.so"), dynamic_section(self.library))

    def test_that_is_wrong_is_told_in_one_message(self):
        libraries = self.libraries.relative_to(self.root)
        wrong = {
            "there is no directory {root}": lambda root: shutil.rmtree(root),
            "{root} lacks the header dpm/PolicyStorage.h": lambda root: (root / "include/dpm/PolicyStorage.h").unlink(),
            "{root} lacks the header dpm/AbstractDPluginProvider.h": lambda root: shutil.rmtree(root / "include"),
            "{root} lacks the library libklay.so": lambda root: (root / libraries / "libklay.so").unlink(),
        }
        for message, damage in wrong.items():
            with self.subTest(message):
                root, build = self.another_root()
                damage(root)
                self.expect_error(build, root, message.format(root=root))

    def test_that_is_relative_is_told_in_one_message(self):
        _, build = self.another_root()
        self.expect_error(build, "some/platform", "ZAV_PLATFORM_ROOT wants an absolute path, not some/platform")

    def expect_error(self, build, root, message):
        configured = configure(build, root)
        self.assertNotEqual(configured.returncode, 0)
        self.assertEqual(configured.stdout.count("CMake Error"), 1, configured.stdout)
        self.assertIn(message, re.sub(r"\s+", " ", configured.stdout))


if __name__ == "__main__":
    service.main()
