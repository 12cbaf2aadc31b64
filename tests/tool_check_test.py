"""How qvl reports a document that is wrong."""

import os
import pty
import subprocess
import unittest

from tool_process import QVL, ToolTest


class CheckPositions(ToolTest):
    """Line, column, offending line and caret."""

    def assert_reported(self, content, place, text, line, caret):
        self.assertEqual(self.check(content), [f"f.cl:{place}: {text}", line, caret])

    def test_a_good_file_is_passed_over_in_silence(self):
        self.write("f.cl", "a=1")
        self.assertEqual(self.output("check", "f.cl"), b"")

    def test_offending_token(self):
        for content, column, token in [
            ("a=null", 3, "null"),
            ("a=-1", 3, "-"),
            ("a=1 b=2", 5, "b"),
            ("{a=1}", 1, "{"),
            ("true=1", 1, "true"),
            ("t=TRUE", 3, "TRUE"),
            ("a=1,,b=2", 5, ","),
            ("a=[1,]", 6, "]"),
            ("a={,}", 4, ","),
            ("a..b=1", 3, "."),
            ("a=0x", 4, "x"),
            ("5=a", 1, "5"),
            ("a=1 # one", 5, "#"),
            ('a=1 "b"', 5, '"b"'),
            ("a=1}", 4, "}"),
            ("a=1 12345", 5, "12345"),
            ("a=1.5", 4, "."),
        ]:
            with self.subTest(content):
                self.assert_reported(
                    content, f"1:{column}", f'syntax error near "{token}"', content, " " * (column - 1) + "^"
                )

    def test_line_and_column_on_a_later_line(self):
        self.assert_reported("a=1,\n\nb=2,\n  c=!,\nd=4\n", "4:5", 'syntax error near "!"', "  c=!,", "    ^")

    def test_last_line_without_a_line_feed(self):
        self.assert_reported("a=1,\nb=?", "2:3", 'syntax error near "?"', "b=?", "  ^")

    def test_lines_with_carriage_returns(self):
        self.assert_reported("a=1,\r\nb=?,\r\nc=1\r\n", "2:3", 'syntax error near "?"', "b=?,", "  ^")

    def test_tabs_before_the_error_stand_before_the_caret_too(self):
        self.assert_reported("a={\n\tb\t=\t?\n}", "2:6", 'syntax error near "?"', "\tb\t=\t?", "\t \t \t^")

    def test_columns_count_bytes_and_the_caret_characters(self):
        self.assert_reported(
            'a="\u00fc\u20ac" ?', "1:11", 'syntax error near "?"', 'a="\u00fc\u20ac" ?', " " * 7 + "^"
        )

    def test_end_of_file(self):
        for content, column in ("a=", 3), ("a=1,", 5), ("a=1,\n\n", 5), ("a.", 3), ("a = \t", 4):
            with self.subTest(content):
                line = content.split("\n")[0]
                self.assert_reported(
                    content, f"1:{column}", "syntax error near end of file", line, " " * (column - 1) + "^"
                )

    def test_empty_file(self):
        for content in ("", " ", "\n\n", "\t\r\n"):
            with self.subTest(content):
                self.assertEqual(
                    self.check(content)[0],
                    "f.cl:1:1: syntax error near end of file: a document has at least one member",
                )

    def test_unclosed_brace_or_bracket_is_reported_where_it_opens(self):
        for content, place, token in [
            ("a={b=1", "1:3", "{"),
            ("a=[1,2\n\n", "1:3", "["),
            ("a={\n b=[1,{c=2},\n", "2:4", "["),
            ("x=1,\na={b={c=1}, d=[]", "2:3", "{"),
            ("a=[1,{b=1},", "1:3", "["),
            ("a={", "1:3", "{"),
        ]:
            with self.subTest(content):
                line = content.split("\n")[int(place[0]) - 1]
                self.assert_reported(
                    content,
                    place,
                    f'syntax error near "{token}": never closed',
                    line,
                    " " * (int(place[2]) - 1) + "^",
                )

    def test_bracket_that_the_brace_around_it_cuts_off(self):
        self.assert_reported(
            "a={\n b=[1,2\n}",
            "2:4",
            'syntax error near "[": not closed before "}" at line 3, column 1',
            " b=[1,2",
            "   ^",
        )
        self.assert_reported(
            "a=[{b=1]",
            "1:4",
            'syntax error near "{": not closed before "]" at line 1, column 8',
            "a=[{b=1]",
            "   ^",
        )

    def test_wrong_closing_without_a_partner_is_the_offending_byte(self):
        self.assert_reported("a=[1,2}", "1:7", 'syntax error near "}"', "a=[1,2}", "      ^")

    def test_unclosed_string_is_reported_where_it_opens(self):
        self.assert_reported(
            'a=1,\nb="x,\nc=3\n', "2:3", 'syntax error near """: never closed', 'b="x,', "  ^"
        )
        self.assert_reported('b="x\\"', "1:3", 'syntax error near """: never closed', 'b="x\\"', "  ^")
        self.assert_reported('a={b="x}', "1:6", 'syntax error near """: never closed', 'a={b="x}', "     ^")

    def test_backslash_before_a_line_end_leaves_a_string_unclosed(self):
        self.assert_reported(
            'b="x\\\ny"',
            "1:3",
            'syntax error near """: never closed, a backslash stands before '
            "the line end at line 1, column 5",
            'b="x\\',
            "  ^",
        )

    def test_string_that_ran_into_the_next_one_is_named(self):
        self.assert_reported(
            'a="one,\nb="two"',
            "2:4",
            'syntax error near "two": the string before it opens at ' "line 1, column 3",
            'b="two"',
            "   ^",
        )

    def test_prefix_that_has_a_value_is_reported_at_the_prefix(self):
        for content, column in (
            ("a=1, a.b=2", 6),
            ('x={s="", s.t}', 10),
            ("n, n.a=1", 4),
            ("a.b=true, a.b.c=1", 13),
        ):
            with self.subTest(content):
                name = content[column - 1]
                self.assert_reported(
                    content,
                    f"1:{column}",
                    f'syntax error near "{name}": its value has no members',
                    content,
                    " " * (column - 1) + "^",
                )

    def test_unprintable_tokens_are_escaped(self):
        for byte, shown in (
            (b"\x01", "\\x01"),
            (b"\x7f", "\\x7F"),
            (b"\xc3", "\\xC3"),
            (b"\x00", "\\x00"),
            (b"\x1b", "\\x1B"),
        ):
            with self.subTest(shown):
                self.assert_reported(
                    b"a=" + byte + b",b", "1:3", f'syntax error near "{shown}"', f"a={shown},b", "  ^"
                )

    def test_unprintable_bytes_before_the_caret_are_escaped_and_counted(self):
        self.assert_reported(
            b'a="\x01\x9b" ?', "1:8", 'syntax error near "?"', 'a="\\x01\\x9B" ?', " " * 13 + "^"
        )

    def test_nul_byte_in_a_string_is_reported(self):
        self.assert_reported(
            b'a="x\x00y",b=2', "1:5", 'syntax error near "\\x00"', 'a="x\\x00y",b=2', "    ^"
        )
        self.assert_reported(b'a="x\x00y', "1:5", 'syntax error near "\\x00"', 'a="x\\x00y', "    ^")
        self.assert_reported(b"a=1,\nb=1\x00", "2:4", 'syntax error near "\\x00"', "b=1\\x00", "   ^")

    def test_error_before_a_nul_byte_comes_first(self):
        self.assert_reported(b"a=?\x00", "1:3", 'syntax error near "?"', "a=?\\x00", "  ^")

    def test_binary_file(self):
        with open(os.environ["CMAKE"], "rb") as file:
            self.write("f.cl", file.read(4096))
        self.assertEqual(self.check(self.read("f.cl"))[0], 'f.cl:1:1: syntax error near "\\x7F"')

    def test_long_token_is_shortened(self):
        self.assertEqual(
            self.check("a=" + "n" * 5000)[0], 'f.cl:1:3: syntax error near "' + "n" * 40 + '..."'
        )

    def test_long_line_is_cut_around_the_caret(self):
        text, line, caret = self.check("a=" + "1," * 50000 + "?" + ",b=1" * 50000)
        self.assertIn("f.cl:1:5:", text)
        text, line, caret = self.check("a,b=[" + "1," * 50000 + "?" + ",1" * 50000)
        self.assertEqual(text, 'f.cl:1:100006: syntax error near "?"')
        self.assertLess(len(line), 140)
        self.assertEqual(line[len(caret) - 1], "?")
        self.assertTrue(line.startswith("...") and line.endswith("..."))

    def test_nesting_too_deep(self):
        for opening in "[", "{a=", "a.":
            with self.subTest(opening):
                content = ("a=" if opening != "a." else "") + opening * 30000
                self.assertRegex(self.check(content)[0], r"^f\.cl:1:\d+: nesting too deep$")

    def test_deep_nesting_within_the_limit_is_good(self):
        self.write("f.cl", "a=" + "[" * 9000 + "]" * 9000)
        self.output("check", "f.cl")

    def test_deep_unclosed_nesting(self):
        self.assertEqual(self.check("a=" + "[" * 9000)[0], 'f.cl:1:9002: syntax error near "[": never closed')


class CheckFiles(ToolTest):
    def test_all_files_are_looked_at(self):
        self.write("bad1.cl", "a=")
        self.write("good.cl", "a=1")
        self.write("bad2.cl", "b=?")
        message = self.complaint("check", "bad1.cl", "good.cl", "missing.cl", "bad2.cl")
        self.assertEqual(
            [line for line in message.splitlines() if ".cl" in line],
            [
                "bad1.cl:1:3: syntax error near end of file",
                "qvl: missing.cl: No such file or directory",
                'bad2.cl:1:3: syntax error near "?"',
            ],
        )

    def test_standard_input(self):
        self.assertEqual(self.output("check", "-", stdin="a=1"), b"")
        self.assertEqual(
            self.complaint("check", "-", stdin="a=?").splitlines()[0], '<stdin>:1:3: syntax error near "?"'
        )

    def test_missing_file(self):
        self.assertEqual(self.complaint("json", "no.cl"), "qvl: no.cl: No such file or directory\n")

    def test_directory(self):
        self.assertEqual(self.complaint("json", "."), "qvl: .: Is a directory\n")

    def test_every_command_reports_a_bad_file(self):
        self.write("f.cl", "a=?")
        wanted = 'f.cl:1:3: syntax error near "?"\na=?\n  ^\n'
        for command in (["json"], ["xml"], ["corelink"], ["paths"], ["check"], ["json", "--raw"]):
            with self.subTest(command):
                self.assertEqual(self.complaint(*command, "f.cl"), wanted)
        self.assertEqual(self.complaint("get", "f.cl", "a"), wanted)
        self.assertEqual(self.complaint("merge", "--select", "f.cl", "f.cl"), wanted)

    def test_closed_standard_input(self):
        self.assertEqual(
            self.complaint("json", "-", preexec_fn=lambda: os.close(0)), "qvl: <stdin>: Bad file descriptor\n"
        )


class Colour(ToolTest):
    def on_terminal(self, **environment):
        self.write("f.cl", "a=?")
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        variables = {name: value for name, value in os.environ.items() if name != "NO_COLOR"}
        done = subprocess.run(
            [QVL, "check", "f.cl"],
            stderr=slave,
            cwd=self.directory,
            timeout=60,
            env={**variables, "TERM": "xterm", **environment},
        )
        os.close(slave)
        self.assertEqual(done.returncode, 1)
        return os.read(master, 4096).decode()

    def test_on_a_terminal(self):
        text = self.on_terminal()
        self.assertIn("\033[1;31msyntax error", text)
        self.assertIn("\033[1;31m^\033[0m", text)

    def test_not_when_no_color_is_set(self):
        self.assertNotIn("\033", self.on_terminal(NO_COLOR="1"))

    def test_when_no_color_is_empty(self):
        self.assertIn("\033", self.on_terminal(NO_COLOR=""))

    def test_not_on_a_dumb_terminal(self):
        self.assertNotIn("\033", self.on_terminal(TERM="dumb"))

    def test_not_in_a_pipe(self):
        self.write("f.cl", "a=?")
        self.assertNotIn("\033", self.complaint("check", "f.cl"))


if __name__ == "__main__":
    unittest.main()
