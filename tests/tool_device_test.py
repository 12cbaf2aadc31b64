"""What qvl sfp, scsi, crc32c and ssha print, and how they refuse."""

import errno
import json
import os
import pty
import re
import select
import signal
import subprocess
import unittest

from tool_process import QVL, SOURCE, ToolTest

SFP = os.path.join(SOURCE, "examples", "sfp")


def example(name):
    return os.path.join(SFP, name + ".hex")


def example_bytes(name):
    with open(example(name)) as file:
        return bytes.fromhex("".join(line.split("#")[0] for line in file))


def dump(block, form):
    lines = [block[at : at + 16] for at in range(0, len(block), 16)]
    if form == "ethtool":
        text = "Offset\t\tValues\n------\t\t------\n"
        return text + "".join(f"0x{16 * i:04x}:\t\t{line.hex(' ')} \n" for i, line in enumerate(lines))
    shown = ["".join(chr(c) if 32 < c < 127 else "." for c in line) for line in lines]
    if form == "i2cdump":
        text = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f    0123456789abcdef\n"
        return text + "".join(f"{16 * i:02x}: {line.hex(' ')}    {shown[i]}\n" for i, line in enumerate(lines))
    if form == "xxd":
        return "".join(f"{16 * i:08x}: {line.hex(' ', 2)}  {shown[i]}\n" for i, line in enumerate(lines))
    text = "".join(
        f"{16 * i:08x}  {line[:8].hex(' ')}  {line[8:].hex(' ')}  |{shown[i]}|\n" for i, line in enumerate(lines)
    )
    return text + f"{len(block):08x}\n"


class SfpBlocks(ToolTest):
    def report(self, name):
        records = json.loads(self.output("sfp", "--json", example(name)))["sfp_data"]
        return {record["Id"]: record["Value"] for record in records}

    def test_examples_have_right_check_codes(self):
        for name in ("short-wave-8g", "long-wave", "copper"):
            block = example_bytes(name)
            self.assertEqual(len(block), 96)
            self.assertEqual(block[63], sum(block[:63]) % 256)
            self.assertEqual(block[95], sum(block[64:95]) % 256)

    def test_short_wave(self):
        report = self.report("short-wave-8g")
        self.assertEqual(report["sfp_vendor_name"], "EXAMPLE OPTICS  ")
        self.assertEqual(report["sfp_fc_tx"], "Shortwave laser w/o OFC (SN)")
        self.assertEqual(report["sfp_fc_link_len"], "short distance (S)")
        self.assertEqual(report["sfp_fc_trans"], "Multi-mode, 50m & 62.5m (M5 & M6)")
        self.assertEqual(report["sfp_fc_speed"], "Reserved")
        self.assertEqual(report["sfp_option"], "TX_DISABLE, TX_FAULT, Rx_LOS")

    def test_long_wave(self):
        report = self.report("long-wave")
        self.assertEqual(report["sfp_fc_tx"], "Longwave laser (LC)")
        self.assertEqual(report["sfp_fc_link_len"], "long distance (L)")
        self.assertEqual(report["sfp_fc_gecc"], "1000BASE-LX")
        self.assertEqual(report["sfp_fc_speed"], "1/2/4 Gbit/Sec")

    def test_copper(self):
        report = self.report("copper")
        self.assertEqual(report["sfp_connector"], "Copper Pigtail")
        self.assertEqual(report["sfp_fc_tx"], "Electrical inter-enclosure (EL)")
        self.assertEqual(report["sfp_fc_trans"], "Twin Axial Pair (TW)")

    def test_the_report_is_a_corelink_document(self):
        report = self.output("sfp", example("long-wave"))
        self.assertTrue(report.startswith(b'sfp_data=[{Id="sfp_vendor_name",Name="Vendor name",Value="EXAMPLE'))
        self.assertEqual(self.output("get", "-", "sfp_data.4.Value", stdin=report), b"SFP transceiver\n")

    def test_table(self):
        table = self.output("sfp", "--table", example("long-wave")).decode().splitlines()
        self.assertEqual(len(table), 15)
        self.assertIn("Vendor name         EXAMPLE OPTICS", table)
        self.assertIn("Option              RATE_SELECT, TX_DISABLE, TX_FAULT, Rx_LOS", table)

    def test_a_table_shows_no_control_characters(self):
        block = bytearray(example_bytes("copper"))
        block[20:24] = b"\x1b[2J"
        self.assertIn(b"Vendor name         \\x1B[2JPLE CABLES\n", self.output("sfp", "-t", "-", stdin=block))

    def test_an_empty_cage(self):
        self.assertEqual(
            self.output("sfp", "--table", example("empty-cage")), b"No transceiver: every byte is FFh\n"
        )
        self.write("zeros", bytes(96))
        self.assertEqual(self.output("sfp", "-t", "zeros"), b"No transceiver: every byte is 00h\n")
        self.assertEqual(self.report("empty-cage")["sfp_vendor_rev"], "\ufffd" * 4)

    def test_every_kind_of_dump_gives_the_same_report(self):
        block = example_bytes("copper")
        expected = self.output("sfp", example("copper"))
        self.assertEqual(self.output("sfp", "-", stdin=block), expected)
        self.assertEqual(self.output("sfp", "-", stdin=block.hex()), expected)
        self.assertEqual(self.output("sfp", "-", stdin="0x" + block.hex(" ").replace(" ", ", 0x")), expected)
        for form in ("ethtool", "i2cdump", "xxd", "hexdump"):
            with self.subTest(form):
                self.assertEqual(self.output("sfp", "-", stdin=dump(block, form)), expected)

    def test_hex_text_without_offsets_loses_no_byte(self):
        block = example_bytes("copper")
        zeros = bytes(4) + block[4:]
        for content in (block, zeros):
            self.write("block", content)
            expected = self.output("sfp", "block")
            words = [content[at : at + 4].hex() for at in range(0, len(content), 4)]
            for name, text in [
                ("colons", content.hex(":")),
                ("a word a line", "\n".join(words)),
                ("two words a line", "".join(f"{a}  {b}\n" for a, b in zip(words[::2], words[1::2]))),
                ("CR LF", "\r\n".join(words)),
            ]:
                with self.subTest(name):
                    self.assertEqual(self.output("sfp", "-", stdin=text), expected)

    def test_a_dump_may_end_its_lines_with_cr_lf(self):
        block = example_bytes("copper")
        expected = self.output("sfp", example("copper"))
        for form in ("ethtool", "i2cdump", "xxd", "hexdump"):
            with self.subTest(form):
                text = dump(block, form).replace("\n", "\r\n")
                self.assertEqual(self.output("sfp", "-", stdin=text), expected)
                text = dump(block[:80], form).replace("\n", "\r\n")
                self.assertIn("<stdin>: 80 bytes;", self.complaint("sfp", "-", stdin=text))

    def test_quotes_of_a_vendor_do_not_break_the_report(self):
        block = bytearray(example_bytes("copper"))
        block[20:24] = b'a"\\\xff'
        self.write("odd", bytes(block))
        report = self.output("sfp", "odd")
        self.assertEqual(self.output("get", "-", "sfp_data.0.Value", stdin=report)[:4], b'a"\\\xff')
        self.assertEqual(
            json.loads(self.output("sfp", "--json", "odd"))["sfp_data"][0]["Value"][:4], 'a"\\\ufffd'
        )

    def test_output_option(self):
        self.output("sfp", "--json", "-o", "out.json", example("copper"))
        self.assertIn("sfp_data", json.loads(self.read("out.json")))

    def test_a_short_block_is_refused(self):
        block = example_bytes("copper")
        for size in (0, 1, 83):
            self.write("short", block[:size])
            self.assertEqual(
                self.complaint("sfp", "short"), f"qvl: short: {size} bytes; an identification block has at least 84\n"
            )
        self.write("enough", block[:84])
        self.output("sfp", "enough")

    def test_bad_hex_is_shown(self):
        for text, complaint in [
            ("03 04 0g\n", 'f.hex:1:7: an odd number of digits: "0"'),
            ("03 04\n03 x4\n", 'f.hex:2:4: "x" is no hex digit'),
            ("00: 03 04 XX\n", "f.hex:1:11: a byte that could not be read"),
            ("00: 03 04\n10: 05\n", "f.hex:2:1: offset 16 where byte 2 is expected"),
        ]:
            with self.subTest(text):
                self.write("f.hex", text)
                self.assertEqual(self.complaint("sfp", "f.hex").splitlines()[0], complaint)

    def test_a_missing_file(self):
        self.assertEqual(self.complaint("sfp", "none"), "qvl: none: " + os.strerror(errno.ENOENT) + "\n")


class ScsiCodes(ToolTest):
    def test_sense(self):
        self.assertEqual(
            self.output("scsi", "sense", "6", "29", "00").decode(),
            "Sense key           6h  UNIT ATTENTION (error)\n"
            "Additional code     29h/00h  POWER ON, RESET, OR BUS DEVICE RESET OCCURRED\n",
        )

    def test_codes_of_a_range_of_qualifiers(self):
        for codes, text in [
            (("4", "40", "85"), "DIAGNOSTIC FAILURE ON COMPONENT 85h"),
            (("4", "40", "00"), "RAM FAILURE (SHOULD USE 40 NN)"),
            (("4", "40", "01"), "Unknown ASC/ASCQ"),
            (("b", "4d", "07"), "TAGGED OVERLAPPED COMMANDS (TASK TAG 07h)"),
            (("3", "70", "02"), "DECOMPRESSION EXCEPTION SHORT ALGORITHM ID OF 02h"),
        ]:
            self.assertIn(text, self.output("scsi", "sense", *codes).decode())

    def test_single_codes(self):
        for arguments, text in [
            (("opcode", "2a"), "WRITE(10) / SEND(10) / SEND MESSAGE(10)"),
            (("opcode", "0x2A"), "WRITE(10) / SEND(10) / SEND MESSAGE(10)"),
            (("opcode", "2Ah"), "WRITE(10) / SEND(10) / SEND MESSAGE(10)"),
            (("status", "2"), "CHECK CONDITION"),
            (("status", "1"), "Reserved"),
            (("standard", "0054"), "SAM-2 T10/1157-D revision 23"),
        ]:
            self.assertEqual(self.output("scsi", *arguments).decode(), text + "\n")

    def test_an_unknown_standard(self):
        self.assertEqual(self.complaint("scsi", "standard", "1"), "qvl: no version descriptor 1 in the list\n")

    def test_codes_out_of_range_are_wrong_usage(self):
        for arguments in [
            ("opcode", "100"), ("opcode", "xy"), ("opcode", ""), ("opcode", "0x"), ("status", "-1"),
            ("standard", "10000"), ("sense", "10", "0", "0"), ("sense", "1", "100", "0"), ("sense", "1", "2"),
            ("opcode",), (),
        ]:
            with self.subTest(arguments):
                self.assertIn("--help' shows", self.complaint("scsi", *arguments, status=2))


class SenseData(ToolTest):
    def decode(self, text):
        lines = self.output("scsi", "decode", "-", stdin=text).decode().splitlines()
        return {line[:20].rstrip(): line[20:] for line in lines}

    def test_fixed_format(self):
        told = self.decode("F0 00 05 00 00 12 34 0a 00 00 00 07 24 00 09 cd 00 02")
        self.assertEqual(told["Format"], "fixed, current error (70h), 18 bytes")
        self.assertEqual(told["Sense key"], "5h  ILLEGAL REQUEST (error)")
        self.assertEqual(told["Additional code"], "24h/00h  INVALID FIELD IN CDB")
        self.assertEqual(told["Information"], "00001234h")
        self.assertEqual(told["Command specific"], "00000007h")
        self.assertEqual(told["Replaceable unit"], "09h")
        self.assertEqual(told["Field in error"], "CDB byte 2, bit 5")

    def test_key_specific_bytes(self):
        fixed = "70 00 0{} 00 00 00 00 0a 00 00 00 00 00 00 00 {}"
        self.assertEqual(self.decode(fixed.format(2, "80 80 00"))["Progress"], "50.0 %")
        self.assertEqual(self.decode(fixed.format(3, "80 00 07"))["Retries"], "7")
        self.assertEqual(self.decode(fixed.format(6, "81 00 00"))["Unit attention"], "its queue overflowed")
        self.assertEqual(self.decode(fixed.format("a", "a0 00 07"))["Segment in error"], "segment, byte 7")
        self.assertNotIn("Retries", self.decode(fixed.format(3, "00 00 07")))

    def test_flags_of_a_tape(self):
        self.assertEqual(
            self.decode("71 00 e0 00 00 00 00 06 00 00 00 00 00 01")["Flags"],
            "filemark, end of medium, incorrect length",
        )

    def test_descriptor_format(self):
        told = self.decode(
            "72 06 29 00 00 00 00 1e"
            "00 0a 80 00 00 00 00 00 00 00 12 34"
            "02 06 00 00 80 00 01 00"
            "03 02 00 05"
            "80 04 01 02 03 04"
        )
        self.assertEqual(told["Format"], "descriptor, current error (72h), 38 bytes")
        self.assertEqual(told["Information"], "0000000000001234h")
        self.assertEqual(told["Unit attention"], "its queue did not overflow")
        self.assertEqual(told["Replaceable unit"], "05h")
        self.assertEqual(told["Vendor descriptor"], "80h  01 02 03 04")

    def test_bytes_behind_the_additional_length_are_not_sense_data(self):
        told = self.decode("70 00 05 00 00 00 00 02 00 00 00 07 24 00")
        self.assertNotIn("Additional code", told)
        self.assertNotIn("Command specific", told)

    def test_data_that_is_cut_off(self):
        told = self.decode("72 06 29 00 00 00 00 0c 00 0a 80")
        self.assertEqual(told["Note"], "cut off: 11 of 20 bytes")

    def test_a_descriptor_that_runs_over_the_end(self):
        for last in ("00 0a 80 00", "03 02 00 05 80"):
            told = self.decode(f"72 06 29 00 00 00 00 0{len(last.split())} " + last)
            self.assertEqual(told["Note"], "the last descriptor ends behind the sense data")

    def test_many_descriptors_fit_one_screen(self):
        told = self.output("scsi", "decode", "-", stdin="72 06 29 00 80 00 00 f9" + 124 * "80 00" + "80").decode()
        self.assertLess(len(told.splitlines()), 24)
        self.assertIn("More descriptors    108\n", told)

    def test_binary(self):
        self.write("sense", bytes.fromhex("70000600000000 0a 00000000 2900"))
        self.assertIn(b"UNIT ATTENTION", self.output("scsi", "decode", "sense"))

    def test_what_is_no_sense_data(self):
        self.assertEqual(
            self.complaint("scsi", "decode", "-", stdin="70 00"), "qvl: <stdin>: 2 bytes; sense data has at least 8\n"
        )
        self.assertIn("response code 7Fh", self.complaint("scsi", "decode", "-", stdin="7f" + 10 * "00"))

    def test_any_bytes_are_explained_or_refused(self):
        step = 10 if os.environ["EMULATOR"] else 1
        for first in (0x70, 0x72, 0xF1, 0x73):
            for length in range(8, 60, step):
                block = bytes([first] + [(first * 7 + length * i * 31) % 256 for i in range(1, length)])
                self.output("scsi", "decode", "-", stdin=block)


class Checksums(ToolTest):
    def test_value_value_as_carried_and_name(self):
        self.write("digits", "123456789")
        self.write("empty", "")
        self.assertEqual(
            self.output("crc32c", "digits", "empty", "-", stdin="123456789").decode(),
            "e3069283  839206e3  digits\n00000000  00000000  empty\ne3069283  839206e3  -\n",
        )

    def test_nothing_is_printed_when_a_file_is_missing(self):
        self.write("digits", "123456789")
        self.assertIn("qvl: none: ", self.complaint("crc32c", "digits", "none"))


class Passwords(ToolTest):
    def on_terminal(self, *arguments, answers):
        """Runs qvl on a terminal, answers each of its prompts, and returns all that was shown and the status."""
        pid, terminal = pty.fork()
        if pid == 0:
            try:
                signal.signal(signal.SIGINT, signal.SIG_DFL)  # what runs in the background inherits it ignored
                os.execv(QVL, [QVL, *arguments])
            finally:
                os._exit(127)
        shown = b""
        answered = 0
        while True:
            if not select.select([terminal], [], [], 60)[0]:
                self.fail(f"no end: {shown}")
            try:
                got = os.read(terminal, 4096)
            except OSError:
                break
            if not got:
                break
            shown += got
            if len(re.findall(rb": ", shown)) > answered and answered < len(answers):
                os.write(terminal, answers[answered])
                answered += 1
        os.close(terminal)
        return shown.decode(), os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])

    def test_a_made_text_belongs_to_its_password_only(self):
        stored = self.output("ssha", "make", stdin="secret\n").decode().strip()
        self.assertRegex(stored, r"^\{SSHA\}[A-Za-z0-9+/]{32}$")
        self.assertEqual(self.output("ssha", "check", stored, stdin="secret\n"), b"")
        self.assertEqual(self.output("ssha", "check", stored, stdin="secret"), b"")
        self.assertEqual(
            self.complaint("ssha", "check", stored, stdin="Secret\n"), "qvl: the password does not match\n"
        )

    def test_salts_differ_from_run_to_run(self):
        made = {self.output("ssha", "make", stdin="secret") for _ in range(4)}
        self.assertGreater(len(made), 1)

    def test_a_text_of_another_kind_is_refused(self):
        self.assertEqual(
            self.complaint("ssha", "check", "{SHA}x", stdin="secret"), "qvl: not a salted password: {SHA}x\n"
        )

    def test_no_password(self):
        self.assertEqual(self.complaint("ssha", "make", stdin=""), "qvl: <stdin>: no password\n")
        self.assertIn("NUL", self.complaint("ssha", "make", stdin=b"a\0b\n"))
        self.assertIn("at most 1023", self.complaint("ssha", "make", stdin="x" * 1024))
        self.output("ssha", "make", stdin="x" * 1023)

    def test_a_password_is_no_argument(self):
        self.complaint("ssha", "make", "secret", status=2)

    def test_the_terminal_asks_twice_and_shows_nothing_of_it(self):
        shown, status = self.on_terminal("ssha", "make", answers=[b"hidden1\n", b"hidden1\n"])
        self.assertEqual(status, 0)
        self.assertIn("Password: ", shown)
        self.assertNotIn("hidden1", shown)
        stored = re.search(r"\{SSHA\}\S{32}", shown).group()
        self.output("ssha", "check", stored, stdin="hidden1")
        shown, status = self.on_terminal("ssha", "check", stored, answers=[b"hidden1\n"])
        self.assertEqual(status, 0)

    def test_two_different_passwords_on_the_terminal(self):
        shown, status = self.on_terminal("ssha", "make", answers=[b"one\n", b"two\n"])
        self.assertEqual(status, 1)
        self.assertIn("the passwords differ", shown)

    def test_an_interrupt_ends_it(self):
        shown, status = self.on_terminal("ssha", "make", answers=[b"\x03"])
        self.assertEqual(status, -2)


if __name__ == "__main__":
    unittest.main()
