"""Where qvl writes to, and what is left when it fails."""

import os
import resource
import stat
import subprocess
import unittest

from tool_process import QVL, ToolTest


class Output(ToolTest):
    def setUp(self):
        super().setUp()
        self.write("f.cl", "a=1")

    def leftovers(self):
        return [name for name in os.listdir(self.directory) if name.startswith(".")]

    def test_is_written_to_a_new_file(self):
        self.assertEqual(self.output("json", "-o", "out", "f.cl"), b"")
        self.assertEqual(self.read("out"), b'{"a":1}\n')
        self.assertEqual(self.leftovers(), [])

    def test_every_writing_command_takes_it(self):
        for command in (
            ["json", "f.cl"],
            ["xml", "f.cl"],
            ["corelink", "f.cl"],
            ["paths", "f.cl"],
            ["get", "f.cl", "a"],
            ["merge", "--update", "f.cl", "f.cl"],
        ):
            with self.subTest(command):
                self.assertEqual(self.output(*command, "--output", "out"), b"")
                self.assertEqual(self.read("out"), self.output(*command))

    def test_new_file_has_the_permissions_of_the_umask(self):
        self.output("json", "-o", "out", "f.cl", preexec_fn=lambda: os.umask(0o027))
        self.assertEqual(stat.S_IMODE(os.stat(self.path("out")).st_mode), 0o640)

    def test_old_file_keeps_its_permissions(self):
        self.write("out", "old")
        os.chmod(self.path("out"), 0o604)
        self.output("json", "-o", "out", "f.cl")
        self.assertEqual(stat.S_IMODE(os.stat(self.path("out")).st_mode), 0o604)
        self.assertEqual(self.read("out"), b'{"a":1}\n')

    def test_symbolic_link_stays_one(self):
        self.write("real", "old")
        os.symlink("real", self.path("link"))
        self.output("json", "-o", "link", "f.cl")
        self.assertTrue(os.path.islink(self.path("link")))
        self.assertEqual(self.read("real"), b'{"a":1}\n')

    def test_old_file_survives_a_bad_input(self):
        self.write("out", "old")
        self.write("bad.cl", "a=")
        self.complaint("json", "-o", "out", "bad.cl")
        self.complaint("get", "-o", "out", "f.cl", "a", "missing")
        self.complaint("merge", "--update", "-o", "out", "f.cl", "bad.cl")
        self.assertEqual((self.read("out"), self.leftovers()), (b"old", []))

    def test_old_file_survives_a_failed_write(self):
        self.write("out", "old")
        self.write("big.cl", 'a="' + "x" * 100000 + '"')
        message = self.complaint(
            "json",
            "-o",
            "out",
            "big.cl",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096)),
        )
        # Whatever a profiling run time says of its own files comes behind.
        self.assertEqual(message.splitlines()[0], "qvl: out: File too large")
        self.assertEqual((self.read("out"), self.leftovers()), (b"old", []))

    def test_may_be_the_input(self):
        self.output("corelink", "--pretty", "-o", "f.cl", "f.cl")
        self.assertEqual(self.read("f.cl"), b"a = 1\n")

    def test_missing_directory(self):
        self.assertEqual(
            self.complaint("json", "-o", "no/out", "f.cl"), "qvl: no/out: No such file or directory\n"
        )

    def test_directory(self):
        self.assertEqual(self.complaint("json", "-o", ".", "f.cl"), "qvl: .: Is a directory\n")

    def test_device_is_written_in_place(self):
        self.output("json", "-o", "/dev/null", "f.cl")
        self.assertTrue(stat.S_ISCHR(os.stat("/dev/null").st_mode))
        self.assertEqual(
            self.complaint("json", "-o", "/dev/full", "f.cl"), "qvl: /dev/full: No space left on device\n"
        )

    def test_dash_is_standard_output(self):
        self.assertEqual(self.output("json", "-o", "-", "f.cl"), b'{"a":1}\n')

    def run_into(self, output, *arguments):
        done = subprocess.run(
            [QVL, *arguments], stdout=output, stderr=subprocess.PIPE, cwd=self.directory, timeout=60
        )
        return done.returncode, done.stderr.decode()

    def test_full_standard_output(self):
        for arguments in (["json", "f.cl"], ["--help"], ["--version"], ["get", "--help"]):
            with self.subTest(arguments), open("/dev/full", "wb") as full:
                self.assertEqual(
                    self.run_into(full, *arguments), (1, "qvl: standard output: No space left on device\n")
                )

    def test_closed_pipe(self):
        reading, writing = os.pipe()
        os.close(reading)
        self.addCleanup(os.close, writing)
        self.assertEqual(self.run_into(writing, "json", "f.cl"), (1, "qvl: standard output: Broken pipe\n"))

    def test_closed_standard_output(self):
        done = subprocess.run(
            ["sh", "-c", 'exec "$0" json f.cl >&-', QVL],
            stderr=subprocess.PIPE,
            cwd=self.directory,
            timeout=60,
        )
        self.assertEqual((done.returncode, done.stderr), (1, b"qvl: standard output: Bad file descriptor\n"))

    def test_closed_standard_error_does_not_reach_the_file(self):
        done = subprocess.run(
            ["sh", "-c", 'exec "$0" merge --update -o out f.cl no.cl 2>&-', QVL],
            cwd=self.directory,
            timeout=60,
        )
        self.assertEqual(done.returncode, 1)
        self.assertFalse(os.path.exists(self.path("out")))


if __name__ == "__main__":
    unittest.main()
