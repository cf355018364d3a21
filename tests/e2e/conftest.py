"""Fixtures of the end-to-end suite. A missing tool is an error: nothing here is skipped."""

import contextlib
import shutil
import signal

import pytest

from support.authority import Authority
from support.backends import FileServer, Nginx
from support.browser import chromium
from support.ports import HeldPort, OccupiedPort
from support.program import Program, example_path, program_path
from support.recorder import Recorder

TOOLS = ["nginx", "haproxy", "curl", "wrk", "chromium", "chromedriver", "openssl",
         "pebble", "pebble-challtestsrv", "lego"]
PHASE_LIMIT = 60


def pytest_configure():
    missing = [tool for tool in TOOLS if not shutil.which(tool)]
    if missing:
        raise pytest.UsageError("not installed: " + ", ".join(missing))
    if not program_path().exists():
        raise pytest.UsageError(f"build the program first: there is no {program_path()}")


@contextlib.contextmanager
def bounded(item):
    """Fail a phase of a test that hangs, in the middle of whatever it waits for."""
    marker = item.get_closest_marker("limit")
    seconds = marker.args[0] if marker else PHASE_LIMIT

    def give_up(*_):
        raise TimeoutError(f"took longer than {seconds} s")

    previous = signal.signal(signal.SIGALRM, give_up)
    signal.alarm(seconds)
    try:
        yield
    finally:
        signal.alarm(0)
        signal.signal(signal.SIGALRM, previous)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_setup(item):
    with bounded(item):
        yield


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_call(item):
    with bounded(item):
        yield


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_teardown(item):
    with bounded(item):
        yield


@pytest.fixture
def keep():
    """Close what is handed over when the test is done, the latest first."""
    with contextlib.ExitStack() as stack:
        def keep(resource):
            stack.callback(resource.close)
            return resource
        yield keep


@pytest.fixture
def launch(keep):
    """Start the program with the given arguments; "PORT" stands for a free port of its own."""
    with contextlib.ExitStack() as stack:
        def launch(*arguments, **settings):
            port = keep(HeldPort()).port
            arguments = [str(word).replace("PORT", str(port)) for word in arguments]
            program = Program(*arguments, port=port, **settings)
            stack.callback(program.stop)
            return program.await_start()
        yield launch


@pytest.fixture
def serve(launch):
    """Start the program with a host map: serve({"app.local": backend, "echo.local": -1})."""
    def serve(hosts, **settings):
        words = ["PORT"]
        for host, target in hosts.items():
            words += ["-map", host, getattr(target, "port", target)]
        return launch(*words, **settings)
    return serve


@pytest.fixture(scope="session")
def authority(tmp_path_factory):
    """An authority whose certificates the tests' clients trust."""
    return Authority(tmp_path_factory.mktemp("authority"))


@pytest.fixture(scope="session")
def credentials(authority):
    """A key and a certificate for localhost."""
    return authority.issue("server", serial=1001)


@pytest.fixture
def serve_tls(launch, keep, credentials):
    """Start the program with TLS: serve_tls({"app.local": backend}), with its `ssl_port`.

    In a host, SSL stands for the HTTPS port. `http` says whether there is a plain port as well.
    """
    def serve_tls(hosts, http=True, made=credentials):
        ssl_port = keep(HeldPort()).port
        words = ["PORT" if http else "0", "-ssl", ssl_port, made.key, made.crt]
        for host, target in hosts.items():
            words += ["-map", host.replace("SSL", str(ssl_port)), getattr(target, "port", target)]
        program = launch(*words)
        program.ssl_port = ssl_port
        return program
    return serve_tls


@pytest.fixture
def example(launch):
    """Start an example with a free port as its first argument: example("files", folder)."""
    def example(name, *arguments, build=None, **settings):
        path = example_path(name, build)
        assert path.exists(), f"build the examples first: there is no {path}"
        return launch("PORT", *arguments, path=path, **settings)
    return example


@pytest.fixture
def record(keep):
    """Start a recording backend, with a script or to be driven by the test."""
    return lambda script=None: keep(Recorder(script))


@pytest.fixture
def nginx(keep, tmp_path):
    """An nginx over an empty folder, its `root`."""
    home, root = tmp_path / "nginx", tmp_path / "root"
    home.mkdir()
    root.mkdir()
    return keep(Nginx(home, root))


@pytest.fixture
def tls_nginx(keep, tmp_path, credentials):
    """An nginx that serves the same files on `port` and, under TLS, on `tls_port`."""
    home, root = tmp_path / "nginx", tmp_path / "root"
    home.mkdir()
    root.mkdir()
    return keep(Nginx(home, root, credentials))


@pytest.fixture
def browser(tmp_path):
    """A headless Chromium with a profile of its own."""
    driver = chromium(tmp_path / "profile")
    yield driver
    driver.quit()


@pytest.fixture
def file_server(keep, tmp_path):
    """Make a file server over a folder of this test."""
    return keep(FileServer(tmp_path))


@pytest.fixture
def closed_port(keep):
    """A port where every connect is refused."""
    return keep(HeldPort()).port


@pytest.fixture
def occupied_port(keep):
    """A port that cannot be bound."""
    return keep(OccupiedPort()).port
