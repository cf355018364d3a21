"""Free TCP ports that stay free for the test that uses them."""

import socket


class HeldPort:
    """A port kept by a bound socket that never listens.

    The socket shares the port (SO_REUSEADDR and SO_REUSEPORT), so a server that shares too may
    listen there while nobody else is given the number. Until a server does, a connect is refused.
    """

    def __init__(self):
        self._socket = socket.socket()
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        self._socket.bind(("", 0))
        self.port = self._socket.getsockname()[1]

    def close(self):
        self._socket.close()


class OccupiedPort:
    """A port that somebody else listens on without sharing it."""

    def __init__(self):
        self._socket = socket.socket()
        self._socket.bind(("", 0))
        self._socket.listen()
        self.port = self._socket.getsockname()[1]

    def close(self):
        self._socket.close()
