"""Runs the built qvl (environment variable QVL) as its users do."""

import os
import shutil
import subprocess
import tempfile
import unittest

QVL = os.environ["QVL"]
SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class ToolTest(unittest.TestCase):
    """A directory of its own, and qvl run in it."""

    def setUp(self):
        self.directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.directory)

    def path(self, name):
        return os.path.join(self.directory, name)

    def write(self, name, content):
        if isinstance(content, str):
            content = content.encode()
        with open(self.path(name), "wb") as file:
            file.write(content)
        return name

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def qvl(self, *arguments, stdin=b"", **options):
        if isinstance(stdin, str):
            stdin = stdin.encode()
        return subprocess.run(
            [QVL, *arguments], input=stdin, capture_output=True, cwd=self.directory, timeout=120, **options
        )

    def output(self, *arguments, **options):
        """The output of a run that must succeed and say nothing."""
        done = self.qvl(*arguments, **options)
        self.assertEqual((done.stderr, done.returncode), (b"", 0))
        return done.stdout

    def complaint(self, *arguments, status=1, **options):
        """The message of a run that must fail and write nothing."""
        done = self.qvl(*arguments, **options)
        self.assertEqual((done.stdout, done.returncode), (b"", status))
        return done.stderr.decode()

    def check(self, content):
        self.write("f.cl", content)
        return self.complaint("check", "f.cl").splitlines()
