"""The load of each row: what is asked, how each answer is checked, and what it has cost the server.

Every load returns figures: a dictionary from the name of a figure to a number.
"""

import concurrent.futures
import contextlib
import hashlib
import math
import pathlib
import random
import re
import signal
import socket
import ssl
import subprocess
import threading
import time
import zlib

from support.failure import Failure
from support.processes import Span, peak_resident_bytes, processor_seconds, resident_bytes, running
from support.servers import LOAD_CORE

KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
PATIENCE = 30
# Seconds after which memory that was needed for a while should have gone back.
GIVING_BACK = 5
UPLOAD_BYTES = 96 * MIB

# The served files by their names, and bytes of each.
FILES = {"100": 100, "64k": 64 * KIB, "1m": MIB, "20m": 20 * MIB, "64m": 64 * MIB, "128m": 128 * MIB,
         "256m": 256 * MIB}
# Clients that take a 20 MiB answer by the kilobyte, and for how many seconds they do.
SLOW_READERS, READING_SLOWLY = 200, 10
WRK_UNITS = {"us": 1e-3, "ms": 1, "s": 1e3, "m": 6e4, "h": 3.6e6}


def content(length):
    """Bytes that no two places of which are alike, the same in every run."""
    source = random.Random(length)
    return b"".join(source.randbytes(min(MIB, length - at)) for at in range(0, length, MIB))


def make_files(folder):
    """Writes the served files and returns the digest of each, and of what the backend of our own answers."""
    digests = {"pieces": hashlib.sha256(b"x" * 99 + b"\n").digest()}
    for name, length in FILES.items():
        (folder / name).write_bytes(payload := content(length))
        digests[name] = hashlib.sha256(payload).digest()
    return digests


class Connection:
    """A client's connection to a server under test: requests one after the other, read as they must be."""

    def __init__(self, port, tls=None, receive_buffer=None):
        """`tls` is the context of a session, None for plain bytes."""
        self.port = port
        self.socket = socket.socket()
        try:
            self.socket.settimeout(PATIENCE)
            if receive_buffer:
                self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
            self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.socket.connect(("127.0.0.1", port))
            if tls:
                self.socket = tls.wrap_socket(self.socket)
        except BaseException:
            self.socket.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def ask(self, path, method="GET", length=None, more=""):
        """Sends the head of a request."""
        body = "" if length is None else f"Content-Length: {length}\r\n"
        head = f"{method} /{path} HTTP/1.1\r\nHost: 127.0.0.1:{self.port}\r\n{body}{more}\r\n"
        self.socket.sendall(head.encode())

    def answer(self, take=None):
        """Reads an answer, hands its body to `take` in pieces, and returns the body's length."""
        head = b""
        while b"\r\n\r\n" not in head:
            if not (got := self.socket.recv(64 * KIB)):
                raise Failure(f"port {self.port} closes the connection in the head of an answer")
            head += got
        head, _, rest = head.partition(b"\r\n\r\n")
        status = head.split(b"\r\n", 1)[0].decode("latin-1")
        length = re.search(rb"\r\ncontent-length: *(\d+)", head, re.I)
        if not re.match(r"HTTP/1\.1 200 ", status) or not length:
            raise Failure(f"port {self.port} answers {status!r}, length {length and length.group(1)}")
        left = length = int(length.group(1))
        if len(rest) > length:
            raise Failure(f"port {self.port} sends more than the {length} bytes that it announces")
        if take:
            take(rest)
        left -= len(rest)
        buffer = memoryview(bytearray(min(MIB, max(left, 1))))
        while left:
            if not (got := self.socket.recv_into(buffer[:left])):
                raise Failure(f"port {self.port} ends an answer of {length} bytes {left} bytes early")
            if take:
                take(buffer[:got])
            left -= got
        return length


def tls_context():
    """Trusts whatever the server shows: its certificate is the run's own."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


class Loads:
    """The loads of a run, with its digests and the length of a measurement."""

    def __init__(self, digests, seconds):
        self.digests = digests
        self.seconds = seconds

    def check(self, server, path, tls=False):
        """One request whose answer must be the file, byte for byte."""
        with Connection(server.port, tls_context() if tls else None) as client:
            if tls and client.socket.version() != "TLSv1.3":
                raise Failure(f"{server.name} speaks {client.socket.version()}")
            client.ask(path)
            digest = hashlib.sha256()
            client.answer(digest.update)
        if digest.digest() != self.digests[path]:
            raise Failure(f"{server.name} answers /{path} with other bytes than the file's")

    def requests(self, server, path, connections, tls=False, close=False, check=True):
        """wrk for the given time: GET of one path over so many connections."""
        if check:
            self.check(server, path, tls)
        command = ["wrk", "-t1", f"-c{connections}", f"-d{math.ceil(self.seconds)}s", "--timeout", "20s", "--latency"]
        # In lower case it is a header like any other to who leaves out "Connection" only.
        command += ["-H", "connection: close"] if close else []
        command.append(f"{'https' if tls else 'http'}://127.0.0.1:{server.port}/{path}")

        span = Span(server.pid)
        output = self._wrk_output(command)
        spent = span.end()

        if trouble := re.search(r"Socket errors.*|Non-2xx.*", output):
            raise Failure(f"{server.name}: {trouble.group()}")
        count = int(re.search(r"(\d+) requests in", output).group(1))
        if not count:
            raise Failure(f"{server.name} answers nothing in {self.seconds} s")
        number, unit = re.search(r"99%\s+([\d.]+)(\w+)", output).groups()
        return {
            "us_per_request": spent * 1e6 / count,
            "requests_per_second": float(re.search(r"Requests/sec:\s*([\d.]+)", output).group(1)),
            "p99_ms": float(number) * WRK_UNITS[unit],
            "requests": count,
            **span.waited(),
            **memory(server),
        }

    def _wrk_output(self, command):
        """wrk takes whole seconds; ended early by the signal it reports what there was."""
        with running(LOAD_CORE, command, signal.SIGKILL, stdout=subprocess.PIPE) as process:
            if self.seconds != int(self.seconds):
                time.sleep(self.seconds)
                process.send_signal(signal.SIGINT)
            try:
                output, _ = process.communicate(timeout=self.seconds + PATIENCE)
            except subprocess.TimeoutExpired:
                raise Failure("wrk does not end") from None
        if process.returncode:
            raise Failure(f"wrk ends with {process.returncode}: {output.decode().strip()}")
        return output.decode()

    def downloads(self, server, path):
        """The same file again and again over one connection."""
        self.check(server, path)
        with Connection(server.port) as client:
            def once():
                client.ask(path)
                return client.answer()
            return self._transfers(server, once)

    def uploads(self, server):
        """The same body again and again over one connection, to the backend of our own."""
        body = content(UPLOAD_BYTES)
        with Connection(server.port) as client:
            def once(path="upload"):
                client.ask(path, "POST", len(body))
                client.socket.sendall(body)
                said = bytearray()
                client.answer(said.extend)
                return said.decode().split()
            if once("checked") != [str(len(body)), f"{zlib.crc32(body):08x}"]:
                raise Failure(f"{server.name} passes other bytes on than were uploaded")

            def counted():
                if once() != [str(len(body))]:
                    raise Failure(f"{server.name} loses bytes of an upload")
                return len(body)
            return self._transfers(server, counted)

    def _transfers(self, server, once):
        carried = 0
        span = Span(server.pid)
        while not carried or time.monotonic() - span.start < self.seconds:
            carried += once()
        spent = span.end()
        return {
            "ms_per_gib": spent * 1e3 / (carried / GIB),
            "mib_per_second": carried / MIB / span.taken,
            "bytes": carried,
            **span.waited(),
            **memory(server),
        }

    def handshakes(self, server, path, clients=8):
        """A new TLS session for each request, never resumed."""
        self.check(server, path, tls=True)
        context = tls_context()

        def client(end):
            delays = []
            while not delays or time.monotonic() < end:
                start = time.monotonic()
                digest = hashlib.sha256()
                with Connection(server.port, context) as connection:
                    if connection.socket.session_reused:
                        raise Failure(f"{server.name} resumes a session")
                    connection.ask(path)
                    connection.answer(digest.update)
                if digest.digest() != self.digests[path]:
                    raise Failure(f"{server.name} answers /{path} with other bytes than the file's")
                delays.append(time.monotonic() - start)
            return delays

        span = Span(server.pid)
        with concurrent.futures.ThreadPoolExecutor(clients) as pool:
            delays = sorted(sum(pool.map(client, [span.start + self.seconds] * clients), []))
        spent = span.end()
        return {
            "us_per_request": spent * 1e6 / len(delays),
            "requests_per_second": len(delays) / span.taken,
            "p99_ms": delays[int(len(delays) * 0.99)] * 1e3,
            "requests": len(delays),
            **span.waited(),
            **memory(server),
        }

    @contextlib.contextmanager
    def idle_clients(self, server, path, count, at_once=100):
        """So many connections, each of which has had one answer and stays open."""
        with contextlib.ExitStack() as stack:
            clients = []
            while len(clients) < count:
                batch = [stack.enter_context(Connection(server.port))
                         for _ in range(min(at_once, count - len(clients)))]
                for client in batch:
                    client.ask(path)
                for client in batch:
                    if client.answer() != FILES[path]:
                        raise Failure(f"{server.name} answers an idle client with a wrong length")
                clients += batch
            yield clients
            # Whoever was closed in between was no idle pair.
            for client in clients:
                client.socket.setblocking(False)
                with contextlib.suppress(BlockingIOError):
                    if not client.socket.recv(1):
                        raise Failure(f"{server.name} has closed an idle connection")

    def busy_beside_idle(self, server, idle):
        """32 busy connections beside idle pairs."""
        self.check(server, "100")
        with self.idle_clients(server, "100", idle):
            return self.requests(server, "100", 32, check=False)

    def pair_memory(self, server, path, count, wait):
        """What a connection and its backend connection keep resident, `wait` seconds after their answer."""
        self.check(server, path)
        before = settled_bytes(server)
        with self.idle_clients(server, path, count):
            time.sleep(wait)
            after = settled_bytes(server)
        return {"kib_per_pair": (after - before) / count / KIB, **memory(server)}

    def backlog(self, server, path):
        """A client that asks for a file and reads nothing until all of it waits in the server."""
        self.check(server, "100")
        before, span = resident_bytes(server.pid), Span(server.pid)
        with Connection(server.port, receive_buffer=256 * KIB) as client:
            client.ask(path)
            self._await_idle(server)
            in_kernel = queued_in_kernel(server.port)
            queued = FILES[path] - in_kernel
            held = resident_bytes(server.pid) - before
            digest = hashlib.sha256()
            client.answer(digest.update)
            if digest.digest() != self.digests[path]:
                raise Failure(f"{server.name} answers /{path} with other bytes than the file's")
            spent = span.end()
            time.sleep(GIVING_BACK)
            kept = resident_bytes(server.pid) - before
        if queued < FILES[path] / 2:
            raise Failure(f"{server.name} holds back what a slow client does not read")
        return {
            "ms_per_gib": spent * 1e3 / (FILES[path] / GIB),
            "bytes_per_byte": held / queued,
            "kept_per_byte": kept / queued,
            **span.waited(),
            **memory(server),
        }

    def beside_slow_readers(self, server):
        """How long an ordinary client waits for answers, on a kept and on new connections, beside slow readers."""
        self.check(server, "100")
        over = threading.Event()
        span = Span(server.pid)
        with contextlib.ExitStack() as stack, concurrent.futures.ThreadPoolExecutor(1) as pool:
            stack.callback(over.set)
            waits = pool.submit(self._ordinary_waits, server, over)
            clients = [stack.enter_context(Connection(server.port, receive_buffer=4096)) for _ in range(SLOW_READERS)]
            for client in clients:
                client.ask("20m")
                client.socket.setblocking(False)
            while time.monotonic() - span.start < READING_SLOWLY:
                for client in clients:
                    with contextlib.suppress(BlockingIOError):
                        if not client.socket.recv(KIB):
                            raise Failure(f"{server.name} closes a slow reader's connection")
                time.sleep(0.1)
            span.end()
            over.set()
            return {"worst_wait_ms": max(waits.result()) * 1e3, **span.waited(), **memory(server)}

    def _ordinary_waits(self, server, over):
        """Asks every 50 ms until it is over; seconds until each whole answer."""
        waits = []

        def once(client):
            client.ask("100")
            client.answer()

        with Connection(server.port) as kept:
            while not over.wait(0.05):
                for connection in (contextlib.nullcontext(kept), None):
                    start = time.monotonic()
                    with connection or Connection(server.port) as client:
                        once(client)
                    waits.append(time.monotonic() - start)
        return waits

    def _await_idle(self, server):
        """Returns once the server has done next to nothing for a fifth of a second."""
        deadline, last = time.monotonic() + PATIENCE, -1
        while (now := processor_seconds(server.pid)) - last > 0.001:
            if time.monotonic() > deadline:
                raise Failure(f"{server.name} does not come to rest")
            last = now
            time.sleep(0.2)

    def first_answer(self, server):
        """Time from the start of the process to the end of its first answer."""
        with Connection(server.port) as client:
            client.ask("100")
            client.answer()
            return {"ms": (time.monotonic() - server.started) * 1e3}


def queued_in_kernel(port):
    """Bytes that a server's connection has handed over and its client has not read."""
    queued = 0
    for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
        fields = line.split()
        sending, receiving = (int(number, 16) for number in fields[4].split(":"))
        if int(fields[1].split(":")[1], 16) == port:
            queued += sending
        elif int(fields[2].split(":")[1], 16) == port:
            queued += receiving
    return queued


def settled_bytes(server):
    """Resident memory once it has stood still for two seconds, or after ten: some of it goes back with a delay."""
    deadline, last = time.monotonic() + 10, -1
    while (now := resident_bytes(server.pid)) != last and time.monotonic() < deadline:
        last = now
        time.sleep(2)
    return now


def memory(server):
    """Resident memory now, and the most that there was since the start."""
    return {"resident_mib": resident_bytes(server.pid) / MIB, "peak_mib": peak_resident_bytes(server.pid) / MIB}
