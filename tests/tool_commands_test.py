"""What qvl get and merge do, and how its usage is told."""

import json
import os
import re
import shutil
import subprocess
import unittest

from tool_process import QVL, SOURCE, ToolTest

COMMANDS = (
    *("json", "xml", "corelink", "paths", "get", "walk", "merge", "check", "sfp", "scsi", "crc32c"),
    *("xml-events", "ssha", "send", "listen", "ask"),
)


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


class Walk(ToolTest):
    TEXT = 'a=1,s={mx="q\\"z",mt={mb=true,mn},me=[],mp=[5,{mc=6}],mz=7},n,v={},w={mk={ml=8}}'

    def setUp(self):
        super().setUp()
        self.write("f.cl", self.TEXT)

    def test_leaves_in_the_order_of_the_document(self):
        self.assertEqual(
            self.output("walk", "f.cl"),
            b's.mx="q\\"z"\ns.mt.mb=true\ns.mt.mn\ns.mp.0=5\ns.mp.1.mc=6\ns.mz=7\nw.mk.ml=8\n',
        )

    def test_begins_at_a_path(self):
        self.assertEqual(self.output("walk", "f.cl", "s.mp"), b"s.mp.0=5\ns.mp.1.mc=6\ns.mz=7\n")
        self.assertEqual(self.output("walk", "f.cl", "s.mt.mn").splitlines()[0], b"s.mt.mn")
        self.assertEqual(self.output("walk", "f.cl", "a"), b"a=1\n")
        self.assertEqual(self.output("walk", "f.cl", "v"), b"")

    def test_passes_over_names_that_differ_in_the_first_character_only(self):
        self.assertEqual(self.output("walk", "-", stdin="s={A={x=1},B={x=2},Ca={x=3}}"), b"s.A.x=1\ns.Ca.x=3\n")

    def test_never_goes_back_where_names_occur_again_further_on(self):
        text = "s={Aa={x=1},c={},Ba={y=2},d={z=3}}"
        self.assertEqual(self.output("walk", "-", stdin=text), b"s.Aa.x=1\ns.Ba.y=2\ns.d.z=3\n")

    def test_passes_a_hidden_container_that_has_no_leaf(self):
        self.assertEqual(self.output("walk", "-", stdin="s={ma=1,ma={},mb=2}"), b"s.ma=1\ns.mb=2\n")

    def test_a_leaf_in_a_hidden_container_is_refused(self):
        self.assertIn('can\'t pass "s.a.x"', self.complaint("walk", "-", stdin="s={a=1,a={x=2},b=3}"))
        self.assertIn('can\'t pass "s.x"', self.complaint("walk", "-", stdin="s={y=1},s={x=2}"))

    def test_wide_containers(self):
        count = 20000
        text = "a=[" + ",".join(["{x=1}"] * count) + "],s={" + ",".join(f"m{i}={{x=1}}" for i in range(count)) + "}"
        lines = [f"a.{i}.x=1" for i in range(count)] + [f"s.m{i}.x=1" for i in range(count)]
        self.assertEqual(self.output("walk", "-", stdin=text).decode().splitlines(), lines)

    def test_a_missing_path_is_named(self):
        self.assertEqual(self.complaint("walk", "f.cl", "s.q"), "qvl: f.cl: no such path: s.q\n")

    def test_leaves_of_one_path_are_refused(self):
        self.assertIn('can\'t pass "s.a"', self.complaint("walk", "-", stdin="s={a=1,a=2,b=3}"))

    def test_writes_a_file(self):
        self.assertEqual(self.output("walk", "-o", "out", "f.cl", "w"), b"")
        self.assertEqual(self.read("out"), b"w.mk.ml=8\n")

    def test_needs_a_file(self):
        self.assertIn("FILE", self.complaint("walk", status=2))


class Usage(ToolTest):
    def test_help_names_every_command(self):
        text = self.output("--help").decode()
        for command in COMMANDS:
            self.assertRegex(text, rf"(?m)^  {command}\b")
        self.assertIn("Examples:", text)

    def test_every_command_has_help_with_examples(self):
        for command in COMMANDS:
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
        self.assertEqual(self.complete("qvl "), [*COMMANDS, "--help", "--version"])
        self.assertEqual(self.complete("qvl m"), ["merge"])

    def test_options_are_those_of_the_help(self):
        for command in COMMANDS:
            with self.subTest(command):
                options = re.findall(r"(?m)^  (?:-\w,)?(--[a-z0-9-]+)", self.output(command, "--help").decode())
                self.assertEqual(sorted(self.complete(f"qvl {command} -")), sorted(options))

    def test_files(self):
        self.assertEqual(self.complete("qvl json f"), ["f.cl"])
        self.assertEqual(self.complete("qvl json -o f"), ["f.cl"])

    def test_types_of_messages(self):
        self.assertEqual(self.complete("qvl send --type "), ["query", "update", "insert"])
        self.assertEqual(self.complete("qvl send 9000 f"), ["f.cl"])
        self.assertEqual(self.complete("qvl ask 9000 f"), [])

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
        for command in COMMANDS:
            self.assertIn(command, page)
            for option in re.findall(r"--[a-z0-9-]+", self.output(command, "--help").decode()):
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
            [*os.environ["EMULATOR"].split(), self.path("second/bin/qvl"), "json", "-"],
            input=b"a=1",
            capture_output=True,
            timeout=60,
        )
        self.assertEqual((done.stdout, done.stderr, done.returncode), (b'{"a":1}\n', b"", 0))
        for name in ("share/man/man1/qvl.1", "share/bash-completion/completions/qvl"):
            self.assertTrue(os.path.exists(self.path("second/" + name)), name)


if __name__ == "__main__":
    unittest.main()
