"""What qvl xml-events prints, and how it refuses."""

import os
import subprocess
import unittest

from tool_process import QVL, SOURCE, ToolTest

FILES = os.path.join(SOURCE, "tests", "data", "xml")


class XmlEvents(ToolTest):
    def events(self, document):
        return self.output("xml-events", "-", stdin=document).decode("utf-8").splitlines()

    def refused(self, document):
        done = self.qvl("xml-events", "-", stdin=document)
        self.assertEqual(done.returncode, 1)
        return done.stdout.decode(), done.stderr.decode()

    def test_each_event_is_a_line(self):
        self.assertEqual(
            self.events('<a x="1" y="2"><b/>hi</a><!--note-->'),
            ['start a x="1" y="2"', "start b", "end b", 'text "hi"', "end a", 'comment "note-"'],
        )

    def test_a_document_without_events(self):
        for document in ("", "text", "<?xml?>", "<!DOCTYPE a>"):
            self.assertEqual(self.events(document), [])

    def test_what_the_end_cuts_short_is_left_out(self):
        for rest in ("text", "<b", '<b x="1" y="2', "</a", "<!--b", "&lt"):
            self.assertEqual(self.events("<a>" + rest), ["start a"])

    def test_texts_stay_in_their_line(self):
        self.assertEqual(
            self.events(b'<a x="\n\t\\&quot;\x1b[2J">l1\r\n"\xc3\xb6\xff\0\xc2\x85<!--\n\x7f--></a>'),
            [
                'start a x="\\n\\t\\\\&quot;\\x1B[2J"',
                'text "l1\\x0D\\n\\"ö\\xFF\\x00\\xC2\\x85"',
                'comment "\\n\\x7F-"',
                "end a",
            ],
        )

    def test_long_text_comes_in_pieces(self):
        self.assertEqual(
            self.events("x" * 300 + "<a/>"), [f'text "{"x" * 256}"', f'text "{"x" * 44}"', "start a", "end a"]
        )

    def test_a_fault_has_the_line_as_people_count_it(self):
        self.assertEqual(
            self.refused("<a>\n<b_>"),
            (
                'start a\ntext "\\n"\n',
                "<stdin>:2: Invalid XML Document: Invalid State (2: '_') on line 1.\n",
            ),
        )
        self.assertEqual(self.refused(">"), ("", "<stdin>:1: Invalid XML Document\n"))
        self.assertEqual(self.refused("<!--\n\n--->")[1], "<stdin>:3: Invalid XML Document\n")
        self.assertEqual(self.refused("\n<" + "a" * 257)[1], "<stdin>:2: XML identifier exceeded buffer\n")

    def test_a_line_feed_that_is_wrong_belongs_to_the_line_that_it_ends(self):
        self.assertEqual(
            self.refused("\n<a\n>")[1],
            "<stdin>:2: Invalid XML Document: Invalid State (2: 0x0a) on line 2.\n",
        )

    def test_a_fault_far_behind(self):
        document = "<a>" + "<b>\n</b>" * 20000 + "<_"
        out, err = self.refused(document)
        self.assertEqual(out.count("\n"), 60001)
        self.assertTrue(err.startswith("<stdin>:20001: "), err)

    def test_a_fault_wherever_a_read_ends(self):
        for length in range(8185, 8200):
            self.assertTrue(self.refused("\n" * length + ">")[1].startswith(f"<stdin>:{length + 1}: "))
            self.assertTrue(self.refused("\n" * length + "<a\n\n")[1].startswith(f"<stdin>:{length + 1}: "))

    def test_a_tag_with_many_attributes(self):
        attributes = "".join(f' x="{i}"' for i in range(200000))
        self.assertEqual(self.events(f"<a{attributes}/>"), ["start a" + attributes, "end a"])

    def test_a_tag_without_an_end_is_refused(self):
        err = self.refused("<a>\n<b" + ' x=""' * 1500000)[1]  # 15 bytes each at least
        self.assertEqual(err, "<stdin>:2: Cannot allocate memory\n")

    def test_events_come_as_the_document_does(self):
        with subprocess.Popen(
            [QVL, "xml-events", "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0
        ) as process:
            for piece, line in ((b"<a>", b"start a\n"), (b"<!--c-->", b'comment "c-"\n'), (b"</a>", b"end a\n")):
                process.stdin.write(piece)
                self.assertEqual(process.stdout.readline(), line)
            process.stdin.close()
            self.assertEqual(process.stdout.read(), b"")
        self.assertEqual(process.returncode, 0)

    def test_a_document_is_not_kept(self):
        process = subprocess.Popen([QVL, "xml-events", "-"], stdin=subprocess.PIPE)
        process.stdin.write(b"<?")
        for _ in range(512):
            process.stdin.write(b"x" * (1 << 20))
        process.stdin.close()
        _, status, used = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        self.assertEqual(process.returncode, 0)
        self.assertLess(used.ru_maxrss, 256 << 10)  # KiB

    def test_what_cannot_be_read(self):
        self.assertEqual(self.complaint("xml-events", self.directory), f"qvl: {self.directory}: Is a directory\n")

    def test_a_file_is_named(self):
        self.write("bad.xml", "<a b>")
        done = self.qvl("xml-events", "bad.xml")
        self.assertEqual(
            done.stderr, b"bad.xml:1: Invalid XML Document: Invalid State (5: '>') on line 0.\n"
        )
        self.assertEqual(
            self.complaint("xml-events", "missing.xml"), "qvl: missing.xml: No such file or directory\n"
        )
        self.assertIn("FILE is required", self.complaint("xml-events", status=2))

    def test_real_files(self):
        for name in ("device.xml", "feed.xml", "drawing.svg"):
            path = os.path.join(FILES, name)
            lines = self.output("xml-events", path).decode("utf-8").splitlines()
            starts = sum(line.startswith("start ") for line in lines)
            self.assertGreater(starts, 10)
            self.assertEqual(starts, sum(line.startswith("end ") for line in lines))
            for line in lines:
                self.assertRegex(line, r'^(start|end|text|comment) [^\x00-\x1f]+$')

    def test_real_files_are_xml(self):
        names = [os.path.join(FILES, name) for name in sorted(os.listdir(FILES))]
        self.assertEqual(len(names), 3)
        done = subprocess.run(["xmllint", "--noout", *names], capture_output=True)
        self.assertEqual((done.stderr, done.returncode), (b"", 0))

    def test_what_qvl_writes_can_be_read(self):
        self.write("d.cl", 'unit={name="left",ports=[1,2]}')
        document = self.output("xml", "d.cl")
        self.assertIn('text "left"', self.events(document))

    def test_output_that_can_not_be_written(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run([QVL, "xml-events", "-"], input=b"<a/>", stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"No space left on device", done.stderr)


if __name__ == "__main__":
    unittest.main()
