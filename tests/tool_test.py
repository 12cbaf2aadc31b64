"""Runs the built qvl (environment variable QVL) as its users do. Each class is a test of ctest's own."""

import json
import os
import pty
import re
import resource
import shutil
import stat
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree

QVL = os.environ["QVL"]
SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CONFIG = os.path.join(SOURCE, "examples", "config")


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


class Json(ToolTest):
    HARD = {
        "quote": 'a"b',
        "backslash": "a\\b",
        "trailing_backslash": "a\\",
        "both": '\\"\\\\"',
        "backslash_n": "a\\nb",
        "backslash_u": "\\u0041",
        "line_feed": "a\nb",
        "carriage_return": "a\rb",
        "tab": "a\tb",
        "controls": "".join(map(chr, range(1, 32))),
        "delete": "\x7f",
        "two_bytes": "J\u00fcrgen",
        "three_bytes": "\u20ac\u2028",
        "four_bytes": "\U0001f600",
        "empty": "",
        "braces": "}],{[",
    }

    @staticmethod
    def quoted(text):
        return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'

    def test_any_string_is_taken_by_a_json_parser(self):
        for layout in ([], ["--pretty"]):
            for name, value in self.HARD.items():
                with self.subTest(name, layout=layout):
                    text = f"s={self.quoted(value)}"
                    self.assertEqual(json.loads(self.output("json", *layout, stdin=text)), {"s": value})

    def test_bytes_that_are_no_utf8_become_the_replacement_character(self):
        for name, raw, wanted in [
            ("lone continuation", b"a\x80b", "a\ufffdb"),
            ("overlong slash", b"\xc0\xaf", "\ufffd\ufffd"),
            ("overlong three bytes", b"\xe0\x80\xaf", "\ufffd" * 3),
            ("surrogate", b"\xed\xa0\x80", "\ufffd" * 3),
            ("above U+10FFFF", b"\xf4\x90\x80\x80", "\ufffd" * 4),
            ("cut short", b"\xe2\x82", "\ufffd\ufffd"),
            ("latin 1", b"J\xfcrgen", "J\ufffdrgen"),
            ("bad between good", b"\xc3\xbc\xff\xc3\xbc", "\u00fc\ufffd\u00fc"),
        ]:
            with self.subTest(name):
                self.assertEqual(json.loads(self.output("json", stdin=b's="' + raw + b'"')), {"s": wanted})

    def test_all_types(self):
        self.assertEqual(
            self.output("json", stdin='n, s="x", i=5, t=true, f=false, o={}, l=[], a=[1,"x",{b=[]}]'),
            b'{"n":null,"s":"x","i":5,"t":true,"f":false,"o":{},"l":[],"a":[1,"x",{"b":[]}]}\n',
        )

    def test_numbers_are_unsigned_with_all_digits(self):
        self.assertEqual(
            self.output("json", stdin="a=18446744073709551615,b=0xFFFFFFFFFFFFFFFE,c=007"),
            b'{"a":18446744073709551615,"b":18446744073709551614,"c":7}\n',
        )

    def test_pretty_indents_one_value_a_line(self):
        self.assertEqual(
            self.output("json", "--pretty", stdin="a=1,b={c=[1,2],d={},e=[]}").decode(),
            '{\n  "a": 1,\n  "b": {\n    "c": [\n      1,\n      2\n    ],\n'
            '    "d": {},\n    "e": []\n  }\n}\n',
        )

    def test_raw_is_the_librarys_own_text(self):
        self.assertEqual(
            self.output("json", "--raw", stdin='a=1,b={c="x\\\\y\\"z"}'), b'"a":1,"b":{"c":"x\\y\\"z"}\n'
        )

    def test_named_elements_of_arrays_have_no_key(self):
        self.assertEqual(json.loads(self.output("json", stdin="a=[1],a.x=2,a.y")), {"a": [1, 2, None]})

    def test_deep_nesting(self):
        for opening, closing in ("[", "]"), ("{a=", "}"):
            text = "a=" + opening * 3000 + "1" + closing * 3000
            self.assertEqual(self.output("json", stdin=text).count(b"["), opening.count("[") * 3000)
            self.assertLess(len(self.output("json", "--pretty", stdin=text)), 1000000)


class Xml(ToolTest):
    def test_compact(self):
        self.assertEqual(
            self.output("xml", stdin='a=1,b={c="<&>\\"\'"},l=[true],n').decode(),
            '<?xml version="1.0" encoding="UTF-8"?><corelink><a type="number">1</a><b type="struct">'
            '<c type="string">&lt;&amp;&gt;&quot;&apos;</c></b><l type="array">'
            '<li type="boolean">true</li></l><n type="null" /></corelink>\n',
        )

    def test_pretty_indents_by_tabs(self):
        self.assertEqual(
            self.output("xml", "--pretty", stdin="a=1,p=[7,8]").decode(),
            '<?xml version="1.0" encoding="UTF-8"?>\n<corelink>\n\t<a type="number">1</a>\n'
            '\t<p type="array">\n\t\t<li type="number">7</li>\n\t\t<li type="number">8</li>\n'
            "\t</p>\n</corelink>\n",
        )

    def test_root_names_the_element_and_drops_the_prolog(self):
        self.assertEqual(
            self.output("xml", "--root", "status", stdin="a=1"), b'<status><a type="number">1</a></status>\n'
        )

    def test_root_that_is_no_name_is_wrong_usage(self):
        for name in ("1a", "a b", "a>", "-a", "\u00fc"):
            with self.subTest(name):
                self.assertIn(
                    f'"{name}" is no name', self.complaint("xml", f"--root={name}", stdin="a=1", status=2)
                )

    def test_strings_that_xml_cannot_carry_are_refused_with_their_path(self):
        for raw, shown in (b"\x01", "\\x01"), (b"\xff", "\\xFF"), (b"\xef\xbf\xbf", "\uffff"):
            with self.subTest(shown):
                self.assertEqual(
                    self.complaint("xml", stdin=b's={l=["ok","a' + raw + b'"]}'),
                    f'qvl: <stdin>: "s.l.1" holds "{shown}", which XML can\'t carry\n',
                )

    def test_raw_carries_them_as_they_are(self):
        self.assertIn(b"\x01", self.output("xml", "--raw", stdin=b's="\x01"'))


class Corelink(ToolTest):
    def test_all_types_in_one_line(self):
        self.assertEqual(
            self.output("corelink", stdin='n,\ns = "x",\n i=0x10, t=true, o={}, l=[], a=[1,{b}]'),
            b'n,s="x",i=16,t=true,o={},l=[],a=[1,{b}]\n',
        )

    def test_pretty_indents_one_value_a_line(self):
        self.assertEqual(
            self.output("corelink", "--pretty", stdin="a=1,b={c=[1,{d}],e={},f=[]},g").decode(),
            "a = 1,\nb = {\n  c = [\n    1,\n    {\n      d\n    }\n  ],\n  e = {},\n  f = []\n},\ng\n",
        )

    def test_backslashes_and_quotes_read_back(self):
        for value in Json.HARD.values():
            once = self.output("corelink", stdin="s=" + Json.quoted(value))
            self.assertEqual(once.decode(), "s=" + Json.quoted(value) + "\n")
            self.assertEqual(self.output("corelink", "--pretty", stdin=once).replace(b" = ", b"=", 1), once)

    def test_raw_escapes_quotes_alone(self):
        self.assertEqual(self.output("corelink", "--raw", stdin='s="a\\\\b\\"c"'), b's="a\\b\\"c"\n')

    def test_named_elements_of_arrays_follow_the_array(self):
        for text in (
            "a=[1],a.x=2",
            "a=[],a.x",
            "s={a=[{b}],a.x=[1],a.x.y={z=1},b=2}",
            "l=[{a=[],a.x=1},2]",
            "a=[1],a=[2],a.x=3",
        ):
            with self.subTest(text):
                self.assertEqual(self.output("corelink", stdin=text).decode(), text + "\n")
                pretty = self.output("corelink", "--pretty", stdin=text)
                self.assertEqual(self.output("corelink", stdin=pretty).decode(), text + "\n")

    def test_deep_nesting(self):
        for opening, closing in ("[", "]"), ("{a=", "}"):
            text = "a=" + opening * 3000 + "1" + closing * 3000
            self.assertEqual(self.output("corelink", stdin=text).decode(), text + "\n")
            self.assertLess(len(self.output("corelink", "--pretty", stdin=text)), 1000000)


class Paths(ToolTest):
    def test_leaves_with_their_paths(self):
        self.assertEqual(
            self.output("paths", stdin='a=1,b={c="x",n},e=[5,{f=true}]'),
            b'a=1,b.c="x",b.n,e.0=5,e.1.f=true\n',
        )

    def test_pretty_gives_one_a_line(self):
        self.assertEqual(self.output("paths", "--pretty", stdin="a=1,b={c=2}"), b"a=1\nb.c=2\n")

    def test_empty_containers_are_leaves(self):
        self.assertEqual(self.output("paths", stdin="x=1,s={},l=[[]],y=2"), b"x=1,s={},l.0=[],y=2\n")

    def test_raw_is_the_librarys_own_text(self):
        self.assertEqual(self.output("paths", "--raw", stdin="x=1,s={},y=2"), b"x=1,,y=2\n")


class Get(ToolTest):
    TEXT = 'a=1,s={b=true,c="x\\"y\\\\z",e={d=[]}},p=[5,6,{q="r"}],n,d="first",d=2'

    def setUp(self):
        super().setUp()
        self.write("f.cl", self.TEXT)

    def test_values_one_a_line(self):
        self.assertEqual(
            self.output("get", "f.cl", "a", "s.b", "s.c", "p.1", "s.0", "p.2.q", "n", "d"),
            b'1\ntrue\nx"y\\z\n6\ntrue\nr\nnull\nfirst\n',
        )

    def test_containers_as_corelink_text(self):
        self.assertEqual(
            self.output("get", "f.cl", "s", "p"), b'{b=true,c="x\\"y\\\\z",e={d=[]}}\n[5,6,{q="r"}]\n'
        )

    def test_types(self):
        self.assertEqual(
            self.output("get", "--type", "f.cl", "n", "s.c", "a", "s.b", "s", "p"),
            b"null\nstring\nnumber\nboolean\nstruct\narray\n",
        )

    def test_json(self):
        self.assertEqual(
            self.output("get", "--json", "f.cl", "s", "n", "p", "d"),
            b'{"b":true,"c":"x\\"y\\\\z","e":{"d":[]}}\nnull\n[5,6,{"q":"r"}]\n"first"\n',
        )

    def test_missing_paths_are_named_and_nothing_is_printed(self):
        self.assertEqual(
            self.complaint("get", "f.cl", "a", "s.x", "p.3", "a.b", "", "."),
            "".join(f"qvl: f.cl: no such path: {path}\n" for path in ("s.x", "p.3", "a.b", "", ".")),
        )

    def test_reads_standard_input(self):
        self.assertEqual(self.output("get", "-", "a", stdin="a=7"), b"7\n")

    def test_needs_a_path(self):
        self.assertIn("PATH", self.complaint("get", "f.cl", status=2))

    def test_types_and_json_exclude_each_other(self):
        self.assertIn("--json", self.complaint("get", "--type", "--json", "f.cl", "a", status=2))

    def test_a_bad_file_is_reported(self):
        self.write("f.cl", "a=")
        self.assertTrue(
            self.complaint("get", "f.cl", "a").startswith("f.cl:1:3: syntax error near end of file\n")
        )


class Merge(ToolTest):
    def merge(self, way, target, source, *options):
        self.write("t.cl", target)
        self.write("s.cl", source)
        return self.output("merge", way, *options, "t.cl", "s.cl").decode().rstrip("\n")

    def refuse(self, way, target, source):
        self.write("t.cl", target)
        self.write("s.cl", source)
        return self.complaint("merge", way, "t.cl", "s.cl")

    def test_update_takes_values_and_their_types(self):
        self.assertEqual(
            self.merge("--update", 'a=1,s={b="x",c=2},d', 's={b=7},d="y"'), 'a=1,s={b=7,c=2},d="y"'
        )

    def test_update_replaces_containers_by_values(self):
        self.assertEqual(self.merge("--update", "a={x={y=1}},b=[1,2]", "a=5,b"), "a=5,b")

    def test_update_names_the_member_that_the_target_lacks(self):
        self.assertEqual(
            self.refuse("--update", "a=1,s={b=1}", "a=2,s={b=2,x=3}"),
            'qvl: s.cl: "s.x" can\'t update t.cl, which has no such member\n',
        )

    def test_insert_appends_what_is_missing(self):
        self.assertEqual(
            self.merge("--insert", "a=1,s={b=1}", "a=2,s={x=[1,{y}]},z={q}"), "a=2,s={b=1,x=[1,{y}]},z={q}"
        )

    def test_insert_sort_sorts_by_the_numbers_in_names(self):
        self.assertEqual(
            self.merge("--insert-sort", "m={p10=1,p2=2}", "m={p3=3,p1=4}"), "m={p1=4,p2=2,p3=3,p10=1}"
        )

    def test_select_fills_what_the_target_names(self):
        self.assertEqual(
            self.merge("--select", "a,s={b},nowhere", "z=1,a=5,s={b=true,c=3}"), "a=5,s={b=true},nowhere"
        )

    def test_values_read_back(self):
        self.assertEqual(
            self.merge("--update", "s,t", 's="a\\\\",t="\\"\\\\\\""'), 's="a\\\\",t="\\"\\\\\\""'
        )

    def test_elements_of_arrays_have_no_names_to_agree_in(self):
        self.assertEqual(self.merge("--insert", "a=[1,2]", "a=[2,{x}]"), "a=[1,2,2,{x}]")
        self.assertEqual(self.merge("--select", "a=[]", "a=[2]"), "a=[]")
        self.assertIn('"a.0" can\'t update', self.refuse("--update", "a=[1]", "a=[1]"))

    def test_json(self):
        self.assertEqual(json.loads(self.merge("--insert", "a=1", 's="\\\\"', "--json")), {"a": 1, "s": "\\"})

    def test_xml(self):
        self.assertIn('<b type="number">2</b>', self.merge("--insert", "a=1", "b=2", "--xml", "--pretty"))

    def test_pretty(self):
        self.assertEqual(self.merge("--insert", "a=1", "b={c}", "--pretty"), "a = 1,\nb = {\n  c\n}")

    def test_an_array_into_a_struct_is_refused(self):
        self.assertEqual(
            self.refuse("--insert", "s={a={x=1}}", "s={a=[5]}"),
            'qvl: s.cl: "s.a" is an array, but a struct in t.cl\n',
        )

    def test_the_files_stay_unless_output_names_one(self):
        self.merge("--update", "a=1", "a=2")
        self.assertEqual((self.read("t.cl"), self.read("s.cl")), (b"a=1", b"a=2"))
        self.output("merge", "--update", "-o", "t.cl", "t.cl", "s.cl")
        self.assertEqual(self.read("t.cl"), b"a=2\n")

    def test_either_document_may_be_standard_input(self):
        self.write("t.cl", "a=1")
        self.assertEqual(self.output("merge", "--update", "t.cl", "-", stdin="a=2"), b"a=2\n")
        self.assertEqual(self.output("merge", "--update", "-", "t.cl", stdin="a=2"), b"a=1\n")
        self.assertIn("standard input", self.complaint("merge", "--update", "-", "-", stdin="a=2", status=2))

    def test_exactly_one_way_is_needed(self):
        self.write("t.cl", "a=1")
        wanted = "one of --update, --insert, --insert-sort and --select is needed"
        self.assertIn(wanted, self.complaint("merge", "t.cl", "t.cl", status=2))
        self.assertIn(wanted, self.complaint("merge", "--update", "--select", "t.cl", "t.cl", status=2))

    def test_json_and_xml_exclude_each_other(self):
        self.write("t.cl", "a=1")
        self.assertIn(
            "--json", self.complaint("merge", "--update", "--json", "--xml", "t.cl", "t.cl", status=2)
        )

    def test_a_bad_source_is_reported(self):
        self.assertTrue(self.refuse("--update", "a=1", "b={").startswith('s.cl:1:3: syntax error near "{"'))


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
        with open(QVL, "rb") as file:
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
        self.assertEqual(message, "qvl: out: File too large\n")
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


class Usage(ToolTest):
    COMMANDS = ("json", "xml", "corelink", "paths", "get", "merge", "check")

    def test_help_names_every_command(self):
        text = self.output("--help").decode()
        for command in self.COMMANDS:
            self.assertRegex(text, rf"(?m)^  {command}\b")
        self.assertIn("Examples:", text)

    def test_every_command_has_help_with_examples(self):
        for command in self.COMMANDS:
            with self.subTest(command):
                text = self.output(command, "--help").decode()
                self.assertIn(f"qvl {command}", text)
                self.assertIn("Examples:", text)

    def test_version(self):
        self.assertRegex(self.output("--version").decode(), r"^qvl \d+\.\d+\.\d+\n$")

    def test_wrong_usage_has_status_2_and_points_to_the_help(self):
        for arguments, pointer in [
            ([], "qvl --help"),
            (["nonsense"], "qvl --help"),
            (["--nonsense"], "qvl --help"),
            (["json", "--nonsense"], "qvl json --help"),
            (["json", "a", "b"], "qvl json --help"),
            (["check"], "qvl check --help"),
            (["get"], "qvl get --help"),
            (["merge", "--update", "a"], "qvl merge --help"),
            (["json", "-o"], "qvl json --help"),
        ]:
            with self.subTest(arguments):
                message = self.complaint(*arguments, status=2)
                self.assertTrue(message.startswith("qvl: "), message)
                self.assertIn(f"'{pointer}'", message)

    def test_raw_and_pretty_exclude_each_other_but_for_xml(self):
        for command in ("json", "corelink", "paths"):
            self.assertIn("--pretty", self.complaint(command, "--raw", "--pretty", stdin="a=1", status=2))
        self.assertIn(b"\t<a", self.output("xml", "--raw", "--pretty", stdin="a=1"))

    def test_file_that_is_named_like_a_command(self):
        self.write("get", "a=1")
        self.assertEqual(self.output("json", "get"), b'{"a":1}\n')
        self.assertEqual(self.output("get", "get", "a"), b"1\n")

    def test_file_may_follow_two_dashes(self):
        self.write("-f.cl", "a=1")
        self.assertEqual(self.output("json", "--", "-f.cl"), b'{"a":1}\n')

    def test_without_a_file_standard_input_is_read(self):
        for command in ("json", "xml", "corelink", "paths"):
            with self.subTest(command):
                self.assertEqual(self.output(command, stdin="a=1"), self.output(command, "-", stdin="a=1"))


class Completion(ToolTest):
    """The completion function, called by bash as readline calls it."""

    def complete(self, line):
        self.write("f.cl", "unit={name=1,note=2},ports=[{x=1},{x=2}]")
        words = line.split(" ")
        script = (
            f'source "{SOURCE}/tools/qvl.bash"\nCOMP_WORDS=({" ".join(map(repr, words))})\n'
            f'COMP_CWORD={len(words) - 1}\n_qvl\nprintf "%s\\n" "${{COMPREPLY[@]}}"\n'
        )
        environment = {**os.environ, "PATH": os.path.dirname(QVL) + os.pathsep + os.environ["PATH"]}
        done = subprocess.run(
            ["bash", "--norc", "-c", script],
            capture_output=True,
            cwd=self.directory,
            env=environment,
            timeout=60,
        )
        self.assertEqual((done.stderr, done.returncode), (b"", 0))
        return done.stdout.decode().split()

    def test_commands(self):
        self.assertEqual(self.complete("qvl "), [*Usage.COMMANDS, "--help", "--version"])
        self.assertEqual(self.complete("qvl m"), ["merge"])

    def test_options_are_those_of_the_help(self):
        for command in Usage.COMMANDS:
            with self.subTest(command):
                options = re.findall(r"(?m)^  (?:-\w,)?(--[a-z-]+)", self.output(command, "--help").decode())
                self.assertEqual(sorted(self.complete(f"qvl {command} -")), sorted(options))

    def test_files(self):
        self.assertEqual(self.complete("qvl json f"), ["f.cl"])
        self.assertEqual(self.complete("qvl json -o f"), ["f.cl"])

    def test_paths_of_the_document(self):
        self.assertEqual(self.complete("qvl get f.cl u"), ["unit."])
        self.assertEqual(self.complete("qvl get f.cl unit.n"), ["unit.name", "unit.note"])
        self.assertEqual(self.complete("qvl get f.cl ports."), ["ports.0.", "ports.1."])

    def test_is_registered(self):
        done = subprocess.run(
            ["bash", "--norc", "-c", f'source "{SOURCE}/tools/qvl.bash"; complete -p qvl'],
            capture_output=True,
            timeout=60,
        )
        self.assertEqual(done.stdout, b"complete -F _qvl qvl\n")


class ManualPage(ToolTest):
    PAGE = os.path.join(SOURCE, "tools", "qvl.1")

    def test_is_formatted_without_warnings(self):
        self.assertIsNotNone(shutil.which("man"), "man-db is missing: scripts/setup test")
        done = subprocess.run(
            ["man", "--warnings", "--local-file", self.PAGE],
            capture_output=True,
            timeout=60,
            env={**os.environ, "MANWIDTH": "80", "LC_ALL": "C.UTF-8", "MANROFFSEQ": ""},
        )
        self.assertEqual((done.stderr, done.returncode), (b"", 0))
        self.assertIn(b"EXIT STATUS", done.stdout)

    def test_names_every_command_and_option(self):
        with open(self.PAGE) as file:
            page = file.read().replace("\\-", "-")
        for command in Usage.COMMANDS:
            self.assertIn(command, page)
            for option in re.findall(r"--[a-z-]+", self.output(command, "--help").decode()):
                self.assertIn(option, page)


class Installed(ToolTest):
    def test_runs_from_any_place_with_its_page_and_completion(self):
        subprocess.run(
            [os.environ["CMAKE"], "--install", os.environ["BUILD"], "--prefix", self.path("first")],
            check=True,
            capture_output=True,
            timeout=120,
        )
        os.rename(self.path("first"), self.path("second"))
        done = subprocess.run(
            [self.path("second/bin/qvl"), "json", "-"], input=b"a=1", capture_output=True, timeout=60
        )
        self.assertEqual((done.stdout, done.stderr, done.returncode), (b'{"a":1}\n', b"", 0))
        for name in ("share/man/man1/qvl.1", "share/bash-completion/completions/qvl"):
            self.assertTrue(os.path.exists(self.path("second/" + name)), name)


class ExampleConfiguration(ToolTest):
    FILES = ("appliance.cl", "update.cl", "insert.cl", "maps.cl", "query.cl")

    @staticmethod
    def example(name):
        return os.path.join(CONFIG, name)

    def merged(self, way, target, source):
        return json.loads(self.output("merge", way, "--json", self.example(target), self.example(source)))

    def test_every_file_parses(self):
        self.assertEqual(self.output("check", *map(self.example, self.FILES)), b"")

    def test_is_a_full_configuration(self):
        with open(self.example("appliance.cl")) as file:
            text = file.read()
        self.assertGreaterEqual(len(text.splitlines()), 300)
        for what, pattern in [
            ("dotted members", r"(?m)^\w+\.\w+(\.\w+)* ="),
            ("hexadecimal numbers", r"= 0x[0-9A-F]+"),
            ("nested structs", r"= \{[^}\[]*= \{"),
            ("arrays of structs", r"= \[\s*\{"),
            ("arrays of arrays", r"= \[\["),
            ("escaped quotes", r'\\"'),
            ("escaped backslashes", r"\\\\"),
            ("strings over lines", r'= "[^"]*[^",{}\[\]\n]\n[^"]*"'),
            ("nulls", r"(?m)^\s+\w+,$"),
            ("empty structs", r"\{\}"),
            ("empty arrays", r"\[\]"),
            ("booleans", r"= false"),
        ]:
            with self.subTest(what):
                self.assertRegex(text, pattern)

    def test_json_has_its_values(self):
        for layout in ([], ["--pretty"]):
            tree = json.loads(self.output("json", *layout, self.example("appliance.cl")))
            self.assertEqual(tree["unit"]["location"], 'Rack 12, slot "upper left"')
            self.assertEqual(tree["firmware"]["image"], "C:\\firmware\\fcb42.img")
            self.assertEqual(tree["ports"]["fc1"]["wwpn"], 0x210000005EA0F701)
            self.assertEqual(tree["ports"]["fc1"]["counters"]["frames_in"], 2**64 - 1)
            self.assertIsNone(tree["unit"]["standby"])
            self.assertEqual([item["port"] for item in tree["transceivers"]], [1, 2, 3, 4])
            self.assertEqual(tree["maps"]["m11"]["cache"], {"read_ahead": 128, "write_back": True})
            self.assertEqual(tree["users"][1]["full_name"], "J\u00fcrgen M\u00fcller")
            self.assertEqual(tree["log"]["pattern"], "\\d+-\\w+: *")

    def test_xml_is_well_formed(self):
        self.assertIsNotNone(shutil.which("xmllint"), "libxml2-utils is missing: scripts/setup test")
        for layout in ([], ["--pretty"], ["--root", "status"]):
            text = self.output("xml", *layout, self.example("appliance.cl"))
            subprocess.run(["xmllint", "--noout", "-"], input=text, check=True, timeout=60)
            root = xml.etree.ElementTree.fromstring(text)
            self.assertEqual(root.find("network/dns").get("type"), "array")
            self.assertEqual(root.find("unit/contact/note").text.splitlines()[0], "Call before a restart:")

    def test_corelink_text_reads_back_as_the_same_document(self):
        wanted = self.output("json", self.example("appliance.cl"))
        for layout in ([], ["--pretty"]):
            text = self.output("corelink", *layout, self.example("appliance.cl"))
            self.assertEqual(self.output("json", "-", stdin=text), wanted)

    def test_every_path_can_be_got(self):
        lines = self.output("paths", "--pretty", self.example("appliance.cl")).decode()
        paths = re.findall(r"(?m)^([a-z]\w*(?:\.\w+)+)(?:=|$)", lines)
        self.assertGreater(len(paths), 400)
        self.output("get", "--type", self.example("appliance.cl"), *paths)

    def test_update(self):
        tree = self.merged("--update", "appliance.cl", "update.cl")
        self.assertEqual(tree["network"]["management"]["address"], "192.0.2.27")
        self.assertIs(tree["maps"]["m3"]["online"], True)
        self.assertEqual(tree["unit"]["name"], "bridge-07")

    def test_insert(self):
        tree = self.merged("--insert", "appliance.cl", "insert.cl")
        self.assertEqual(tree["roles"]["auditor"]["read"], True)
        self.assertEqual(list(tree["network"]["management"])[-1], "address6")
        self.complaint("merge", "--update", self.example("appliance.cl"), self.example("insert.cl"))

    def test_insert_sort(self):
        tree = self.merged("--insert-sort", "appliance.cl", "maps.cl")
        self.assertEqual(list(tree["maps"]), ["m1", "m2", "m3", "m4", "m5", "m10", "m11", "m12"])

    def test_select(self):
        self.assertEqual(
            self.merged("--select", "query.cl", "appliance.cl"),
            {
                "unit": {"name": "bridge-07", "location": 'Rack 12, slot "upper left"'},
                "ports": {
                    "fc1": {"alias": "host side A", "speed": {"negotiated": 4}},
                    "fc3": {"alias": "remote site, 10 km", "counters": {"crc_errors": 407}},
                },
                "saved": {"by": "admin"},
                "not_there": None,
            },
        )

    def test_broken_file_is_reported_where_the_brace_opens(self):
        self.assertEqual(
            self.complaint("check", self.example("broken.cl")).splitlines()[1:], ["ports = {", " " * 8 + "^"]
        )


if __name__ == "__main__":
    unittest.main()
