"""The servers under test and the backends behind them, each as a process on its processor.

The peers are set up as a careful administrator would for this machine: one worker or thread,
pooled backend connections, time-outs that no row runs into, TLS 1.2 and 1.3.
"""

import contextlib
import dataclasses
import os
import pathlib
import platform
import signal
import subprocess
import time
import typing

from support.failure import Failure
from support.processes import await_listener, first_child, held_port, running
from support.rows import EARLIER

PROXY_CORE, LOAD_CORE = 0, 1


@dataclasses.dataclass
class Environment:
    """What every server of a run has in common."""

    # Logs, configurations and served files, in memory.
    folder: pathlib.Path
    # Where vindra and the tools of bench/ were built.
    build: pathlib.Path
    key: pathlib.Path
    certificate: pathlib.Path
    # The program of an earlier build.
    earlier: pathlib.Path = None
    # How later releases of the peers are started: what newer_peers() returns.
    newer: typing.Callable = None


@dataclasses.dataclass
class Server:
    """A server that listens: its port, the process whose time counts, the file that its log goes to."""

    name: str
    port: int
    pid: int
    log: pathlib.Path = None
    started: float = 0


def newer_peers(folder):
    """How to start the peers of a later Debian, unpacked in `folder`: with the libraries of that release."""
    libraries = folder / f"usr/lib/{platform.machine()}-linux-gnu"
    loader = next(libraries.glob("ld-linux*"))
    return lambda program: [loader, "--library-path", libraries, folder / "usr/sbin" / program]


def installed(program):
    """How to start a peer of this machine."""
    return [program]


NGINX_FRAME = """
daemon off;
worker_processes 1;
pid {folder}/{name}.pid;
error_log stderr error;
events {{ worker_connections 19500; }}
http {{
    access_log {log};
    keepalive_requests 1000000000;
    keepalive_timeout 1h;
    client_body_timeout 1h;
    send_timeout 1h;
    client_max_body_size 0;
    client_body_temp_path {folder}/{name}.body;
    proxy_temp_path {folder}/{name}.proxy;
    fastcgi_temp_path {folder}/{name}.fastcgi;
    uwsgi_temp_path {folder}/{name}.uwsgi;
    scgi_temp_path {folder}/{name}.scgi;
    {body}
}}
"""

NGINX_FILES = """
    sendfile on;
    tcp_nopush on;
    server {{ listen 127.0.0.1:{port} backlog=4096; root {folder}/www; }}
"""

NGINX_POOL = """
    upstream backend {{
        server 127.0.0.1:{backend};
        keepalive 512;
        keepalive_requests 1000000000;
        keepalive_timeout 1h;
    }}
"""

NGINX_PROXY = """
    {pool}
    {tls}
    server {{
        listen 127.0.0.1:{port}{listen_tls} backlog=4096;
        location / {{
            proxy_pass http://{target};
            proxy_http_version 1.1;
            proxy_set_header Connection "{connection}";
            proxy_read_timeout 1h;
            {more}
        }}
    }}
"""

HAPROXY = """
global
    nbthread 1
    maxconn 9500
    ssl-default-bind-options ssl-min-ver TLSv1.2
    tune.ssl.default-dh-param 2048
    {log_target}

defaults
    mode http
    option http-keep-alive
    http-reuse always
    timeout connect 10s
    timeout client 1h
    timeout server 1h
    timeout http-keep-alive 1h
    {log}

frontend front
    bind 127.0.0.1:{port}{bind_tls} backlog 4096
    default_backend back

backend back
    server one 127.0.0.1:{backend}
"""

HAPROXY_LOG = "log global\n    option httplog"
UNBUFFERED = "proxy_buffering off; proxy_request_buffering off;"


class Servers:
    """Starts each server by its name; `start` gives a context manager that yields a Server."""

    def __init__(self, environment):
        self.environment = environment
        self.kinds = {
            "vindra": self._vindra,
            EARLIER: lambda *a: self._vindra(*a, program=self.environment.earlier),
            "vindra, log to /dev/null": lambda *a: self._vindra(*a, sink="null"),
            "vindra, log to a pipe": lambda *a: self._vindra(*a, sink="pipe"),
            "nginx": self._nginx,
            "nginx with log": lambda *a: self._nginx(*a, log=True),
            "nginx unpooled": lambda *a: self._nginx(*a, pooled=False),
            "nginx unbuffered": lambda *a: self._nginx(*a, more=UNBUFFERED),
            "nginx newer": lambda *a: self._nginx(*a, peer=self.environment.newer),
            "haproxy": self._haproxy,
            "haproxy newer": lambda *a: self._haproxy(*a, peer=self.environment.newer),
            "haproxy with log": lambda *a: self._haproxy(*a, log=True),
            "floor": self._floor,
        }

    @contextlib.contextmanager
    def start(self, name, backend, tls=False):
        """The server `name` in front of the port `backend`, once it accepts."""
        with contextlib.ExitStack() as stack:
            port = stack.enter_context(held_port())
            yield self.kinds[name](stack, name, port, backend, tls)

    @contextlib.contextmanager
    def files(self):
        """An nginx that serves the folder www, on the processor of the load; yields its port."""
        with contextlib.ExitStack() as stack:
            port = stack.enter_context(held_port())
            body = NGINX_FILES.format(port=port, folder=self.environment.folder)
            self._run_nginx(stack, "files", port, body, "off", LOAD_CORE)
            yield port

    @contextlib.contextmanager
    def backend(self):
        """The backend of our own; yields its port."""
        with held_port() as port:
            program = self.environment.build / "bench/backend"
            with running(LOAD_CORE, [program, port]) as process:
                await_listener(process, port)
                yield port

    def _vindra(self, stack, name, port, backend, tls, sink="file", program=None):
        environment = self.environment
        words = [program or environment.build / "vindra/vindra"]
        words += [0, "-ssl", port, environment.key, environment.certificate] if tls else [port]
        words += ["-map", f"127.0.0.1:{port}", backend]
        log = environment.folder / "vindra.log"
        started = time.monotonic()
        if sink == "file":
            output = stack.enter_context(open(log, "wb"))
        elif sink == "null":
            log, output = None, subprocess.DEVNULL
        else:
            log, output = None, self._emptied_pipe(stack)
        process = stack.enter_context(running(PROXY_CORE, words, signal.SIGINT, stdout=output))
        await_listener(process, port)
        return Server(name, port, process.pid, log, started)

    def _emptied_pipe(self, stack):
        """The writing end of a pipe whose reader keeps up."""
        reading, writing = os.pipe()
        with open(reading, "rb") as end:
            stack.enter_context(running(LOAD_CORE, ["cat"], stdin=end))
        return stack.enter_context(open(writing, "wb"))

    def _nginx(self, stack, name, port, backend, tls, log=False, pooled=True, more="", peer=installed):
        environment = self.environment
        body = NGINX_PROXY.format(
            port=port, more=more,
            pool=NGINX_POOL.format(backend=backend) if pooled else "",
            target="backend" if pooled else f"127.0.0.1:{backend}",
            connection="" if pooled else "close",
            listen_tls=" ssl" if tls else "",
            tls=(f"ssl_protocols TLSv1.2 TLSv1.3; ssl_certificate {environment.certificate};"
                 f"ssl_certificate_key {environment.key};") if tls else "")
        file = environment.folder / "nginx.log"
        started = time.monotonic()
        worker = self._run_nginx(stack, "proxy", port, body, f"{file} combined" if log else "off", PROXY_CORE,
                                 peer)
        return Server(name, port, worker, file if log else None, started)

    def _run_nginx(self, stack, name, port, body, log, core, peer=installed):
        """Returns the worker's pid: the master does nothing while requests come."""
        folder = self.environment.folder
        configuration = folder / f"{name}.conf"
        configuration.write_text(NGINX_FRAME.format(folder=folder, name=name, body=body, log=log))
        command = [*peer("nginx"), "-e", "stderr", "-p", folder, "-c", configuration]
        process = stack.enter_context(running(core, command))
        await_listener(process, port)
        return first_child(process)

    def _haproxy(self, stack, name, port, backend, tls, log=False, peer=installed):
        environment = self.environment
        pem = environment.folder / "haproxy.pem"
        pem.write_bytes(environment.certificate.read_bytes() + environment.key.read_bytes())
        configuration = environment.folder / "haproxy.cfg"
        configuration.write_text(HAPROXY.format(
            port=port, backend=backend, bind_tls=f" ssl crt {pem}" if tls else "",
            log_target="log stdout format raw local0" if log else "", log=HAPROXY_LOG if log else ""))
        file = environment.folder / "haproxy.log"
        started = time.monotonic()
        output = stack.enter_context(open(file, "wb")) if log else subprocess.DEVNULL
        # It has something to say at every start, and -q would silence the log as well.
        errors = stack.enter_context(open(environment.folder / "haproxy.err", "w+"))
        command = [*peer("haproxy"), "-db", "-f", configuration]
        process = stack.enter_context(running(PROXY_CORE, command, stdout=output, stderr=errors))
        try:
            await_listener(process, port)
        except Failure as failure:
            errors.seek(0)
            raise Failure(f"{failure}: {' '.join(errors.read().split())}") from None
        return Server(name, port, process.pid, file if log else None, started)

    def _floor(self, stack, name, port, backend, tls):
        if tls:
            raise Failure("the floor speaks no TLS")
        started = time.monotonic()
        process = stack.enter_context(
            running(PROXY_CORE, [self.environment.build / "bench/floor", port, backend]))
        await_listener(process, port)
        return Server(name, port, process.pid, None, started)
