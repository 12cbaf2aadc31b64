"""The shell samples of the documents: they are shell, name what there is, and print what they say."""

import glob
import json
import os
import re
import shlex
import socket
import subprocess
import time
import unittest

from tool_process import QVL, SOURCE, ToolTest

UNITD = os.environ["UNITD"]
DOCUMENTS = sorted(glob.glob(os.path.join(SOURCE, "*.md")) + glob.glob(os.path.join(SOURCE, "docs", "*.md")))


def shell_samples(document):
    with open(document, encoding="utf-8") as file:
        return re.findall(r"^```(?:sh|bash|shell)\n(.*?)^```", file.read(), re.MULTILINE | re.DOTALL)


def commands(sample):
    """The words of each simple command; what follows a number sign is for the reader."""
    for line in sample.splitlines():
        words = shlex.split(line, comments=True)
        while words:
            end = next((i for i, word in enumerate(words) if word in ("&&", "||", "|", "&")), len(words))
            yield words[:end]
            words = words[end + 1 :]


class ShellSamples(ToolTest):
    def test_there_are_some(self):
        self.assertGreaterEqual(sum(len(shell_samples(document)) for document in DOCUMENTS), 4)

    def test_are_shell(self):
        for document in DOCUMENTS:
            for sample in shell_samples(document):
                done = subprocess.run(["sh", "-n"], input=sample.encode(), capture_output=True, timeout=60)
                self.assertEqual((done.stderr, done.returncode), (b"", 0), document)

    def test_name_what_there_is(self):
        for document in DOCUMENTS:
            for sample in shell_samples(document):
                for words in commands(sample):
                    with self.subTest(document=document, words=words):
                        self.check_words(words)

    def check_words(self, words):
        program = words[0]
        if program in ("cmake", "ctest"):
            if "--preset" in words:
                kind = "test" if program == "ctest" else "build" if "--build" in words else "configure"
                self.assertIn(words[words.index("--preset") + 1], self.presets(kind + "Presets"))
            for option in words:
                if option.startswith("-DQVLIB_"):
                    self.assertTrue(self.cmake_lists_have(rf"option\({option[2:].split('=')[0]}\b"))
        elif program.startswith(("scripts/", ".ci/")):
            self.assertTrue(os.access(os.path.join(SOURCE, program), os.X_OK))
        elif program == "man":
            page = words[-1]
            with open(os.path.join(SOURCE, "src", "qvlib.map"), encoding="utf-8") as file:
                exported = re.search(rf"\b{page};", file.read())
            self.assertTrue(exported or page == "qvl" or page.startswith("qvlib_"))
        elif program != "kill":
            name = re.escape(os.path.basename(program))
            self.assertTrue(self.cmake_lists_have(rf"(add_executable|qvlib_bench|qvlib_fuzz)\({name}\b"))

    def presets(self, kind):
        with open(os.path.join(SOURCE, "CMakePresets.json"), encoding="utf-8") as file:
            return [preset["name"] for preset in json.load(file)[kind]]

    def cmake_lists_have(self, pattern):
        for name in glob.glob(os.path.join(SOURCE, "**", "CMakeLists.txt"), recursive=True):
            with open(name, encoding="utf-8") as file:
                if re.search(pattern, file.read()):
                    return True
        return False

    def test_of_the_example_daemon_print_what_they_say(self):
        samples = shell_samples(os.path.join(SOURCE, "docs", "hosting.md"))
        (sample,) = [sample for sample in samples if "unitd" in sample]
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = str(probe.getsockname()[1])
        environment = {**os.environ, "PATH": os.path.dirname(QVL) + ":" + os.environ["PATH"]}
        sample = sample.replace("9000", port).replace("build/release/examples/unitd", shlex.quote(UNITD))
        start, *questions, end = sample.splitlines()
        self.assertRegex(start, r" & +#")
        self.assertEqual(end, "kill %1")
        with open(self.path("said"), "wb") as said:
            command = shlex.split(start[: start.index(" &")])
            daemon = subprocess.Popen(command, cwd=SOURCE, stdout=said, stderr=said)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        while b"serving" not in self.read("said"):
            self.assertIsNone(daemon.poll(), self.read("said"))
            time.sleep(0.02)
        self.assertEqual(len(questions), 3)
        for question in questions:
            command, _, answer = re.fullmatch(r"(.*?)(?: +(# )(.*))?", question).groups()
            done = subprocess.run(["sh", "-c", command], env=environment, capture_output=True, timeout=60)
            self.assertEqual((done.stderr, done.returncode), (b"", 0), command)
            if answer is not None:
                self.assertEqual(done.stdout.decode(), answer + "\n", command)
        daemon.terminate()
        self.assertEqual(daemon.wait(timeout=60), 0)


if __name__ == "__main__":
    unittest.main()
