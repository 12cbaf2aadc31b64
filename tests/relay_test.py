"""The example relay (environment variable RELAY) between a web server on port 8008 and its clients."""

import concurrent.futures
import fcntl
import hashlib
import http.client
import http.server
import os
import random
import selectors
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

RELAY = os.environ["RELAY"]
SERVER_PORT = 8008
PATIENCE = 60


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(condition, what, patience=PATIENCE):
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(what() if callable(what) else what)
        time.sleep(0.01)


def is_open(port):
    """Whether somebody listens on a port of 127.0.0.1; without a connection, which the relay would forward."""
    with open("/proc/net/tcp") as table:
        listening = {fields[1] for fields in map(str.split, table) if fields[3] == "0A"}
    return any(address.endswith(f":{port:04X}") for address in listening)


class End:
    """A relay process; when it ends, its status must be 0 and it must have logged nothing but what was expected."""

    def __init__(self, test, *arguments):
        self.test = test
        self.errors = tempfile.TemporaryFile()
        self.running = subprocess.Popen([RELAY, *arguments], stdout=subprocess.PIPE, stderr=self.errors)
        test.addCleanup(self.kill)
        with selectors.DefaultSelector() as selector:
            selector.register(self.running.stdout, selectors.EVENT_READ)
            if not selector.select(60):
                raise TimeoutError(arguments)
        self.first_line = self.running.stdout.readline().decode()

    def log(self):
        self.errors.seek(0)
        lines = self.errors.read().decode(errors="replace").splitlines()
        return "\n".join(line for line in lines if not line.startswith('stat("/dev/log")'))

    def stop(self, number=signal.SIGTERM, status=0, log=""):
        self.running.send_signal(number)
        self.finish(status, log)

    def finish(self, status=0, log=""):
        result = self.running.wait(60)
        self.test.assertEqual((self.log(), result), (log, status))

    def open_files(self):
        directory = f"/proc/{self.running.pid}/fd"
        files = []
        for name in os.listdir(directory):
            try:
                files.append(os.readlink(f"{directory}/{name}"))
            except FileNotFoundError:
                pass  # closed meanwhile
        return files

    def connections(self):
        """Its sockets but for those of AF_UNIX, which the log may open at any time."""
        with open("/proc/net/unix") as table:
            local = {f"socket:[{fields[6]}]" for fields in map(str.split, table)}
        return sum(file.startswith("socket:") and file not in local for file in self.open_files())

    def threads(self):
        return len(os.listdir(f"/proc/{self.running.pid}/task"))

    def kill(self):
        if self.running.poll() is None:
            self.running.kill()
        self.running.wait()
        self.running.stdout.close()
        self.errors.close()


class Site(http.server.BaseHTTPRequestHandler):
    """Answers GET /N with N bytes that any N gives alike, POST with the digest of what came, PUT with what came."""

    protocol_version = "HTTP/1.1"
    block = random.Random(1).randbytes(1 << 20)

    @classmethod
    def bytes(cls, size):
        return (cls.block * (size // len(cls.block) + 1))[:size]

    def answer(self, body):
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        self.answer(self.bytes(int(self.path[1:])))

    def do_POST(self):
        digest = hashlib.sha256()
        left = int(self.headers["Content-Length"])
        while left > 0:
            piece = self.rfile.read(min(left, 1 << 20))
            digest.update(piece)
            left -= len(piece)
        self.answer(digest.hexdigest().encode())

    def do_PUT(self):
        self.answer(self.rfile.read(int(self.headers["Content-Length"])))

    def log_message(self, *arguments):
        pass


class SiteServer(http.server.ThreadingHTTPServer):
    request_queue_size = 256
    daemon_threads = True

    def handle_error(self, request, client_address):
        pass  # clients that vanish


class RelayTest(unittest.TestCase):
    def setUp(self):
        lock = open("/tmp/qvlib-port-8008", "a")  # the port is one for all test programs of the machine
        self.addCleanup(lock.close)
        fcntl.flock(lock, fcntl.LOCK_EX)
        self.gui_port = free_port()
        self.remote = End(self, "remote", "127.0.0.1", "0")
        self.assertRegex(self.remote.first_line, r"^waiting for a channel on port \d+\n$")
        self.channel_port = int(self.remote.first_line.split()[-1])
        self.local = End(self, "local", "127.0.0.1", str(self.channel_port), str(self.gui_port))
        wait_for(lambda: is_open(self.gui_port), "the local end")
        wait_for(self.is_idle, "both ends to be connected")

    def start_site(self):
        server = SiteServer(("127.0.0.1", SERVER_PORT), Site)
        serving = threading.Thread(target=server.serve_forever, args=(0.05,))
        serving.start()

        def stop():
            server.shutdown()
            serving.join()
            server.server_close()

        self.addCleanup(stop)

    def check_ends(self):
        """Both ends are idle again, and stop well."""
        wait_for(self.is_idle, lambda: f"the ends to be idle: {self.local.open_files()}, {self.remote.open_files()}")
        self.local.stop()
        self.remote.stop()

    def is_idle(self):
        """The channel beside the listening socket is all that either end has."""
        return (self.local.connections(), self.remote.connections()) == (2, 2)

    def client(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.gui_port, timeout=PATIENCE)
        self.addCleanup(connection.close)
        return connection

    def get(self, size, client=None):
        used = client or self.client()
        used.request("GET", f"/{size}")
        answer = used.getresponse()
        body = answer.read()
        self.assertEqual(answer.status, 200)
        self.assertTrue(body == Site.bytes(size), f"{len(body)} of {size} bytes")
        if not client:
            used.close()

    def post(self, size):
        body = Site.bytes(size)
        client = self.client()
        client.request("POST", "/", body)
        self.assertEqual(client.getresponse().read().decode(), hashlib.sha256(body).hexdigest())
        client.close()

    def raw(self, request=b"", receive_buffer=None):
        connection = socket.socket()
        self.addCleanup(connection.close)
        connection.settimeout(PATIENCE)
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.connect(("127.0.0.1", self.gui_port))
        connection.sendall(request)
        return connection


    @staticmethod
    def read(connection, size):
        received = bytearray()
        while len(received) < size and (piece := connection.recv(min(1 << 20, size - len(received)))):
            received += piece
        return bytes(received)

    @staticmethod
    def drain(client):
        """Reads until the connection ends, in whatever way."""
        try:
            while client.recv(1 << 20):
                pass
        except ConnectionError:
            pass


class WebServer(RelayTest):
    """python3 -m http.server and curl."""

    def setUp(self):
        super().setUp()
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.server = None
        self.addCleanup(self.stop_server)

    def write(self, name, content):
        with open(os.path.join(self.directory.name, name), "wb") as file:
            file.write(content)

    def start_server(self):
        self.server = subprocess.Popen(
            [sys.executable, "-m", "http.server", str(SERVER_PORT), "--bind", "127.0.0.1", "--directory", self.directory.name],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        wait_for(lambda: is_open(SERVER_PORT), "the web server")

    def stop_server(self):
        if self.server:
            self.server.kill()
            self.server.wait()
            self.server = None

    def curl(self, name):
        url = f"http://127.0.0.1:{self.gui_port}/{name}"
        return subprocess.run(["curl", "-sS", "--max-time", str(PATIENCE), url], capture_output=True)

    def check_page(self, name, content):
        done = self.curl(name)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertTrue(done.stdout == content, (name, len(done.stdout), len(content)))


class RelayedPages(WebServer):
    def test_arrive_intact(self):
        pages = {f"page{size}": Site.bytes(size) for size in (0, 1, 63, 64, 65, 4096, 65535, 65536, 65537, 1000000)}
        for name, content in pages.items():
            self.write(name, content)
        self.start_server()
        for name, content in pages.items():
            self.check_page(name, content)
        self.assertIn(b"page4096", self.curl("").stdout)
        self.assertIn(b"404", self.curl("nowhere").stdout)
        self.check_ends()

    def test_of_100_megabytes_arrive_intact(self):
        content = Site.bytes(100000000)
        self.write("large", content)
        self.start_server()
        self.check_page("large", content)
        self.check_ends()


class ServerComesAndGoes(WebServer):
    def test_a_client_of_a_server_that_is_down_is_disconnected(self):
        self.assertIn(self.curl("page").returncode, (52, 56))  # an empty reply, or a reset one
        self.check_ends()

    def test_a_server_that_is_restarted_is_found_again(self):
        content = Site.bytes(100000)
        self.write("page", content)
        for _ in range(3):
            self.start_server()
            self.check_page("page", content)
            waiting = self.raw()
            wait_for(lambda: not self.is_idle(), "the connection")
            self.stop_server()
            self.assertEqual(waiting.recv(1), b"")
            self.assertNotEqual(self.curl("page").returncode, 0)
        self.start_server()
        self.check_page("page", content)
        self.check_ends()

    def test_a_server_that_refuses_ends_its_client_alone(self):
        with socket.socket() as server:
            server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            server.bind(("127.0.0.1", SERVER_PORT))
            server.listen()
            server.settimeout(PATIENCE)
            staying, refused = self.raw(), self.raw()
            kept, _ = server.accept()
            with kept:
                other, _ = server.accept()
                other.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                other.close()
                self.assertEqual(refused.recv(1), b"")
                staying.sendall(b"question")
                self.assertEqual(self.read(kept, 8), b"question")
                kept.sendall(b"answer")
                self.assertEqual(self.read(staying, 6), b"answer")
            self.assertEqual(staying.recv(1), b"")
            staying.close()
        self.check_ends()


class ManyClients(RelayTest):
    def test_200_at_once(self):
        self.start_site()
        together = threading.Barrier(200)
        sizes = [1, 100, 5000, 70000, 300000]

        def visit(number):
            client = self.client()
            client.connect()
            together.wait(PATIENCE)  # all are connected
            for turn in range(3):
                self.get(sizes[(number + turn) % len(sizes)] + number, client)
            client.close()

        with concurrent.futures.ThreadPoolExecutor(200) as pool:
            for done in [pool.submit(visit, number) for number in range(200)]:
                done.result()
        self.check_ends()

    def test_upload_and_download_at_the_same_time(self):
        self.start_site()
        with concurrent.futures.ThreadPoolExecutor(12) as pool:
            work = [pool.submit(job, 5000000 + number) for number in range(6) for job in (self.get, self.post)]
            for done in work:
                done.result()
        self.check_ends()

    def test_echo_with_both_directions_of_one_connection_busy(self):
        with socket.socket() as listener:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind(("127.0.0.1", SERVER_PORT))
            listener.listen()
            listener.settimeout(PATIENCE)
            client = self.raw()
            server, _ = listener.accept()
            with server:
                up, down = Site.bytes(20000000), Site.bytes(20000001)
                with concurrent.futures.ThreadPoolExecutor(4) as pool:
                    work = [pool.submit(client.sendall, up), pool.submit(server.sendall, down)]
                    read_up = pool.submit(self.read, server, len(up))
                    read_down = pool.submit(self.read, client, len(down))
                    self.assertTrue(read_up.result() == up)
                    self.assertTrue(read_down.result() == down)
                    for done in work:
                        done.result()
            self.assertEqual(client.recv(1), b"")
            client.close()
        self.check_ends()


class SlowAndVanishingClients(RelayTest):
    def test_slow_readers_get_all(self):
        self.start_site()

        def read_slowly(number):
            size = 600000 + number
            client = self.raw(f"GET /{size} HTTP/1.0\r\n\r\n".encode(), 4096)
            received = b""
            while piece := client.recv(8192):
                received += piece
                time.sleep(0.0005)
            self.assertTrue(received.endswith(Site.bytes(size)), len(received))
            client.close()

        with concurrent.futures.ThreadPoolExecutor(9) as pool:
            work = [pool.submit(read_slowly, number) for number in range(8)]
            work.append(pool.submit(self.get, 3000000))
            for done in work:
                done.result()
        self.check_ends()

    def test_clients_that_vanish_disturb_nobody(self):
        self.start_site()

        def vanish(number):
            chance = random.Random(number)
            for _ in range(10):
                client = self.raw(b"GET /5000000 HTTP/1.1\r\n\r\n"[: chance.choice([0, 10, 25])])
                if chance.random() < 0.5:
                    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                client.close()

        with concurrent.futures.ThreadPoolExecutor(12) as pool:
            work = [pool.submit(vanish, number) for number in range(8)]
            work += [pool.submit(self.get, 2000000) for _ in range(4)]
            for done in work:
                done.result()
        self.get(1000)
        self.check_ends()


class RelayProcess(RelayTest):
    def test_ends_while_clients_download(self):
        self.start_site()
        for end in (self.local, self.remote):
            clients = [self.raw(b"GET /50000000 HTTP/1.1\r\n\r\n") for _ in range(10)]
            time.sleep(0.5)  # nobody reads: what comes waits everywhere
            end.stop(signal.SIGINT)
            with concurrent.futures.ThreadPoolExecutor(len(clients)) as pool:
                list(pool.map(self.drain, clients))  # all at once: one that does not read holds up the others
            if end is self.local:
                self.local = End(self, "local", "127.0.0.1", str(self.channel_port), str(self.gui_port))
                wait_for(lambda: is_open(self.gui_port), "the second local end")
        self.local.finish(1, "relay: the channel is lost")

    def test_says_when_the_channel_is_lost(self):
        client = self.raw()
        self.remote.stop()
        self.drain(client)
        self.local.finish(1, "relay: the channel is lost")

    def test_takes_a_new_channel_after_the_last(self):
        self.start_site()
        for _ in range(3):
            self.get(100000)
            self.local.stop()
            self.local = End(self, "local", "127.0.0.1", str(self.channel_port), str(self.gui_port))
            wait_for(lambda: is_open(self.gui_port), "the next local end")
        self.get(100000)
        self.local.stop()
        self.remote.stop()

    def test_gives_a_channel_up_on_what_is_no_pdu(self):
        self.local.stop()
        with socket.create_connection(("127.0.0.1", self.channel_port), timeout=PATIENCE) as channel:
            channel.sendall(struct.pack(">BBHI", 1, 0, 1, 0xFFFFFFFF))
            self.assertEqual(channel.recv(1), b"")
        self.remote.stop()

    def test_gives_a_channel_up_whose_other_end_reads_nothing(self):
        self.start_site()
        self.local.stop()

        def ask(channel, size):
            channel.sendall(struct.pack(">BBHI", 2, 0, 1, 0))
            request = f"GET /{size} HTTP/1.0\r\n\r\n".encode()
            channel.sendall(struct.pack(">BBHI", 1, 0, 1, len(request)) + request)

        with socket.create_connection(("127.0.0.1", self.channel_port), timeout=PATIENCE) as stuck:
            ask(stuck, 50000000)
            time.sleep(0.5)  # what comes waits everywhere
            stuck.sendall(struct.pack(">BBHI", 1, 0, 1, 0xFFFFFFFF))
            with socket.create_connection(("127.0.0.1", self.channel_port), timeout=PATIENCE) as channel:
                ask(channel, 3)
                self.assertEqual(self.read(channel, 4), struct.pack(">BBH", 1, 0, 1))
        self.remote.stop()

    def test_speaks_the_framing_that_its_comment_tells(self):
        self.local.stop()
        with socket.create_connection(("127.0.0.1", self.channel_port), timeout=PATIENCE) as channel:
            channel.sendall(struct.pack(">BBHI", 2, 0, 258, 0))  # nobody has port 8008
            self.assertEqual(self.read(channel, 8), struct.pack(">BBHI", 3, 0, 258, 0))
            self.start_site()
            channel.sendall(struct.pack(">BBHI", 2, 0, 259, 0))
            request = b"GET /3 HTTP/1.0\r\n\r\n"
            channel.sendall(struct.pack(">BBHI", 1, 0, 259, len(request)) + request)
            received = b""
            while True:
                opcode, reserved, number, size = struct.unpack(">BBHI", self.read(channel, 8))
                self.assertEqual((reserved, number), (0, 259))
                if opcode == 3:
                    break
                self.assertEqual(opcode, 1)
                received += self.read(channel, size)
            self.assertEqual(size, 0)
            self.assertTrue(received.endswith(b"\r\n\r\n" + Site.bytes(3)), received)
        self.remote.stop()

    def test_refuses_wrong_usage(self):
        for arguments in ([], ["local", "h", "1"], ["remote", "h"], ["remote", "h", "1", "2"], ["x", "h", "1"]):
            done = subprocess.run([RELAY, *arguments], capture_output=True, timeout=60)
            self.assertEqual((done.returncode, done.stdout), (2, b""))
            self.assertIn(b"Usage: relay remote HOST PORT\n", done.stderr)

    def test_says_why_it_does_not_begin(self):
        for arguments in (["local", "127.0.0.1", str(free_port()), "1"], ["remote", "127.0.0.1", str(self.gui_port)]):
            done = subprocess.run([RELAY, *arguments], capture_output=True, timeout=60)
            self.assertEqual(done.returncode, 1)
            self.assertRegex(done.stderr.decode(), r"relay: 127.0.0.1 port \d+: (Connection refused|Address already in use)\n")


if __name__ == "__main__":
    unittest.main()
