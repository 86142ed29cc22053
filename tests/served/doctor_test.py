"""The doctor and a service whose root directory is not its own, as that of ./run serve is not."""
import os
import subprocess

from service import BUILD, PATIENCE_S, PYXCTL, STORAGE, ServedTest, main, pyxctl


def elsewhere(*words):
    """pyxctl where /opt is another, empty directory, and /tmp the same."""
    return subprocess.run([BUILD / "host/device-root", "--opt-tmpfs", "--keep", BUILD, "--", PYXCTL, *words],
                          capture_output=True, text=True, timeout=PATIENCE_S)


class TheDoctor(ServedTest):
    def setUp(self):
        super().setUp()
        pyxctl("report", "http://a.example/")

    def test_finds_the_service_sound_from_its_own_root(self):
        self.assertNotIn("problem", pyxctl("doctor"))

    def test_looks_at_the_files_of_a_service_with_another_root(self):
        if os.environ["DEVICE_ROOT"] == "real":
            self.skipTest("there is one root only")
        done = elsewhere("doctor")
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        self.assertNotIn("problem", done.stdout)
        if os.geteuid() == 0:
            self.assertIn("it has a root directory of its own", done.stdout)
            self.assertIn("ok       database: it is whole", done.stdout)
        else:
            self.assertIn("its files lie elsewhere", done.stdout)

    def test_finds_what_is_wrong_with_them(self):
        if os.environ["DEVICE_ROOT"] == "real" or os.geteuid() != 0:
            self.skipTest("only root sees the files of another root")
        (STORAGE / ".data.db.bak").write_text("junk")
        done = elsewhere("doctor")
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertIn("problem  backup: it is damaged: file is not a database", done.stdout)


if __name__ == "__main__":
    main()
