"""Messages between processes: the example daemon (environment variable UNITD), qvl send, listen and ask."""

import json
import os
import re
import selectors
import signal
import socket
import struct
import subprocess
import time
import unittest

from tool_process import QVL, SOURCE, ToolTest

UNITD = os.environ["UNITD"]
HEADER = struct.Struct(os.environ["BYTE_ORDER"] + "II32sIHH")
QUERY, UPDATE, INSERT, FAULT, AS_JSON, ANSWER = 1, 2, 3, 0x20, 0x40, 0x80
WHOLE = None


def fragment(kind, body, number=0, last=True, param1=0, name=b"test", length=WHOLE):
    """One datagram; `length` is what param2 says, the body's own unless it is given."""
    told = len(body) if length is WHOLE else length
    return HEADER.pack(kind << 24 | last, param1, name, told, number, len(body)) + body


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Process:
    """A program that says on which port it serves, by the last word of the first line of a stream."""

    def __init__(self, test, arguments, stream="stdout", environment=None):
        self.running = subprocess.Popen(
            arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=test.directory, env=environment
        )
        test.addCleanup(self.end)
        with selectors.DefaultSelector() as selector:
            selector.register(getattr(self.running, stream), selectors.EVENT_READ)
            if not selector.select(60):
                raise TimeoutError(arguments)
        self.first_line = getattr(self.running, stream).readline()
        words = self.first_line.split()
        self.port = int(words[-1]) if words and words[-1].isdigit() else None

    def finish(self):
        out, err = self.running.communicate(timeout=60)
        return out.decode(), err.decode(), self.running.returncode

    def stop(self, number=signal.SIGTERM):
        self.running.send_signal(number)
        return self.finish()

    def end(self):
        if self.running.poll() is None:
            self.running.kill()
        self.running.communicate()


class MessageTest(ToolTest):
    CONFIG = 'unit={name="left",note="a\\\\b \\"c\\"\n",standby},n=7,ports={fc1={up=true}},dns=["x"]'

    def environment(self, reads_bad_text=False):
        """The daemon runs for long, so only what the reader leaves of a bad text may stay allocated."""
        self.write("leaks.supp", "leak:clparse_start\n" if reads_bad_text else "")
        return {**os.environ, "LSAN_OPTIONS": f"suppressions={self.path('leaks.supp')}:print_suppressions=0"}

    def daemon(self, *options, reads_bad_text=False):
        """A daemon; that it ends well, without a leak where that is looked for, is part of every test."""
        self.write("unit.cl", self.CONFIG)
        daemon = Process(
            self, [UNITD, "-c", "unit.cl", *options], environment=self.environment(reads_bad_text)
        )
        self.addCleanup(self.check_end, daemon)
        return daemon

    def check_end(self, daemon):
        if daemon.running.poll() is None:
            out, err, status = daemon.stop()
            self.assertEqual((out, status), ("", 0), err)

    def listener(self, *options):
        return Process(self, [QVL, "listen", *options, "0"], "stderr")

    def ask(self, daemon, text, *options):
        return self.output("ask", *options, str(daemon.port), text).decode().rstrip("\n")

    def refusal(self, daemon, text, *options):
        return self.complaint("ask", *options, str(daemon.port), text)

    def socket(self, port=0):
        opened = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(opened.close)
        opened.settimeout(60)
        opened.bind(("127.0.0.1", port))
        return opened

    def exchange(self, daemon, *datagrams):
        """Sends datagrams and returns type, param1, name, param2 and body of the answer."""
        asker = self.socket()
        for datagram in datagrams:
            asker.sendto(datagram, ("127.0.0.1", daemon.port))
        answer, source = asker.recvfrom(65536)
        self.assertEqual(source, ("127.0.0.1", daemon.port))
        word, param1, name, param2, _, length = HEADER.unpack(answer[: HEADER.size])
        body = answer[HEADER.size :]
        self.assertEqual((word & 0xFFFFFF, length), (1, len(body)))
        return word >> 24, param1, name.rstrip(b"\0"), param2, body


class DaemonAnswers(MessageTest):
    def test_a_query_with_the_values(self):
        daemon = self.daemon()
        self.assertEqual(
            self.ask(daemon, "n, ports.fc1.up, unit={standby,name}, nowhere"),
            'n=7,ports={fc1={up=true}},unit={standby,name="left"},nowhere',
        )

    def test_a_query_in_json_that_any_parser_takes(self):
        answer = json.loads(self.ask(self.daemon(), "unit={name,note,standby},n", "--json"))
        self.assertEqual(answer, {"unit": {"name": "left", "note": 'a\\b "c"\n', "standby": None}, "n": 7})

    def test_corelink_that_reads_as_the_same_document(self):
        answer = self.ask(self.daemon(), "unit.note")
        self.assertEqual(json.loads(self.output("json", stdin=answer)), {"unit": {"note": 'a\\b "c"\n'}})

    def test_a_query_for_less_than_the_daemon_has_keeps_containers_apart(self):
        self.assertEqual(self.ask(self.daemon(), "n={x},unit,dns"), "n={x},unit,dns")

    def test_an_update(self):
        daemon = self.daemon()
        self.assertEqual(self.ask(daemon, 'unit.name="right",ports.fc1.up=false', "--update"), "done=true")
        self.assertEqual(
            self.ask(daemon, "unit.name,ports.fc1.up"), 'unit={name="right"},ports={fc1={up=false}}'
        )
        self.assertEqual(self.read("unit.cl").decode(), self.CONFIG)

    def test_a_refused_update_that_changes_nothing(self):
        daemon = self.daemon()
        for text, path in [
            ('n=8,unit.name="right",unit.other=1', "unit.other"),
            ("n=8,unit=5", "unit"),
            ("n={x=1}", "n"),
            ('dns=["y"]', "dns.0"),
        ]:
            with self.subTest(text):
                self.assertIn(
                    f'fault="{path}: no such member, or one of another type"',
                    self.refusal(daemon, text, "--update"),
                )
                self.assertEqual(self.ask(daemon, "n,unit.name"), 'n=7,unit={name="left"}')

    def test_an_insert(self):
        daemon = self.daemon()
        self.assertEqual(self.ask(daemon, 'n=8,unit.other=1,new={a=[1]},dns=["y"]', "--insert"), "done=true")
        self.assertEqual(self.ask(daemon, "n,unit.other"), "n=8,unit={other=1}")

    def test_a_refused_insert_that_changes_nothing(self):
        daemon = self.daemon()
        for text, path in [("n=8,unit=5", "unit"), ("n=8,unit=[1]", "unit.0"), ("n=8,dns={a=1}", "dns.a")]:
            with self.subTest(text):
                self.assertIn(f'fault="{path}: no such', self.refusal(daemon, text, "--insert"))
                self.assertEqual(self.ask(daemon, "n"), "n=7")

    def test_an_update_in_json(self):
        daemon = self.daemon()
        self.assertEqual(self.ask(daemon, "n=9", "--update", "--json"), '{"done":true}')
        self.assertIn('{"fault":"q: no such', self.refusal(daemon, "q=9", "--update", "--json"))

    def test_header_fields(self):
        self.assertEqual(
            self.exchange(self.daemon(), fragment(QUERY, b"n", param1=0xDEADBEEF)),
            (QUERY | ANSWER, 0xDEADBEEF, b"unitd", 3, b"n=7"),
        )

    def test_unknown_types_with_a_fault(self):
        daemon = self.daemon()
        for kind in (0, 4, 9, 0x21, 0x5F):
            with self.subTest(kind):
                answer = self.exchange(daemon, fragment(kind, b"n", param1=5))
                self.assertEqual(answer[:3], (kind | ANSWER | FAULT, 5, b"unitd"))
                self.assertIn(b"unknown type of message", answer[4])

    def test_bad_texts_with_a_fault(self):
        daemon = self.daemon(reads_bad_text=True)
        for text in ("a=", "", "}", "n\N{EURO SIGN}"):
            with self.subTest(text):
                self.assertIn("not a corelink text", self.refusal(daemon, text))
        answer = self.exchange(daemon, fragment(QUERY, b"n\0,m"))
        self.assertIn(b"not a corelink text", answer[4])
        self.assertEqual(self.ask(daemon, "n"), "n=7")

    def test_a_message_that_lost_a_fragment_with_a_fault(self):
        answer = self.exchange(self.daemon(), fragment(UPDATE, b"n=8", length=4099, number=1))
        self.assertEqual(answer[0], UPDATE | ANSWER | FAULT)
        self.assertIn(b"damaged message: a part of it was lost", answer[4])

    def test_a_joined_message_with_a_fault(self):
        daemon = self.daemon()
        answer = self.exchange(
            daemon, fragment(UPDATE, b"n=8", last=False), fragment(UPDATE, b",unit.standby=1", number=0)
        )
        self.assertIn(b"damaged message: it is longer than its sender says", answer[4])
        self.assertEqual(self.ask(daemon, "n"), "n=7")

    def test_a_message_of_several_fragments(self):
        daemon = self.daemon()
        text = "x" * 10000
        self.assertEqual(self.ask(daemon, f'unit.name="{text}"', "--update"), "done=true")
        self.assertEqual(self.ask(daemon, "unit.name"), f'unit={{name="{text}"}}')

    def test_too_long_a_body_with_a_fault(self):
        daemon = self.daemon()
        # What a datagram lacks of the length that it claims counts as zero bytes.
        length = 65535
        claims = [
            HEADER.pack(QUERY << 24 | (number == 16), 0, b"", 17 * length, number, length) for number in range(17)
        ]
        self.assertIn(b"too long", self.exchange(daemon, *claims)[4])

    def test_no_answers(self):
        daemon = self.daemon("-e")
        sender = self.socket()
        sender.sendto(fragment(QUERY | ANSWER, b"n"), ("127.0.0.1", daemon.port))
        sender.sendto(fragment(QUERY, b"n", param1=2), ("127.0.0.1", daemon.port))
        self.assertEqual(HEADER.unpack(sender.recv(65536)[: HEADER.size])[1], 2)
        self.assertIn("sent an answer, which is dropped", daemon.stop()[1])

    def test_whoever_sends_by_the_tool(self):
        daemon = self.daemon()
        self.output("send", str(daemon.port), stdin="n=12")
        self.assertEqual(self.ask(daemon, "n"), "n=12")


class DaemonLife(MessageTest):
    def refused(self, *options):
        done = subprocess.run(
            [UNITD, *options], capture_output=True, cwd=self.directory, env=self.environment(True), timeout=60
        )
        self.assertEqual(done.stdout, b"")
        # The library speaks first where there is no system log.
        said = [line for line in done.stderr.decode().splitlines() if "/dev/log" not in line]
        return "\n".join(said) + "\n", done.returncode

    def test_ends_with_status_0_at_the_ending_signals(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            daemon = self.daemon()
            self.assertEqual(daemon.stop(number)[::2], ("", 0))

    def test_ends_while_others_go_on_sending(self):
        daemon = self.daemon()
        sender = self.socket()
        unended = fragment(QUERY, b" ", last=False)
        for _ in range(100):
            sender.sendto(unended, ("127.0.0.1", daemon.port))
        daemon.running.send_signal(signal.SIGTERM)
        limit = time.monotonic() + 60
        while daemon.running.poll() is None and time.monotonic() < limit:
            sender.sendto(unended, ("127.0.0.1", daemon.port))
        self.assertEqual(daemon.finish()[2], 0)

    def test_outlives_the_waking_signal(self):
        daemon = self.daemon()
        daemon.running.send_signal(signal.SIGUSR1)
        self.assertEqual(self.ask(daemon, "n"), "n=7")
        self.assertEqual(daemon.stop()[2], 0)

    def test_serves_the_port_that_it_is_given(self):
        port = free_port()
        self.assertEqual(self.daemon("-p", str(port)).first_line, f"serving port {port}\n".encode())

    def test_refuses_a_port_in_use(self):
        daemon = self.daemon()
        self.assertEqual(
            self.refused("-c", "unit.cl", "-p", str(daemon.port)),
            (f"unitd: port {daemon.port}: Address already in use\n", 1),
        )
        self.assertEqual(self.ask(daemon, "n"), "n=7")

    def test_lets_nobody_share_its_port(self):
        daemon = self.daemon()
        thief = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(thief.close)
        thief.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        with self.assertRaises(OSError):
            thief.bind(("127.0.0.1", daemon.port))

    def test_says_why_a_configuration_can_not_be_read(self):
        self.write("bad.cl", "a=")
        self.assertEqual(
            self.refused("-c", "none.cl"), ("unitd: none.cl: No such file or directory\n", 1)
        )
        self.assertEqual(
            self.refused("-c", "bad.cl"),
            ("unitd: bad.cl: not a corelink text ('qvl check' says where)\n", 1),
        )

    def test_says_what_is_wrong_with_its_options(self):
        for options in (["-p", "65536"], ["-p", "x"], ["-l", "8"], ["-t", "-1"], ["-z"], ["more"]):
            with self.subTest(options):
                message, status = self.refused(*options)
                self.assertEqual((message.startswith(("unitd: ", UNITD + ": ")), status), (True, 2))

    def test_serves_the_example_configuration(self):
        config = os.path.join(SOURCE, "examples", "config", "appliance.cl")
        daemon = Process(self, [UNITD, "-c", config], environment=self.environment())
        self.assertEqual(self.ask(daemon, "unit.name"), 'unit={name="bridge-07"}')


class DaemonDiagnostics(MessageTest):
    """What watches a daemon: the telnet feed, and the memory debugger's console in a terminal."""

    def setUp(self):
        super().setUp()
        self.feed_port, self.console_port = (self.free_stream_port() for _ in range(2))

    def free_stream_port(self):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as probe:
            probe.bind(("127.0.0.1", 0))
            return probe.getsockname()[1]

    def connect(self, port):
        deadline = time.monotonic() + 30
        while True:
            try:
                client = socket.create_connection(("127.0.0.1", port), timeout=30)
                self.addCleanup(client.close)
                return client
            except ConnectionRefusedError:
                self.assertLess(time.monotonic(), deadline)
                time.sleep(0.01)

    def read_until(self, client, text):
        received = b""
        while text not in received:
            piece = client.recv(65536)
            self.assertTrue(piece, received)
            received += piece
        return received

    def test_the_feed_tells_each_client_what_happens(self):
        daemon = self.daemon("-t", str(self.feed_port), reads_bad_text=True)
        clients = [self.connect(self.feed_port) for _ in range(3)]
        time.sleep(0.2)  # accepted, not only connected
        self.refusal(daemon, "unit=")
        for client in clients:
            lines = self.read_until(client, b"not a corelink text\n").decode().split("\n")
            self.assertRegex(lines[0], r"^\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4} ERROR: clparse_start: parsing failed: 1$")
            self.assertRegex(lines[-2], r" WARNG: refused a message of port \d+: not a corelink text$")

    def test_the_console_fills_a_terminal(self):
        daemon = self.daemon("-m", str(self.console_port), reads_bad_text=True)
        tmux = ["tmux", "-f", "/dev/null", "-S", self.path("tmux")]
        self.connect(self.console_port).close()  # it listens; a client that never reads would hold up the others
        viewer = f"exec bash -c 'cat </dev/tcp/127.0.0.1/{self.console_port}'"
        subprocess.run([*tmux, "new-session", "-d", "-x", "100", "-y", "50", viewer], check=True)
        self.addCleanup(subprocess.run, [*tmux, "kill-server"])
        time.sleep(0.5)
        self.refusal(daemon, "unit=")
        expected = {
            1: r"=== Quaverlight Memory Debugger ===",  # terminals take "down by 0" as down by 1
            2: r"Total Allocations: \d{5,}",
            3: r"Count \d+ +Ave Size:\d+ +:\w+",
            36: r"-{36}DEBUG-{36}",
            45: r"\(null\): syntax error",
            46: r"Parent was head",
            47: r"near: NULL",
        }
        deadline = time.monotonic() + 60
        while True:
            screen = subprocess.run([*tmux, "capture-pane", "-p"], check=True, capture_output=True, text=True)
            rows = screen.stdout.split("\n")
            wrong = [row for row, text in expected.items() if not re.fullmatch(text, rows[row].rstrip())]
            if not wrong:
                break
            self.assertLess(time.monotonic(), deadline, (wrong, screen.stdout))
            time.sleep(0.1)
        names = [row.split(":")[-1] for row in rows[3:33] if row.startswith("Count")]
        self.assertIn("clparse_create_node", names)

    def test_both_end_with_the_daemon_at_once(self):
        daemon = self.daemon("-t", str(self.feed_port), "-m", str(self.console_port))
        clients = [self.connect(self.feed_port), self.connect(self.console_port)]
        time.sleep(0.2)
        start = time.monotonic()
        _, err, status = daemon.stop()
        self.assertLess(time.monotonic() - start, 10)
        self.assertEqual(status, 0, err)
        for client in clients:
            while client.recv(65536):
                pass


class Listen(MessageTest):
    def heard(self, *datagrams, options=("-n", "1"), status=0):
        listener = self.listener(*options)
        sender = self.socket()
        for datagram in datagrams:
            sender.sendto(datagram, ("127.0.0.1", listener.port))
        out, err, code = listener.finish()
        self.assertEqual((err, code), ("", status))
        return out.replace(f"{sender.getsockname()[1]}", "SENDER")

    def test_prints_the_header_and_the_body(self):
        listener = self.listener("-n", "2")
        self.write("body", "a=1\n")
        self.output("send", "--type", "9", "--param1", "7", "--name", "config", str(listener.port), "body")
        self.output("send", "--type", "query", str(listener.port), stdin="b")
        out, err, status = listener.finish()
        self.assertRegex(
            out,
            r'^from port \d+, type 9, param1 7, name "config", param2 4, 4 bytes\na=1\n'
            r'from port \d+, type 1, param1 0, name "qvl", param2 1, 1 bytes\nb\n$',
        )
        self.assertEqual((err, status), ("", 0))

    def test_prints_json_one_object_a_line(self):
        text = self.heard(
            fragment(3, b'a="\xff\0"', param1=1, name=b"n" * 32), fragment(4, b""), options=("--json", "-n", "2")
        )
        first, second = (json.loads(line.replace("SENDER", "0")) for line in text.splitlines())
        self.assertEqual(
            first,
            dict(
                [("from", 0), ("type", 3), ("param1", 1), ("name", "n" * 32), ("param2", 6), ("length", 6)],
                damage=None,
                body='a="\ufffd\0"',
            ),
        )
        self.assertEqual((second["type"], second["length"], second["body"]), (4, 0, ""))

    def test_says_when_a_message_was_cut(self):
        parts = [fragment(2, b"a" * 4096, 0, False, length=8193), fragment(2, b"c", 2, True, length=8193)]
        self.assertIn("\ndamaged: cut, 4097 of 8193 bytes came\n", self.heard(*parts, status=1))
        told = json.loads(self.heard(*parts, options=("--json", "-n", "1"), status=1).replace("SENDER", "0"))
        self.assertEqual((told["damage"], told["length"]), ("cut", 4097))

    def test_says_when_messages_were_joined(self):
        parts = [fragment(2, b"a" * 4096, 0, False, length=4097), fragment(3, b"bc")]
        self.assertIn(
            "\ndamaged: joined with the next, 4098 bytes came and 4097 were sent\n", self.heard(*parts, status=1)
        )
        told = json.loads(self.heard(*parts, options=("--json", "-n", "1"), status=1).replace("SENDER", "0"))
        self.assertEqual((told["damage"], told["type"]), ("joined", 2))

    def test_takes_a_length_of_0_for_none(self):
        self.assertEqual(
            self.heard(fragment(2, b"a", length=0)),
            'from port SENDER, type 2, param1 0, name "test", param2 0, 1 bytes\na\n',
        )

    def test_escapes_what_a_terminal_would_obey(self):
        self.assertIn("\\x1B[2J\\xFFb\n\tc\n", self.heard(fragment(2, b"\x1b[2J\xffb\n\tc")))

    def test_refuses_a_port_in_use(self):
        for taken in (self.socket().getsockname()[1], self.listener().port):
            self.assertEqual(
                self.complaint("listen", str(taken)), f"qvl: port {taken}: Address already in use\n"
            )


class Ask(MessageTest):
    def asked(self, *datagrams, options=(), status=1):
        """What ask says when its question is answered by datagrams, which are given its param1."""
        peer = self.socket()
        asker = subprocess.Popen(
            [QVL, "ask", *options, str(peer.getsockname()[1]), "a"], stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        self.addCleanup(asker.communicate)
        question, source = peer.recvfrom(65536)
        param1 = HEADER.unpack(question[: HEADER.size])[1]
        for datagram in datagrams:
            peer.sendto(datagram(param1), source)
        out, err = asker.communicate(timeout=60)
        self.assertEqual(asker.returncode, status, err)
        text = err if status else out
        return text.decode().replace(str(peer.getsockname()[1]), "PEER")

    def test_says_when_no_answer_comes(self):
        self.assertEqual(
            self.asked(options=["--timeout", "0.1"]), "qvl: port PEER: no answer within 0.1 s\n"
        )

    def test_says_when_nobody_has_the_port(self):
        port = free_port()
        self.assertEqual(self.complaint("ask", str(port), "a"), f"qvl: port {port}: Connection refused\n")

    def test_passes_over_answers_to_others_and_questions(self):
        late = lambda param1: fragment(QUERY | ANSWER, b"a=1", param1=param1 + 1)
        question = lambda param1: fragment(QUERY, b"a=2", param1=param1)
        mine = lambda param1: fragment(QUERY | ANSWER, b"a=3", param1=param1)
        self.assertEqual(self.asked(late, question, mine, status=0), "a=3\n")

    def test_says_when_the_answer_was_cut(self):
        self.assertEqual(
            self.asked(lambda param1: fragment(QUERY | ANSWER, b"a=1", param1=param1, length=5)),
            "qvl: port PEER: the answer is damaged: cut, 3 of 5 bytes came\n",
        )

    def test_says_when_the_answer_was_joined(self):
        parts = [
            lambda param1: fragment(QUERY | ANSWER, b"a=1", last=False, param1=param1, length=5),
            lambda param1: fragment(QUERY | ANSWER, b"b=345", param1=param1),
        ]
        self.assertEqual(
            self.asked(*parts),
            "qvl: port PEER: the answer is damaged: joined with the next, 8 bytes came and 5 were sent\n",
        )

    def test_takes_an_answer_without_its_length_for_damaged(self):
        self.assertIn(
            "the answer is damaged", self.asked(lambda param1: fragment(QUERY | ANSWER, b"a", param1=param1, length=0))
        )

    def test_says_when_the_end_of_the_answer_does_not_come(self):
        self.assertEqual(
            self.asked(
                lambda param1: fragment(QUERY | ANSWER, b"a=1", last=False, param1=param1, length=5),
                options=["--timeout", "0.5"],
            ),
            "qvl: port PEER: a message came without its end\n",
        )

    def test_tells_a_refusal_escaped(self):
        self.assertEqual(
            self.asked(lambda param1: fragment(QUERY | ANSWER | FAULT, b"no \x1b", param1=param1)),
            "qvl: port PEER: no \\x1B\n",
        )

    def test_refuses_wrong_usage(self):
        for arguments in (
            ["ask", "0", "a"],
            ["ask", "65536", "a"],
            ["ask", "1"],
            ["ask", "--update", "--insert", "1", "a"],
            ["ask", "--timeout", "-1", "1", "a"],
            ["send", "--type", "256", "1"],
            ["send", "--type", "ask", "1"],
            ["send", "0"],
            ["listen", "-n", "0", "1"],
            ["listen", "x"],
        ):
            with self.subTest(arguments):
                self.assertIn("--help' shows", self.complaint(*arguments, status=2))

    def test_send_says_when_its_file_is_missing(self):
        self.assertEqual(self.complaint("send", "9", "none"), "qvl: none: No such file or directory\n")


if __name__ == "__main__":
    unittest.main()
