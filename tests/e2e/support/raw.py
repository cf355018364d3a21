"""Raw sockets that remember every byte they were sent."""

import socket
import struct
from typing import NamedTuple

TIMEOUT = 15.0


class EndOfStream(Exception):
    """The peer closed before the bytes that were waited for had come."""


class Message(NamedTuple):
    """A head with its blank line, and as much body as its Content-Length says."""

    head: bytes
    body: bytes

    @property
    def status_line(self):
        return self.head.split(b"\r\n", 1)[0]

    def header(self, name):
        """Value of the first header line of that name, None without one."""
        for line in self.head.split(b"\r\n")[1:]:
            key, _, value = line.partition(b":")
            if key.strip().lower() == name.lower():
                return value.strip()
        return None


class Stream:
    """One end of a connection. `received` holds each byte that was read from it, in order."""

    def __init__(self, connected):
        self.socket = connected
        self.socket.settimeout(TIMEOUT)
        self.received = bytearray()
        self._taken = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    @property
    def local_port(self):
        return self.socket.getsockname()[1]

    def send(self, data):
        self.socket.sendall(data)

    def _fill(self):
        block = self.socket.recv(1 << 20)
        if not block:
            raise EndOfStream(bytes(self.received[self._taken:][:1000]))
        self.received += block

    def _take(self, length):
        taken = bytes(self.received[self._taken:self._taken + length])
        self._taken += length
        return taken

    def read_exactly(self, length):
        while len(self.received) - self._taken < length:
            self._fill()
        return self._take(length)

    def read_until(self, mark):
        """Everything up to and with the next `mark`."""
        start = self._taken
        while True:
            found = self.received.find(mark, start)
            if found >= 0:
                return self._take(found + len(mark) - self._taken)
            start = max(self._taken, len(self.received) - len(mark) + 1)
            self._fill()

    def read_message(self):
        """One request or answer whose body, if any, is as long as its Content-Length says."""
        message = Message(self.read_until(b"\r\n\r\n"), b"")
        return message._replace(body=self.read_exactly(int(message.header(b"content-length") or 0)))

    def read_to_end(self):
        """Everything up to an orderly end; a reset is an error."""
        try:
            while True:
                self._fill()
        except EndOfStream:
            return self._take(len(self.received) - self._taken)

    def is_quiet(self):
        """Neither a byte nor an end is waiting to be read."""
        if len(self.received) > self._taken:
            return False
        self.socket.setblocking(False)
        try:
            self._fill()
        except BlockingIOError:
            return True
        except (EndOfStream, ConnectionResetError):
            pass
        finally:
            self.socket.settimeout(TIMEOUT)
        return False

    def finish(self):
        """Say that nothing more will be sent, and go on reading."""
        self.socket.shutdown(socket.SHUT_WR)

    def reset(self):
        """End with a reset instead of an orderly close."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def close(self):
        self.socket.close()


def connect(port, tls=None, server_name="localhost"):
    """A client connection to `port`, under TLS when `tls` is a context of the ssl module."""
    plain = socket.create_connection(("127.0.0.1", port), TIMEOUT)
    plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return Stream(tls.wrap_socket(plain, server_hostname=server_name) if tls else plain)


def get(host, path="/", *headers):
    """The bytes of a plain GET."""
    lines = [f"GET {path} HTTP/1.1", f"Host: {host}", *headers]
    return "".join(line + "\r\n" for line in lines).encode() + b"\r\n"
