"""Machines without the TLS library, with one that lacks a function, and without a loader cache."""

import contextlib
import os
import re
import shutil
import signal
import socket
import subprocess

import pytest

from support.ports import HeldPort
from support.program import build_folder, program_path
from support.raw import connect, get
from support.texts import SHUTTING_DOWN, binding_lines, echo_answer
from support.tls import await_end
from support.waiting import PATIENCE, wait_until

CACHE = "/etc/ld.so.cache"

# In the order in which they are bound.
NAMES = """
    OpenSSL_version_num SSL_load_error_strings SSL_library_init OPENSSL_init_ssl SSL_CTX_new
    SSLv23_server_method SSLv23_client_method TLS_server_method TLS_client_method SSL_CTX_free
    SSL_CTX_use_PrivateKey_file SSL_CTX_use_certificate_file SSL_new SSL_free SSL_set_fd SSL_accept
    SSL_connect SSL_shutdown SSL_read SSL_write SSL_set_verify SSL_CTX_ctrl SSL_get_error SSL_ctrl
    SSL_get_peer_certificate SSL_get1_peer_certificate BIO_s_mem BIO_new PEM_write_bio_X509
    BIO_ctrl BIO_free X509_free""".split()

# What the server calls, and so what the stand-in library has.
CALLED_AT_START = """
    OpenSSL_version_num OPENSSL_init_ssl TLS_server_method SSL_CTX_new SSL_CTX_use_PrivateKey_file
    SSL_CTX_use_certificate_file SSL_CTX_ctrl""".split()
CALLED_FOR_A_CLIENT = "SSL_new SSL_set_fd SSL_accept SSL_read SSL_write SSL_shutdown SSL_free".split()
CALLED_AT_THE_END = ["SSL_CTX_free"]
CALLED = CALLED_AT_START + CALLED_FOR_A_CLIENT + CALLED_AT_THE_END

NOT_LOADED = b"Unable to load libssl.so"


def listing(names):
    return b"".join(b"\n" + name.encode() for name in names)


def missing_text(name):
    """What a call of the missing function throws, over a library that has only CALLED."""
    lacking = [each for each in NAMES if each not in CALLED or each == name]
    return b"Error! Missing export(s) in libssl.so:" + listing(lacking) + b"\n"


def library_file_name():
    """The name under which the loader's cache has the library."""
    with open(CACHE, "rb") as cache:
        found = re.search(rb"/(libssl\.so[\x20-\x7f]*)", cache.read())
    return found.group(1).decode() if found else "libssl.so"


@pytest.fixture
def loader_path(tmp_path):
    """Make a private loader path where the library is what it is given."""
    def loader_path(library):
        folder = tmp_path / "libraries"
        folder.mkdir()
        shutil.copyfile(library, folder / library_file_name())
        return {**os.environ, "LD_LIBRARY_PATH": str(folder)}
    return loader_path


class Output:
    """A process of the test's own whose two outputs go to files."""

    def __init__(self, folder, words, environment=None):
        self._paths = [folder / "stdout", folder / "stderr"]
        with self._paths[0].open("wb") as out, self._paths[1].open("wb") as err:
            self.process = subprocess.Popen(list(map(str, words)), stdin=subprocess.DEVNULL,
                                            stdout=out, stderr=err, env=environment)

    @property
    def printed(self):
        return self._paths[0].read_bytes()

    @property
    def errors(self):
        return self._paths[1].read_bytes()

    def await_printed(self, text):
        wait_until(lambda: text in self.printed or self.process.poll() is not None, text)
        assert text in self.printed, (self.printed, self.errors)

    def await_end(self):
        return self.process.wait(PATIENCE)

    def close(self):
        self.process.kill()
        self.process.wait(PATIENCE)


@pytest.fixture
def start(keep, tmp_path):
    """Start the program with a library of the test's; returns its two outputs and its ports."""
    def start(environment, *words, before=()):
        port, ssl_port = keep(HeldPort()).port, keep(HeldPort()).port
        words = [{"PORT": port, "SSL": ssl_port}.get(word, word) for word in words]
        output = keep(Output(tmp_path, [*before, program_path(), *words], environment))
        return output, port, ssl_port
    return start


HTTPS = ["0", "-ssl", "SSL", "absent.key", CACHE, "-map", "echo.local", "-1"]


def stub(variant):
    return build_folder() / "tests" / "tls" / "stub" / variant / "libssl.so"


def https_only_lines(ssl_port):
    return b"Using https only (no http)\n" + binding_lines(ssl_port)


@pytest.mark.parametrize("name", CALLED_AT_START)
def test_a_function_missing_at_start_is_told_before_a_socket_opens(start, loader_path, name):
    output, _, _ = start(loader_path(stub(name)), *HTTPS)
    assert output.await_end() == 0
    assert (output.printed, output.errors) == (missing_text(name), b"")


@pytest.mark.parametrize("name", CALLED_FOR_A_CLIENT)
def test_a_function_missing_for_a_client_is_told_when_it_is_called(start, loader_path, name):
    output, _, ssl_port = start(loader_path(stub(name)), *HTTPS)
    started = https_only_lines(ssl_port) + b"0 connections\n0 connections\n"
    output.await_printed(started)
    with connect(ssl_port) as client:
        port = client.local_port
        client.send(get("echo.local"))
        if name in ("SSL_shutdown", "SSL_free"):
            client.read_exactly(len(echo_answer(get("echo.local"))))
            client.finish()
        await_end(client)
    assert output.await_end() == 0
    log = b"[echo.local] 127.0.0.1:%d GET / HTTP/1.1 []\n" % port
    read = name in ("SSL_write", "SSL_shutdown", "SSL_free")
    assert (output.printed, output.errors) == (
        started + (log if read else b"") + missing_text(name), b"")


@pytest.mark.parametrize("name", CALLED_AT_THE_END)
def test_a_function_missing_on_the_way_out_is_told_last(start, loader_path, name):
    output, _, ssl_port = start(loader_path(stub(name)), *HTTPS)
    started = https_only_lines(ssl_port) + b"0 connections\n0 connections\n"
    output.await_printed(started)
    output.process.send_signal(signal.SIGINT)
    assert output.await_end() == 0
    assert (output.printed, output.errors) == (started + SHUTTING_DOWN + missing_text(name), b"")


def test_a_library_with_all_that_is_called_serves(start, loader_path):
    output, _, ssl_port = start(loader_path(stub("whole")), *HTTPS)
    output.await_printed(b"0 connections\n0 connections\n")
    with connect(ssl_port) as client:
        client.send(get("echo.local"))
        answer = echo_answer(get("echo.local"))
        assert client.read_exactly(len(answer)) == answer
    output.process.send_signal(signal.SIGINT)
    assert output.await_end() == 0
    assert output.printed.endswith(SHUTTING_DOWN)
    assert output.errors == b""


def check_plain_set_up(start, environment, errors, before=()):
    """Plain HTTP is served as ever; the library's absence stands on standard error alone."""
    output, port, _ = start(environment, "PORT", "-map", "echo.local", "-1", before=before)
    output.await_printed(b"0 connections\n")
    with connect(port) as client:
        client.send(get("echo.local"))
        answer = echo_answer(get("echo.local"))
        assert client.read_exactly(len(answer)) == answer
    output.process.send_signal(signal.SIGINT)
    assert output.await_end() == 0
    assert output.printed.endswith(SHUTTING_DOWN)
    assert output.errors == errors


def check_https_set_up(start, environment, errors, before=()):
    """HTTPS ends with the loader's text before it opens a socket."""
    output, _, _ = start(environment, *HTTPS, before=before)
    assert output.await_end() == 0
    assert (output.printed, output.errors) == (NOT_LOADED + listing(NAMES) + b"\n", errors)


CHECKS = {"plain": check_plain_set_up, "https": check_https_set_up}


@pytest.mark.parametrize("set_up", CHECKS)
def test_a_library_that_cannot_be_loaded_is_told(start, loader_path, tmp_path, set_up):
    broken = tmp_path / "broken"
    broken.write_text("no library\n")
    CHECKS[set_up](start, loader_path(broken), NOT_LOADED + b"\n")


@pytest.fixture
def hidden(tmp_path):
    """Give the words that start a program on a machine with other files in places: path -> file.

    They live in a mount namespace of the program's own.
    """
    def hidden(files):
        mounts = "".join(f"mount --bind '{file}' '{path}' && " for path, file in files.items())
        enter = ["unshare", "--mount"] if os.geteuid() == 0 else ["unshare", "--mount", "-r"]
        possible = subprocess.run([*enter, "sh", "-c", mounts + "true"], capture_output=True)
        if possible.returncode:
            pytest.skip(f"no mount namespace here: {possible.stderr.decode().strip()}")
        return [*enter, "sh", "-c", mounts + 'exec "$0" "$@"']
    return hidden


@contextlib.contextmanager
def unopenable(path):
    """A file that nobody can open: that of a socket."""
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(path))
        yield path


def library_files():
    """The files that hold the library, whatever its names."""
    listed = subprocess.run(["ldconfig", "-p"], capture_output=True, check=True,
                            env={"PATH": "/sbin:/usr/sbin:/bin:/usr/bin"}).stdout.decode()
    return {os.path.realpath(path) for path in re.findall(r"=> (\S*/libssl\.so\S*)", listed)}


@pytest.mark.parametrize("set_up", CHECKS)
def test_a_machine_without_the_library_is_told(start, hidden, tmp_path, set_up):
    cache = tmp_path / "cache"
    cache.write_bytes(b"\0/lib/libc.so.6\0")
    words = hidden({CACHE: cache, **{file: "/dev/null" for file in library_files()}})
    CHECKS[set_up](start, None, NOT_LOADED + b"\n", before=words)


@pytest.mark.parametrize("set_up", CHECKS)
def test_a_machine_without_a_loader_cache_is_told(start, hidden, tmp_path, set_up):
    with unopenable(tmp_path / "socket") as cache:
        words = hidden({CACHE: cache, **{file: "/dev/null" for file in library_files()}})
        CHECKS[set_up](start, None, b"Unable to find ld.so.cache!\n" + NOT_LOADED + b"\n",
                       before=words)


def test_the_other_place_of_the_loader_cache_is_read_where_the_first_is_not(start, hidden, tmp_path):
    other = tmp_path / "ldconfig"
    other.mkdir()
    (other / "ld.so.cache").write_bytes(b"\0/lib/libssl.so.other\0")
    libraries = tmp_path / "libraries"
    libraries.mkdir()
    shutil.copyfile(stub("whole"), libraries / "libssl.so.other")
    with unopenable(tmp_path / "socket") as cache:
        words = hidden({CACHE: cache, "/var/cache/ldconfig": other,
                        **{file: "/dev/null" for file in library_files()}})
        check_plain_set_up(start, {**os.environ, "LD_LIBRARY_PATH": str(libraries)}, b"",
                           before=words)
