"""What qvl json, xml, corelink and paths write."""

import json
import unittest

from tool_process import ToolTest

HARD_STRINGS = {
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


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


class Json(ToolTest):
    def test_any_string_is_taken_by_a_json_parser(self):
        for layout in ([], ["--pretty"]):
            for name, value in HARD_STRINGS.items():
                with self.subTest(name, layout=layout):
                    text = f"s={quoted(value)}"
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
        for value in HARD_STRINGS.values():
            once = self.output("corelink", stdin="s=" + quoted(value))
            self.assertEqual(once.decode(), "s=" + quoted(value) + "\n")
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


if __name__ == "__main__":
    unittest.main()
