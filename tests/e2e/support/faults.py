"""Calls of the program that fail one after the other, and traffic that has to outlive it.

tests/faults/faults.cpp stands between the program and the system. It is told through a file that
both map which use of which call fails, and how, while the program runs.
"""

import contextlib
import ctypes
import errno
import hashlib
import mmap
import pathlib
import re
import socket
import socketserver
import subprocess
import threading
import time
from typing import NamedTuple

from support.ports import HeldPort
from support.program import ROOT, Program, build_folder, program_path
from support.raw import EndOfStream, Stream, get
from support.texts import BAD_GATEWAY, NOT_FOUND, echo_answer
from support.waiting import wait_until

# In the order of `call_number` in faults.cpp.
CALLS = re.findall(r"^CALL\((\w+)\)$", (ROOT / "tests/faults/calls.inc").read_text(), re.M)

EAI_AGAIN, EAI_FAIL, EAI_SYSTEM = -3, -4, -11

# What the one who asks notices of a fault: nothing; that a connection ends or is answered with
# 502; or that an answer stays away, because the session is lost and the socket is not.
UNNOTICED, ENDED, SILENT = "unnoticed", "ended", "silent"


class Fault(NamedTuple):
    """One way for a call to fail. `error` 0 is an end of stream, `most` a short count."""

    call: str
    error: int = 0
    most: int = 0
    effect: str = UNNOTICED
    message: bytes = b""

    def __str__(self):
        how = f"takes {self.most}" if self.most else errno.errorcode.get(self.error, self.error)
        return f"{self.call} {how or 'ends'}"


def _failures(call, names, effect=UNNOTICED, message=lambda number: b""):
    numbers = [getattr(errno, name) if isinstance(name, str) else name for name in names]
    return [Fault(call, number, 0, effect, message(number)) for number in numbers]


def _faults():
    transient = ["EINTR", "EAGAIN", "ENOBUFS", "ECONNRESET", "ETIMEDOUT"]

    def failed_wait(number):
        return b"select() failed! %d\n" % number

    def no_address(_):
        return b"No addresses worked for host localhost:"

    def no_name(_):
        return b"getaddrinfo() failed for host localhost:"

    for call in ("recv", "send"):
        yield from _failures(call, transient)
        yield Fault(call, most=1)
        yield Fault(call, most=1000)
    yield Fault("recv", effect=ENDED)
    # Below the TLS library, whose sessions do not outlive every error. A piece of a handshake that
    # finds no room waits until the client sends something, as nothing else has the library called.
    yield from _failures("read", ["EINTR", "EAGAIN"])
    yield from _failures("write", ["EINTR", "EAGAIN"], SILENT)
    for call in ("read", "write"):
        yield from _failures(call, ["ENOBUFS", "ECONNRESET", "ETIMEDOUT"], SILENT)
        yield Fault(call, most=1)
    yield Fault("read", effect=SILENT)
    for call in ("SSL_read", "SSL_write"):
        yield from _failures(call, transient)
        yield Fault(call, effect=SILENT)
        yield Fault(call, most=1)
    yield from _failures("SSL_accept", ["EINTR", "EAGAIN", "ECONNRESET"])
    yield from _failures("SSL_shutdown", ["EINTR", "EAGAIN", "ECONNRESET"])

    yield from _failures("accept4", ["EINTR", "EAGAIN", "ECONNABORTED", "EMFILE", "ENOBUFS",
                                     "ETIMEDOUT"], ENDED, lambda _: b"accept() failed\n")
    for call in ("epoll_wait", "poll"):
        yield from _failures(call, ["EINTR"])
        yield from _failures(call, ["EBADF", "ENOMEM"], ENDED, failed_wait)
    yield from _failures("epoll_ctl", ["ENOMEM", "ENOSPC"], ENDED, failed_wait)
    yield from _failures("socket", ["EMFILE", "ENFILE", "ENOBUFS"], ENDED, no_address)
    yield from _failures("getaddrinfo", [EAI_AGAIN, EAI_FAIL, EAI_SYSTEM], ENDED, no_name)
    yield from _failures("connect", ["EINTR"])
    yield from _failures("connect", ["EAGAIN", "ENOBUFS", "EADDRNOTAVAIL", "ETIMEDOUT"], ENDED)
    yield from _failures("close", ["EINTR", "EIO"])
    yield from _failures("setsockopt", ["ENOBUFS", "EINVAL"])
    yield from _failures("madvise", ["EAGAIN", "ENOMEM"])
    yield from _failures("stat", ["ENOENT", "ENOMEM"])


FAULTS = list(_faults())

# What can hide from the program that a client has left.
LOST = [fault for fault in FAULTS if fault.call in ("read", "SSL_read") and fault.effect == SILENT]
MESSAGES = (b"accept() failed", b"select() failed!", b"No addresses worked",
            b"getaddrinfo() failed", b"Binding to port", b"has errors")


class _Control(ctypes.Structure):
    _fields_ = [("uses", ctypes.c_uint64 * len(CALLS)), ("use", ctypes.c_uint64),
                ("call", ctypes.c_uint32), ("fired", ctypes.c_uint32), ("error", ctypes.c_int32),
                ("most", ctypes.c_int32)]


class Control:
    """The file through which a process is told what fails."""

    def __init__(self, folder):
        self.path = pathlib.Path(folder) / "faults"
        self.path.write_bytes(bytes(ctypes.sizeof(_Control)))
        with self.path.open("r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 0)
        self._control = _Control.from_buffer(self._memory)

    def uses(self):
        """How often each call has been made."""
        return dict(zip(CALLS, self._control.uses))

    def arm(self, fault, use):
        """Have the `use`-th use from now on fail."""
        self.disarm()
        number = CALLS.index(fault.call)
        self._control.call, self._control.error = number, fault.error
        self._control.most, self._control.fired = fault.most, 0
        self._control.use = self._control.uses[number] + use

    def disarm(self):
        self._control.use = 0

    @property
    def fired(self):
        return self._control.fired == 1


def _libraries(command, pattern):
    return re.findall(pattern, subprocess.check_output(command, text=True))


def wrapper(control, folder):
    """What to put in front of the program to have its calls fail as `control` says."""
    library = build_folder() / "tests" / "faults" / "libfaults.so"
    assert library.exists(), f"build it first: there is no {library}"
    # The sanitizer wants to be the first.
    before = _libraries(["ldd", program_path()], r"=> (\S*/libasan\.so\S*)")
    tls = {pathlib.Path(name).name: name for name in
           _libraries(["/sbin/ldconfig", "-p"], r"=> (\S*/libssl\.so\S*)")}
    for name in tls:
        (pathlib.Path(folder) / name).symlink_to(library)
    return ["env", "LD_PRELOAD=" + " ".join([*before, str(library)]), f"LD_LIBRARY_PATH={folder}",
            f"VINDRA_FAULTS={control.path}", f"VINDRA_FAULTS_TLS={max(tls.values())}"]


# The backend and what it is asked for.

LARGE = hashlib.shake_256(b"an answer of some hundred KiB").digest(300 << 10)
UPLOAD = hashlib.shake_256(b"a body of some hundred KiB").digest(200 << 10)


def _message(body):
    return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s" % (len(body), body)


SMALL_ANSWER = _message(100 * b"s")
LARGE_ANSWER = _message(LARGE)
UPLOAD_ANSWER = _message(hashlib.sha256(UPLOAD).hexdigest().encode())


class _Conversation(socketserver.BaseRequestHandler):
    def handle(self):
        self.server.under_way.add(self.request)
        self.request.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        link = Stream(self.request)
        with contextlib.suppress(EndOfStream, OSError):
            while True:
                request = link.read_message()
                if request.body:
                    link.send(_message(hashlib.sha256(request.body).hexdigest().encode()))
                else:
                    link.send(LARGE_ANSWER if b"/large " in request.head else SMALL_ANSWER)

    def finish(self):
        self.server.under_way.discard(self.request)


class Backend(socketserver.ThreadingTCPServer):
    """Answers with a small body, a large one, or the digest of the one it was sent."""

    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 128

    def __init__(self):
        super().__init__(("127.0.0.1", 0), _Conversation)
        self.under_way = set()
        self.port = self.server_address[1]
        self._thread = threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True)
        self._thread.start()

    def handle_error(self, *_):
        pass

    def end_connections(self):
        """End every connection, as one who has waited for long enough."""
        for link in list(self.under_way):
            with contextlib.suppress(OSError):
                link.shutdown(socket.SHUT_RDWR)

    def close(self):
        self.shutdown()
        self._thread.join()
        self.server_close()


PATIENCE = 0.5
FRESH_PATIENCE = 5.0


class Script:
    """The traffic: every kind of exchange once, all of it over TLS where `tls` is a context."""

    def __init__(self, port, tls=None):
        self._port, self._tls = port, tls
        self.cut = self.silent = 0

    def _connect(self):
        plain = socket.create_connection(("127.0.0.1", self._port), PATIENCE)
        plain.settimeout(PATIENCE)
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if not self._tls:
            return plain
        try:
            return self._tls.wrap_socket(plain, server_hostname="localhost")
        except BaseException:
            plain.close()
            raise

    def _ask(self, client, request, answer):
        """One exchange. What comes is the answer, or as much of it as comes before an end."""
        got = b""
        try:
            client.sendall(request)
            while len(got) < len(answer):
                block = client.recv(1 << 18)
                if not block:
                    break
                got += block
        except TimeoutError:
            self.silent += 1
        except OSError:
            pass
        if got != answer:
            self.cut += 1
            assert answer.startswith(got) or BAD_GATEWAY.startswith(got), (request, got[:300])
        return got == answer

    def _exchange(self, *asked, client=None):
        """Connects, asks one thing after the other, and closes."""
        try:
            with client or self._connect() as client:
                return all(self._ask(client, *pair) for pair in asked)
        except TimeoutError:
            self.silent += 1
        except OSError:
            self.cut += 1
        return False

    def run(self):
        """Everything, beginning and ending on one kept connection."""
        small, echo = get("app.local"), get("echo.local")
        upload = get("app.local", "/up", f"Content-Length: {len(UPLOAD)}") + UPLOAD
        kept = None
        with contextlib.suppress(OSError):
            kept = self._connect()
        kept_well = kept is not None and self._ask(kept, small, SMALL_ANSWER)
        self._exchange((echo, echo_answer(echo)), (get("none.local"), NOT_FOUND))
        self._exchange((small, SMALL_ANSWER), (upload, UPLOAD_ANSWER), (small, SMALL_ANSWER))
        self._exchange((get("app.local", "/large"), LARGE_ANSWER))
        self._refused()
        self._reset()
        if kept is None:
            self.cut += 1
        elif kept_well:
            self._exchange((small, SMALL_ANSWER), client=kept)
        else:
            kept.close()

    def _refused(self):
        """A backend that is not there: the connection ends without an answer."""
        try:
            with self._connect() as client:
                client.sendall(get("refused.local"))
                got = client.recv(1 << 16)
                assert BAD_GATEWAY.startswith(got), got
        except TimeoutError:
            self.silent += 1
        except OSError:
            pass

    def _reset(self):
        """A client that resets in the middle of its answer."""
        with contextlib.suppress(OSError), self._connect() as client:
            client.sendall(get("app.local", "/large"))
            client.recv(1000)
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")

    def serves_a_fresh_client(self):
        echo = get("echo.local")
        return self._exchange((echo, echo_answer(echo)), (get("app.local"), SMALL_ANSWER))


class Stage:
    """A program under the library of faults, with a backend; driven by script()."""

    def __init__(self, folder, tls=None, made=None):
        self._stack = contextlib.ExitStack()
        with contextlib.ExitStack() as stack:
            def keep(resource):
                return stack.enter_context(contextlib.closing(resource))
            self.control = Control(folder)
            self._backend = backend = keep(Backend())
            refused = keep(HeldPort()).port
            port, ssl_port = keep(HeldPort()).port, keep(HeldPort()).port
            words = [port] if not tls else [port, "-ssl", ssl_port, made.key, made.crt]
            for host, target in (("app.local", backend.port), ("echo.local", -1),
                                 ("refused.local", refused)):
                words += ["-map", host, target]
            self._port, self._tls = (ssl_port if tls else port), tls
            self.program = Program(*words, port=port, wrapper=wrapper(self.control, folder))
            stack.callback(self.program.stop)
            self.program.await_start()
            self._descriptors = len(self.program.descriptors())
            # Libraries keep a thing or two of their first use, the sanitizer a pipe for a while.
            self.script().run()
            self._await_quiet()
            self._stack = stack.pop_all()

    def script(self):
        return Script(self._port, self._tls)

    def close(self):
        self.control.disarm()
        self._stack.close()

    def counts(self):
        """How often the script uses each call."""
        self._forget_names()
        before = self.control.uses()
        script = self.script()
        script.run()
        assert (script.cut, script.silent) == (0, 0)
        self._await_quiet()
        return {call: count - before[call] for call, count in self.control.uses().items()}

    @staticmethod
    def _forget_names():
        """The program asks the resolver once in a second."""
        time.sleep(1.01)

    def _is_quiet(self):
        return len(self.program.descriptors()) == self._descriptors

    def _await_quiet(self, after="the script"):
        """Until the program has closed what the script has."""
        try:
            wait_until(self._is_quiet, f"the end of every connection after {after}")
        except AssertionError as late:
            raise AssertionError(f"{late}: {self._descriptors} descriptors expected, there are "
                                 f"{len(self.program.descriptors())}, sockets "
                                 f"{self.program.sockets()}") from None

    def _end_lost(self):
        """A session lost at the read that should have seen its client leave: the backend ends it."""
        with contextlib.suppress(AssertionError):
            wait_until(self._is_quiet, "the end of every connection", PATIENCE)
            return
        self._backend.end_connections()

    def meet(self, fault, use):
        """Run the script with a fault in it and check what is promised. True when it struck."""
        if fault.call == "getaddrinfo":
            self._forget_names()
        start = len(self.program.output)
        script = self.script()
        self.control.arm(fault, use)
        script.run()
        fired = self.control.fired
        self.control.disarm()

        name = f"{fault}, use {use}"
        if fault in LOST:
            self._end_lost()
        self._await_quiet(name)
        wait_until(lambda: self.script().serves_a_fresh_client(), f"a fresh client after {name}",
                   FRESH_PATIENCE)
        self._await_quiet(f"a fresh client after {name}")
        printed = self.program.output[start:]
        if fired and fault.message:
            assert fault.message in printed, (name, printed)
        elif not fired or not fault.message:
            assert not any(text in printed for text in MESSAGES), (name, printed)
        if fault.effect == UNNOTICED:
            assert (script.cut, script.silent) == (0, 0), (name, script.cut, script.silent, printed)
        if fault.effect == ENDED:
            assert script.silent == 0, (name, printed)
        return fired

    def turns_at_rest(self, seconds=0.5):
        """How many waits the program makes in that time without traffic."""
        def waits():
            uses = self.control.uses()
            return uses["epoll_wait"] + uses["poll"]
        before = waits()
        time.sleep(seconds)
        return waits() - before


def cases(stage, faults=FAULTS, uses_of=lambda count: range(1, count + 1)):
    """Each fault at the uses that `uses_of(count)` picks among as many as the script makes."""
    counts = stage.counts()
    return [(fault, use) for fault in faults for use in uses_of(counts[fault.call])]


def sweep(stage, wanted, deadline=None):
    """Meet each of the cases, as far as time allows. Returns how many were met, and struck.

    The number of uses varies a little from run to run, so the last ones do not always strike.
    """
    met = struck = 0
    for fault, use in wanted:
        if deadline and time.monotonic() > deadline:
            break
        met += 1
        struck += stage.meet(fault, use)
    assert stage.turns_at_rest() < 20, "the program spins"
    return met, struck
