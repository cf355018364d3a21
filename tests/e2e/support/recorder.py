"""A small backend that keeps each byte it is sent and answers by script."""

import socket
import threading

from support.raw import EndOfStream, Stream
from support.waiting import wait_until


class Recorder:
    """Listens on a port of its own; `link(n)` is the n-th connection it was given.

    Every connection is handed to `script(link)` in a thread of its own. Without a script the
    test reads from the link and answers through it. What a link has read stays in its `received`.
    """

    def __init__(self, script=None):
        self._script = script
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=128)
        self.port = self._listener.getsockname()[1]
        self.links = []
        self._faults = []
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    def _accept(self):
        while True:
            try:
                connected, _ = self._listener.accept()
            except OSError:
                return
            connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            link = Stream(connected)
            self.links.append(link)
            if self._script:
                thread = threading.Thread(target=self._play, args=(link,), daemon=True)
                self._threads.append(thread)
                thread.start()

    def _play(self, link):
        try:
            self._script(link)
        except Exception as fault:  # a script that fails fails its test, when the recorder closes
            self._faults.append(fault)

    def link(self, number=0):
        wait_until(lambda: len(self.links) > number, f"connection {number} to the backend")
        return self.links[number]

    def close(self):
        """Stop listening, end every connection, and report what went wrong in a script."""
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._threads[0].join()
        for thread in self._threads[1:]:
            thread.join(timeout=20)
            assert not thread.is_alive(), "a script of the recording backend hangs"
        for link in self.links:
            link.close()
        if self._faults:
            raise self._faults[0]


def answers(*replies):
    """Script: answer each request in turn when it is complete, the last reply again and again."""
    def script(link):
        waiting = list(replies)
        try:
            while True:
                link.read_message()
                link.send(waiting.pop(0) if len(waiting) > 1 else waiting[0])
        except EndOfStream:
            link.close()
    return script


def answers_and_closes(reply):
    """Script: answer the first request and end the connection."""
    def script(link):
        link.read_message()
        link.send(reply)
        link.close()
    return script


def answers_early(reply):
    """Script: answer as soon as the head is there, then read on to the end."""
    def script(link):
        link.read_until(b"\r\n\r\n")
        link.send(reply)
        link.read_to_end()
    return script


def closes(link):
    """Script: end the connection when the request is complete, without an answer."""
    link.read_message()
    link.close()


def resets(link):
    """Script: reset the connection when the request is complete."""
    link.read_message()
    link.reset()


def stays_silent(link):
    """Script: take everything and never answer."""
    link.read_to_end()
