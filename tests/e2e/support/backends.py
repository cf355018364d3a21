"""Backends that others wrote: nginx and Python's own file server."""

import functools
import http.server
import os
import pathlib
import socket
import subprocess
import threading

from support.ports import HeldPort
from support.waiting import PATIENCE, wait_until

NGINX_CONFIGURATION = """\
{user}
daemon off;
worker_processes 1;
pid nginx.pid;
error_log error.log;
events {{ worker_connections 1024; }}
http {{
    types {{ text/html html; text/css css; text/javascript js; image/png png; }}
    default_type application/octet-stream;
    access_log access.log combined;
    client_body_temp_path body;
    proxy_temp_path proxy;
    fastcgi_temp_path fastcgi;
    uwsgi_temp_path uwsgi;
    scgi_temp_path scgi;
    server {{
        listen 127.0.0.1:{port} reuseport;
        {tls}
        root {root};
        client_max_body_size 0;
        dav_methods PUT;
    }}
}}
"""


class Nginx:
    """Serves and takes files (GET, ranges, PUT) in `root`; keeps its own files in `home`.

    With a certificate it does so on `tls_port` too, under TLS.
    """

    def __init__(self, home, root, certificate=None):
        self.home, self.root = pathlib.Path(home), pathlib.Path(root)
        self._held = HeldPort()
        self.port = self._held.port
        user = "user root;" if os.geteuid() == 0 else ""
        self._held_tls, self.tls_port, tls = None, None, ""
        if certificate:
            self._held_tls = HeldPort()
            self.tls_port = self._held_tls.port
            tls = (f"listen 127.0.0.1:{self.tls_port} ssl reuseport;"
                   f"ssl_certificate {certificate.crt}; ssl_certificate_key {certificate.key};")
        (self.home / "nginx.conf").write_text(
            NGINX_CONFIGURATION.format(user=user, port=self.port, root=self.root, tls=tls))
        self._process = subprocess.Popen(
            ["nginx", "-p", self.home, "-c", self.home / "nginx.conf", "-e", "stderr"],
            stdin=subprocess.DEVNULL, stderr=(self.home / "start.log").open("wb"))
        wait_until(self._accepts, "nginx to accept")

    def _accepts(self):
        assert self._process.poll() is None, (self.home / "start.log").read_text()
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def log(self):
        """The lines of the access log so far."""
        return (self.home / "access.log").read_text().splitlines()

    def close(self):
        self._process.terminate()
        self._process.wait(PATIENCE)
        self._held.close()
        if self._held_tls:
            self._held_tls.close()


class _QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *_):
        pass


class FileServer:
    """Python's http.server over a folder: HTTP/1.0, every answer ended by closing."""

    def __init__(self, root):
        handler = functools.partial(_QuietHandler, directory=str(root))
        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        self.port = self._server.server_address[1]
        self._thread = threading.Thread(target=self._server.serve_forever, args=(0.05,))
        self._thread.start()

    def close(self):
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()
