"""TLS clients: the openssl command, and one whose bytes go out as the test says."""

import contextlib
import re
import ssl
import subprocess

from support.raw import connect
from support.waiting import PATIENCE


def await_end(stream):
    """Wait for the end of a raw connection, whichever way it comes."""
    with contextlib.suppress(ConnectionResetError):
        stream.read_to_end()


class SClient:
    """`openssl s_client` with a conversation of the test's. Everything it prints is kept."""

    def __init__(self, port, *words):
        self._process = subprocess.Popen(
            ["openssl", "s_client", "-connect", f"127.0.0.1:{port}", *map(str, words)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.output = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send(self, data):
        self._process.stdin.write(data)
        self._process.stdin.flush()

    def read_until(self, text):
        """Read on until `text` has come; the test's own limit ends a wait in vain."""
        while text not in self.output:
            block = self._process.stdout.read1(1 << 16)
            assert block, self.output
            self.output += block

    def line(self, pattern):
        """The first group of the first line that has `pattern` in it."""
        found = re.search(pattern, self.output.decode(errors="replace"))
        assert found, self.output
        return found.group(1)

    def leave(self):
        """Close the connection in good order and wait for the command's end."""
        self._process.stdin.close()
        self.output += self._process.stdout.read()
        self._process.wait(PATIENCE)

    def close(self):
        self._process.kill()
        self._process.wait(PATIENCE)
        for stream in (self._process.stdin, self._process.stdout):
            with contextlib.suppress(BrokenPipeError):
                stream.close()


class DrippingClient:
    """A TLS client that hands the network `piece` bytes at a time."""

    def __init__(self, port, context, piece=1):
        self.stream = connect(port)
        self._piece = piece
        self._in, self._out = ssl.MemoryBIO(), ssl.MemoryBIO()
        self._session = context.wrap_bio(self._in, self._out, server_hostname="localhost")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stream.close()

    def _drip(self):
        data = self._out.read()
        for start in range(0, len(data), self._piece):
            self.stream.send(data[start:start + self._piece])

    def _step(self, action):
        """Repeat `action` until it needs nothing more from the network."""
        while True:
            try:
                result = action()
                self._drip()
                return result
            except ssl.SSLWantReadError:
                self._drip()
                block = self.stream.socket.recv(1 << 16)
                assert block, "the server has closed"
                self._in.write(block)

    def begin(self):
        """Send the first flight and leave it at that."""
        with contextlib.suppress(ssl.SSLWantReadError):
            self._session.do_handshake()
        self._drip()

    def shake_hands(self):
        self._step(self._session.do_handshake)

    def send(self, data):
        self._step(lambda: self._session.write(data))

    def read_exactly(self, length):
        data = b""
        while len(data) < length:
            data += self._step(lambda: self._session.read(length - len(data)))
        return data
