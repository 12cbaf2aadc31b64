"""The example configuration, in every form that qvl writes."""

import json
import os
import re
import shutil
import subprocess
import unittest
import xml.etree.ElementTree

from tool_process import SOURCE, ToolTest

CONFIG = os.path.join(SOURCE, "examples", "config")


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
